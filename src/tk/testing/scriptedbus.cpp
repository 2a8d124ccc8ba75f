#include "tk/testing/scriptedbus.h"

namespace tk::testing {

message listOf(const std::vector<message>& records) {
    message reply;
    reply.insert_message_array(field::objects, records);
    return reply;
}

void ScriptedBus::answer(Path path, std::uint32_t command, Answer answer) {
    Key key(std::move(path), command);
    silent.erase(key);
    answers[std::move(key)] = std::move(answer);
}

void ScriptedBus::answer(Path path, std::uint32_t command, message reply) {
    answer(std::move(path), command, [reply = std::move(reply)](const message&) { return reply; });
}

message ScriptedBus::exchange(const message& request, const Path& from, std::uint32_t command,
                              std::uint32_t timeout) {
    requests.push_back({request, from, command, timeout});
    if (onRequest) onRequest(Request(requests.back()));
    const auto answer = answers.find({request.get_u32_array(field::destination), command});
    if (answer == answers.end()) return {};
    const Answer chosen = answer->second;
    return chosen(request);
}

void ScriptedBus::keepSilent(Path path, std::uint32_t command) {
    silent.emplace(std::move(path), command);
}

message ScriptedBus::ask(const message& request, const Path& from, std::uint32_t command,
                         std::uint32_t& number) {
    asked.push_back(number = static_cast<std::uint32_t>(asked.size()) + 1);
    const message answer = exchange(request, from, command, 0);
    if (silent.contains({request.get_u32_array(field::destination), command})) return {};
    message stamped = request;
    stamp(stamped, from, number, Kind::request, command);
    ends.push_back(endOf(stamped, answer));
    return {};
}

std::vector<ScriptedBus::Request> ScriptedBus::requestsTo(const Path& path, std::uint32_t command) const {
    std::vector<Request> found;
    for (const Request& request : requests)
        if (request.content.get_u32_array(field::destination) == path && request.command == command)
            found.push_back(request);
    return found;
}

}  // namespace tk::testing
