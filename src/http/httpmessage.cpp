#include "http/httpmessage.h"

#include <algorithm>
#include <array>
#include <utility>

#include "net/convert.h"
#include "net/sockets.h"

namespace gateway {

namespace {

struct Reason {
    int statusCode;
    const char* phrase;
};

constexpr Reason reasons[] = {
    {httpstatus::ok, "OK"},
    {httpstatus::badRequest, "Bad Request"},
    {httpstatus::notFound, "Not Found"},
    {httpstatus::preconditionFailed, "Precondition Failed"},
    {httpstatus::internalServerError, "Internal Server Error"},
    {httpstatus::notImplemented, "Not Implemented"},
};

const char* reasonOf(int statusCode) {
    for (const Reason& reason : reasons)
        if (reason.statusCode == statusCode) return reason.phrase;
    return "";
}

}  // namespace

HTTPMessage::HTTPMessage(int statusCode)
    : title("HTTP/1.1 " + gateway::toString(statusCode) + " " + reasonOf(statusCode)) {}

HTTPMessage::HTTPMessage(std::string_view text) {
    HTTPProgress progress;
    for (auto part = progress.next(text); part.kind != Part::Kind::none; part = progress.next(text))
        take(part);
    complete = progress.look(text) == HTTPProgress::State::complete;
}

void HTTPMessage::take(const Part& part) {
    switch (part.kind) {
        case Part::Kind::none:
            return;
        case Part::Kind::title:
            title = part.text;
            return;
        case Part::Kind::header:
            return add(std::string(part.name), std::string(part.text));
        case Part::Kind::body:
            body = part.text;
            return;
    }
}

void HTTPMessage::add(std::string name, std::string value) {
    names.push_back(toUpper(std::move(name)));
    values.push_back(std::move(value));
}

const std::string* HTTPMessage::find(std::string name) const {
    const auto found = std::find(names.begin(), names.end(), toUpper(std::move(name)));
    return found == names.end() ? nullptr : &values[static_cast<std::size_t>(found - names.begin())];
}

bool HTTPMessage::has(std::string name) const {
    return find(std::move(name)) != nullptr;
}

std::string HTTPMessage::get(std::string name) const {
    const std::string* const value = find(std::move(name));
    return value ? *value : std::string();
}

void HTTPMessage::addDate(std::time_t time) {
    if (time == 0) time = std::time(nullptr);
    std::tm utc{};
    gmtime_r(&time, &utc);
    std::array<char, 32> text{};
    std::strftime(text.data(), text.size(), "%a, %d %b %Y %H:%M:%S GMT", &utc);
    add("DATE", text.data());
}

std::string HTTPMessage::toString() const {
    std::string text = title + crlf;
    for (std::size_t i = 0; i < names.size() && i < values.size(); ++i)
        text.append(names[i]).append(": ").append(values[i]).append(crlf);
    return text.append(crlf).append(body);
}

std::string methodOf(const std::string& title) {
    return title.substr(0, title.find(' '));
}

std::string pathOf(const std::string& title) {
    const std::size_t blank = title.find(' ');
    if (blank == std::string::npos) return {};
    const std::size_t start = blank + 1;
    const std::size_t protocol = title.find(" HTTP/", blank);
    if (protocol == std::string::npos) return title.substr(start);
    return protocol < start ? std::string() : title.substr(start, protocol - start);
}

}  // namespace gateway
