#include <CLI/CLI.hpp>

#include "bench/arguments.h"
#include "bench/datagramload.h"
#include "bench/eventload.h"
#include "bench/httpload.h"
#include "bench/requests.h"

using namespace bench;

namespace {

/// What the command lines say; each command uses a part of it.
struct Settings {
    std::string to;
    std::vector<std::string> files;
    std::string ports;
    std::string indexes;
    std::size_t count = 0;  // 0: each request once
    std::size_t inFlight = 1;
    std::size_t size = 16;
    std::size_t bursts = 5;
    std::size_t answers = 1;
    std::size_t window = 0;
    std::uint16_t listen = 5000;
    std::size_t subscribers = 1;
    std::string undo;

    Requests requests() const {
        std::vector<std::string> texts;
        for (const std::string& file : files) texts.push_back(contentOf(file));
        const auto range = [](const std::string& text) {
            return text.empty() ? std::nullopt : std::optional(toRange(text));
        };
        return Requests(std::move(texts), range(ports), range(indexes));
    }
    std::size_t countOf(const Requests& all) const { return count > 0 ? count : all.count(); }
};

void http(const Settings& settings) {
    Requests requests = settings.requests();
    const std::size_t count = settings.countOf(requests);
    HTTPLoad load(toEndpoint(settings.to), requests, count, settings.inFlight);
    load.keepInFlight(count);
    load.print();
}

void burst(const Settings& settings) {
    Requests requests = settings.requests();
    HTTPLoad load(toEndpoint(settings.to), requests, settings.size * settings.bursts, settings.size);
    for (std::size_t i = 0; i < settings.bursts; ++i) load.burst();
    load.print();
}

void udp(const Settings& settings) {
    DatagramLoad load(toEndpoint(settings.to), contentOf(settings.files.front()));
    if (settings.window > 0)
        load.keepInFlight(settings.count, settings.window);
    else
        load.askOneByOne(settings.count, settings.answers);
    load.print();
}

void events(const Settings& settings) {
    Requests requests = settings.requests();
    EventLoad load(toEndpoint(settings.to), settings.listen);
    const std::string undo = settings.undo.empty() ? "" : contentOf(settings.undo);
    load.measure(requests, settings.countOf(requests), settings.subscribers, undo);
    load.print();
}

CLI::App* addCommand(CLI::App& app, Settings& settings, const std::string& name, const std::string& help) {
    CLI::App* command = app.add_subcommand(name, help);
    command->add_option("--to", settings.to, "ADDRESS:PORT of the server; a group is an address too")
        ->required();
    command->add_option("--request", settings.files, "file that holds a request; several go out in turn")
        ->required();
    return command;
}

void addRanges(CLI::App* command, Settings& settings) {
    command->add_option("--count", settings.count, "how many requests; else each once");
    command->add_option("--ports", settings.ports, "FIRST-LAST: the numbers for @PORT@");
    command->add_option("--indexes", settings.indexes, "FIRST-LAST: the numbers for @INDEX@");
}

}  // namespace

int main(int argc, char** argv) {
    CLI::App app("Loads a server as cheaply as it can, and prints what it saw as one line of JSON.");
    app.require_subcommand(1);
    Settings settings;

    CLI::App* httpCommand = addCommand(app, settings, "http", "requests, each on a connection of its own");
    addRanges(httpCommand, settings);
    httpCommand->add_option("--in-flight", settings.inFlight, "how many connections there are at any time");

    CLI::App* burstCommand = addCommand(app, settings, "burst", "connections that begin at once");
    burstCommand->add_option("--size", settings.size, "how many connections a burst has");
    burstCommand->add_option("--bursts", settings.bursts, "how many bursts there are");

    CLI::App* udpCommand = addCommand(app, settings, "udp", "datagrams");
    udpCommand->add_option("--count", settings.count, "how many datagrams are answered")->required();
    udpCommand->add_option("--answers", settings.answers, "how many answers each brings");
    udpCommand->add_option("--window", settings.window,
                           "how many are on their way; else one after the other");

    CLI::App* eventsCommand = addCommand(app, settings, "events", "requests that bring events");
    addRanges(eventsCommand, settings);
    eventsCommand->add_option("--listen", settings.listen, "the subscribers' port");
    eventsCommand->add_option("--subscribers", settings.subscribers, "how many events each request brings");
    eventsCommand->add_option("--undo", settings.undo, "file with the request that follows each, with @SID@");

    CLI11_PARSE(app, argc, argv);
    if (httpCommand->parsed()) http(settings);
    if (burstCommand->parsed()) burst(settings);
    if (udpCommand->parsed()) udp(settings);
    if (eventsCommand->parsed()) events(settings);
    return 0;
}
