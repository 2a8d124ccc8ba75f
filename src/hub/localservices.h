#pragma once

#include <sys/types.h>

#include <cstdint>
#include <map>

#include "hub/access.h"
#include "tk/handlertable.h"

namespace hub {

/// The handlers that live in the hub's own process, by their paths.
class LocalServices final : public Requester {
public:
    /// Serves `handler` at its path, of one or two elements.
    /// Lifetime: the handler outlives the entry.
    void add(tk::Handler& handler) {
        programs[handler.path().front()].add(tk::handlerNumber(handler.path()), handler);
    }
    /// Forgets all handlers.
    void clear() { programs.clear(); }

    /// True when paths that begin with `program` lead to this process.
    bool has(std::uint32_t program) const { return programs.contains(program); }
    /// The handler at a path of one or two elements.
    /// Errors: null when there is none.
    tk::Handler* find(const tk::Path& path) const;
    /// Serves a user's request to a program of this process. The answer carries no routing fields.
    [[nodiscard]] tk::message serve(const tk::message& request, uid_t asker);
    [[nodiscard]] uid_t user() const override { return served; }
    /// Tells every handler that a client is gone.
    void disconnected(const tk::Path& client) const;

private:
    std::map<std::uint32_t, tk::HandlerTable> programs;
    uid_t served = 0;  // whose request is being served
};

}  // namespace hub
