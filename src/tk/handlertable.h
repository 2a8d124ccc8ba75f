#pragma once

#include <cstdint>
#include <map>

#include "tk/handler.h"
#include "tk/message.h"

namespace tk {

/// The handlers of one program by number, which is the second element of their path.
class HandlerTable {
public:
    /// Adds a handler; it replaces one with the same number.
    /// Lifetime: the handler outlives its entry.
    void add(std::uint32_t number, Handler& handler) { handlers[number] = &handler; }
    /// Removes a handler; an absent one is no error.
    void remove(std::uint32_t number) { handlers.erase(number); }
    /// The handler of a number.
    /// Errors: null when there is none.
    Handler* find(std::uint32_t number) const;
    /// All handlers, by number.
    const std::map<std::uint32_t, Handler*>& all() const { return handlers; }

    /// The answer of the handler that a request is addressed to, without routing fields.
    [[nodiscard]] message answer(const message& request) const;

private:
    std::map<std::uint32_t, Handler*> handlers;
};

/// The number of the handler at a path; a path of one element means handler 0.
[[nodiscard]] std::uint32_t handlerNumber(const Path& path);

}  // namespace tk
