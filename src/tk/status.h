#pragma once

#include <cassert>
#include <cstdint>
#include <optional>
#include <string>
#include <utility>

namespace tk {

/// How something ended that can fail: well, or not, with the reason for people. A value.
class [[nodiscard]] Status {
public:
    /// It went well.
    Status() = default;
    /// It failed. `code` is an errno value or the code of a bus error, whichever the function says; 0 where
    /// nobody decides by it.
    static Status failure(std::string reason, std::uint32_t code = 0) {
        return Status(std::move(reason), code);
    }
    /// A system call failed with this errno value: the reason is `what`, a colon and the system's text.
    static Status ofErrno(const std::string& what, int error);
    /// The same without words of the caller's.
    static Status ofErrno(int error);

    /// True when it went well.
    bool isOk() const { return !failed; }
    /// Why it failed; empty when it did not.
    const std::string& reason() const { return text; }
    /// The code of the failure, as the function that failed says.
    std::uint32_t code() const { return number; }

    /// The same failure, with words before its reason.
    Status prefixed(const std::string& words) const;

    bool operator==(const Status&) const = default;

private:
    Status(std::string reason, std::uint32_t code) : failed(true), number(code), text(std::move(reason)) {}

    bool failed = false;
    std::uint32_t number = 0;
    std::string text;
};

/// A value, or why there is none. A value, as far as T is one.
template <typename T>
class [[nodiscard]] Result {
public:
    Result(T value) : content(std::move(value)) {}  // NOLINT(google-explicit-constructor): reads as a return
    Result(Status failure) : outcome(std::move(failure)) { assert(!outcome.isOk()); }  // NOLINT: likewise

    /// True when there is a value.
    bool isOk() const { return content.has_value(); }
    /// Why there is none.
    const Status& status() const { return outcome; }
    const std::string& reason() const { return outcome.reason(); }

    // The value. Only when there is one.
    const T& operator*() const { return *content; }
    T& operator*() { return *content; }
    const T* operator->() const { return &*content; }
    T* operator->() { return &*content; }
    /// Gives the value up to the caller.
    [[nodiscard]] T take() { return std::move(*content); }

private:
    Status outcome;
    std::optional<T> content;
};

}  // namespace tk
