#include <benchmark/benchmark.h>

#include <string>

#include "http/httpmessage.h"

namespace {

const char* const request =
    "POST /upnp/control/wanipconn-2 HTTP/1.1\r\n"
    "HOST: 192.0.2.1:2828\r\n"
    "CONTENT-TYPE: text/xml; charset=\"utf-8\"\r\n"
    "CONTENT-LENGTH: 600\r\n"
    "SOAPACTION: \"urn:schemas-upnp-org:service:WANIPConnection:1#AddPortMapping\"\r\n"
    "\r\n";

void readRequest(benchmark::State& state) {
    const std::string text = request + std::string(600, 'x');
    for (auto _ : state) {
        gateway::HTTPMessage message(text);
        benchmark::DoNotOptimize(message);
    }
}
BENCHMARK(readRequest);

void writeAnswer(benchmark::State& state) {
    const std::string body(400, 'x');
    for (auto _ : state) {
        gateway::HTTPMessage answer(gateway::httpstatus::ok);
        answer.add("CONTENT-LENGTH", "400");
        answer.add("CONTENT-TYPE", "text/xml; charset=\"utf-8\"");
        answer.addDate(0);
        answer.add("EXT", "");
        answer.body = body;
        std::string text = answer.toString();
        benchmark::DoNotOptimize(text);
    }
}
BENCHMARK(writeAnswer);

}  // namespace
