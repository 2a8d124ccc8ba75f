#pragma once

#include <ctime>
#include <string>
#include <string_view>
#include <vector>

#include "http/httpprogress.h"

namespace gateway {

/// The statuses that the daemon answers with.
namespace httpstatus {
constexpr int ok = 200;
constexpr int badRequest = 400;
constexpr int notFound = 404;
constexpr int preconditionFailed = 412;
constexpr int internalServerError = 500;
constexpr int notImplemented = 501;
}  // namespace httpstatus

/// One message in the form of HTTP: a request, a response, or an SSDP datagram.
/// A value: built, read or written, and dropped.
struct HTTPMessage {
    /// An empty message for the daemon's own requests; the title is set by the caller.
    HTTPMessage() = default;
    /// A response without headers or body. A status that is none of httpstatus gets an empty reason, after
    /// its blank.
    explicit HTTPMessage(int statusCode);
    /// Parses what has been received so far, by the rules of HTTPProgress.
    /// Errors: none; a malformed message stays incomplete, with what was read before the fault.
    explicit HTTPMessage(std::string_view text);
    explicit HTTPMessage(const std::string& text) : HTTPMessage(std::string_view(text)) {}
    explicit HTTPMessage(const char* text) : HTTPMessage(std::string_view(text)) {}

    /// Appends a header with its name in upper case, without checking for duplicates.
    void add(std::string name, std::string value);
    /// True when there is a header of this name, in any case.
    bool has(std::string name) const;
    /// The value of the first header of this name, in any case; empty when there is none.
    std::string get(std::string name) const;
    /// Appends a DATE header.
    /// Units: seconds since 1970, 0 for now.
    void addDate(std::time_t time);

    /// The message as it goes on the wire. Whoever sets a body adds CONTENT-LENGTH.
    std::string toString() const;

    std::string title;                // the start line
    std::vector<std::string> names;   // of the headers, in upper case
    std::vector<std::string> values;  // one for each name
    std::string body;
    // True unless a parsed message lacks something, or its body is longer than CONTENT-LENGTH.
    bool complete = true;

private:
    using Part = HTTPProgress::Part;

    void take(const Part& part);
    const std::string* find(std::string name) const;
};

/// The method in a request's start line: the text before the first blank, or the whole line if there is none.
std::string methodOf(const std::string& title);

/// The path and query in a request's start line: the text between the first blank and the " HTTP/" after it,
/// or the end of the line if that is missing. Empty without a blank.
std::string pathOf(const std::string& title);

}  // namespace gateway
