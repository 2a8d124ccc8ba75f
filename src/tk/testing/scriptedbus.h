#pragma once

#include <cstdint>
#include <deque>
#include <functional>
#include <map>
#include <utility>
#include <vector>

#include "tk/bus.h"

namespace tk::testing {

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

    /// Answers every request of `command` to `path` from now on; an empty message where nothing is told.
    void answer(Path path, std::uint32_t command, Answer answer);
    void answer(Path path, std::uint32_t command, message reply);
    /// Called for each request before it is answered.
    std::function<void(const Request&)> onRequest;

    message exchange(const message& request, const Path& from, std::uint32_t command,
                     std::uint32_t timeout) override;
    void post(message stamped) override { posted.push_back(std::move(stamped)); }

    /// The recorded requests of one command to one path, in order.
    std::vector<Request> requestsTo(const Path& path, std::uint32_t command) const;

    std::vector<Request> requests;
    std::vector<message> posted;  // replies and notifications

private:
    std::map<std::pair<Path, std::uint32_t>, Answer> answers;
};

}  // namespace tk::testing
