#pragma once

#include <cstdint>
#include <stdexcept>
#include <string>

namespace ctl {

/// How tkctl ends.
enum class Status : int { done = 0, failed = 1, misuse = 2 };

/// Ends a command; its text is the reason that goes to standard error. Thrown only within tkctl, never
/// through the platform library, which is built without exceptions.
class Failure : public std::runtime_error {
public:
    /// `reason` is printed after the program's name.
    explicit Failure(const std::string& reason, Status status = Status::failed)
        : std::runtime_error(reason), status(status), reason(reason) {}
    /// `advice`, which says what to do, follows the reason unless it is empty.
    Failure(const std::string& reason, const std::string& advice)
        : std::runtime_error(advice.empty() ? reason : reason + "; " + advice),
          status(Status::failed),
          reason(reason) {}

    const Status status;
    const std::string reason;  // without the advice
};

/// The hub cannot be reached; `error` is the errno value that says why.
class Unreachable : public Failure {
public:
    Unreachable(const std::string& reason, const std::string& advice, std::uint32_t error)
        : Failure(reason, advice), error(error) {}

    const std::uint32_t error;
};

/// The failure of a command that was called wrongly.
inline Failure misuse(const std::string& reason) {
    return Failure(reason, Status::misuse);
}

}  // namespace ctl
