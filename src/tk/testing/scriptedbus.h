#pragma once

#include <cstdint>
#include <deque>
#include <functional>
#include <map>
#include <set>
#include <utility>
#include <vector>

#include "tk/bus.h"

namespace tk::testing {

/// The reply to a request for all objects, as one page.
message listOf(const std::vector<message>& records);

/// A bus in memory: records every request field by field, and answers as told.
class ScriptedBus final : public Bus {
public:
    /// One request as the handler made it: without the routing fields that the platform appends.
    struct Request {
        message content;
        Path from;
        std::uint32_t command = 0;
        std::uint32_t timeout = 0;
    };
    using Answer = std::function<message(const message& request)>;

    /// Answers every request of `command` to `path` from now on. Requests without an answer get an empty
    /// message.
    void answer(Path path, std::uint32_t command, Answer answer);
    void answer(Path path, std::uint32_t command, message reply);
    /// Gives requests sent by ask() no end, until the next answer() for them.
    void keepSilent(Path path, std::uint32_t command);
    /// Called for each request before it is answered.
    std::function<void(const Request&)> onRequest;

    message exchange(const message& request, const Path& from, std::uint32_t command,
                     std::uint32_t timeout) override;
    /// Ends the request with what exchange() would return, when the loop is told to settle.
    message ask(const message& request, const Path& from, std::uint32_t command,
                std::uint32_t& number) override;
    void forget(std::uint32_t number) override { forgotten.push_back(number); }
    void post(message stamped) override { posted.push_back(std::move(stamped)); }

    /// The recorded requests of one command to one path, in order.
    std::vector<Request> requestsTo(const Path& path, std::uint32_t command) const;

    std::vector<Request> requests;
    std::vector<message> posted;           // replies and notifications
    std::deque<message> ends;              // of asked requests, on their way
    std::vector<std::uint32_t> asked;      // their numbers
    std::vector<std::uint32_t> forgotten;  // those of them that were withdrawn

private:
    using Key = std::pair<Path, std::uint32_t>;

    std::map<Key, Answer> answers;
    std::set<Key> silent;
};

}  // namespace tk::testing
