#include "bench/eventload.h"

#include <errno.h>
#include <stdio.h>
#include <sys/socket.h>

#include "bench/arguments.h"
#include "bench/sockets.h"

namespace bench {

namespace {

constexpr int backlog = 128;
constexpr int patience = 10'000;  // milliseconds until an event counts as lost
constexpr char good[] = "HTTP/1.1 200";
constexpr char lastBytes[] = "</e:propertyset>\r\n";
const char reply[] = "HTTP/1.1 200 OK\r\nCONTENT-LENGTH: 0\r\n\r\n";

std::string sidOf(const std::string& answer) {
    const std::string name = "\r\nSID: ";
    const std::size_t header = answer.find(name);
    if (header == std::string::npos) return {};
    const std::size_t value = header + name.size();
    return answer.substr(value, answer.find("\r\n", value) - value);
}

}  // namespace

EventLoad::EventLoad(const sockaddr_in& to, std::uint16_t port) : to(to), listener(listenOn(port, backlog)) {
    limitWaiting(listener, patience);
}

void EventLoad::measure(Requests& requests, std::size_t count, std::size_t subscribers,
                        const std::string& undo) {
    times = Times(count);
    for (std::size_t i = 0; i < count; ++i) {
        const std::string answer = ask(requests.next());
        const std::int64_t answered = now();
        std::int64_t last = answered;
        for (std::size_t event = 0; event < subscribers; ++event) last = takeEvent();
        times.add(last - answered);
        std::string request = undo;
        substitute(request, "@SID@", sidOf(answer));
        if (!request.empty()) (void)ask(request);  // the answer has been looked at
    }
}

std::string EventLoad::ask(const std::string& request) const {
    const tk::Fd socket = connectTo(to);
    writeAll(socket, request);
    std::string answer = readToEnd(socket);
    errno = 0;
    if (!answer.starts_with(good)) fail("failed: " + answer);
    return answer;
}

std::int64_t EventLoad::takeEvent() const {
    const tk::Fd socket(::accept4(listener.get(), nullptr, nullptr, SOCK_CLOEXEC));
    if (!socket.isOpen()) fail("no event");
    std::string event;
    while (!event.ends_with(lastBytes)) {
        char bytes[4096];
        const ssize_t length = ::recv(socket.get(), bytes, sizeof bytes, 0);
        if (length <= 0) fail("no whole event: " + event);
        event.append(bytes, static_cast<std::size_t>(length));
    }
    const std::int64_t there = now();
    writeAll(socket, reply);
    return there;
}

void EventLoad::print() const {
    ::printf("{\"count\": %zu, ", times.count());
    times.print();
    ::printf("}\n");
}

}  // namespace bench
