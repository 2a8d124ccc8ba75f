#pragma once

#include <ctime>
#include <string>
#include <string_view>
#include <vector>

#include "http/httpprogress.h"

namespace gateway {

/// One message in the form of HTTP: a request, a response, or an SSDP datagram.
/// A value: built, read or written, and dropped.
struct HTTPMessage {
    /// An empty message for the daemon's own requests; the title is set by the caller.
    HTTPMessage() = default;
    /// A response without headers and body. A status outside those that the daemon answers with (200, 400,
    /// 404, 412, 500, 501) gets an empty reason, after its blank.
    explicit HTTPMessage(int statusCode);
    /// Parses what was received so far, as HTTPProgress reads it.
    /// Errors: none; what is malformed is left incomplete, with what was read up to there.
    explicit HTTPMessage(std::string_view text);
    explicit HTTPMessage(const std::string& text) : HTTPMessage(std::string_view(text)) {}
    explicit HTTPMessage(const char* text) : HTTPMessage(std::string_view(text)) {}

    /// Appends a header, its name in upper case. Duplicates are not looked for.
    void add(std::string name, std::string value);
    /// True when there is a header of this name, in whatever case.
    bool has(std::string name) const;
    /// The value of the first header of this name, in whatever case; empty when there is none.
    std::string get(std::string name) const;
    /// Appends the header DATE.
    /// Units: seconds since 1970, 0 for now.
    void addDate(std::time_t time);

    /// The message as it goes on the wire. CONTENT-LENGTH is the business of whoever sets a body.
    std::string toString() const;

    std::string title;                // the start line
    std::vector<std::string> names;   // of the headers, in upper case
    std::vector<std::string> values;  // one for each name
    std::string body;
    // False while a parsed message lacks something, or has a body beyond CONTENT-LENGTH.
    bool complete = true;

private:
    using Part = HTTPProgress::Part;

    void take(const Part& part);
    const std::string* find(std::string name) const;
};

/// The method in a request's start line: the text before the first blank, the whole line without one.
std::string methodOf(const std::string& title);

/// The path in a request's start line: the text between the first blank and the first " HTTP/" after it, up
/// to the end of the line where that is missing; empty without a blank. A query is part of it.
std::string pathOf(const std::string& title);

}  // namespace gateway
