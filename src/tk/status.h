#pragma once

#include <cassert>
#include <cstdint>
#include <optional>
#include <string>
#include <utility>

namespace tk {

/// True for the errno value of a call that lacked descriptors or memory: the same call may succeed later.
[[nodiscard]] bool isShortage(int error);

/// The outcome of something that can fail: success, or failure with a reason for people to read. A value.
class [[nodiscard]] Status {
public:
    /// Success.
    Status() = default;
    /// A failure. `code` is an errno value or a bus error code, as the failing function documents; 0 where no
    /// caller acts on it.
    static Status failure(std::string reason, std::uint32_t code = 0) {
        return Status(std::move(reason), code);
    }
    /// A system call failed with this errno value: the reason is `what`, a colon and the system's text.
    static Status ofErrno(const std::string& what, int error);
    /// The same, with only the system's text.
    static Status ofErrno(int error);

    /// True when it succeeded.
    bool isOk() const { return !failed; }
    /// Why it failed; empty when it did not.
    const std::string& reason() const { return text; }
    /// The code of the failure; 0 when there is none.
    std::uint32_t code() const { return number; }

    /// The same outcome; the reason of a failure gets `words` put before it.
    Status prefixed(const std::string& words) const;

    bool operator==(const Status&) const = default;

private:
    Status(std::string reason, std::uint32_t code) : failed(true), number(code), text(std::move(reason)) {}

    bool failed = false;
    std::uint32_t number = 0;
    std::string text;
};

/// A value, or the reason why there is none. Itself a value if T is one.
template <typename T>
class [[nodiscard]] Result {
public:
    Result(T value) : content(std::move(value)) {}  // NOLINT(google-explicit-constructor): reads as a return
    Result(Status failure) : outcome(std::move(failure)) { assert(!outcome.isOk()); }  // NOLINT: likewise

    /// True when there is a value.
    bool isOk() const { return content.has_value(); }
    /// Why there is no value.
    const Status& status() const { return outcome; }
    const std::string& reason() const { return outcome.reason(); }

    /// The value. Call only when there is one.
    const T& operator*() const { return *content; }
    T& operator*() { return *content; }
    const T* operator->() const { return &*content; }
    T* operator->() { return &*content; }
    /// Moves the value out. Call only when there is one.
    [[nodiscard]] T take() { return std::move(*content); }

private:
    Status outcome;
    std::optional<T> content;
};

}  // namespace tk
