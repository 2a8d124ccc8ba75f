#pragma once

#include <cstdint>
#include <string>

namespace router {

/// Starts programs that a message is for and that are not on the bus. The hub sees no more of activation than
/// this.
class Starter {
public:
    virtual ~Starter() = default;
    /// Starts `program`, unless it was started already and is still running.
    /// Errors: false when it is not known how to start it, or the system refused; then `reason` says why.
    [[nodiscard]] virtual bool start(std::uint32_t program, std::string& reason) = 0;
    /// Hears that a program has registered.
    virtual void registered(std::uint32_t program) = 0;
};

}  // namespace router
