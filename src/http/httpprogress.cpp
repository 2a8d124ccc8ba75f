#include "http/httpprogress.h"

#include <algorithm>
#include <string>

#include "net/convert.h"

namespace gateway {

namespace {

using Kind = HTTPProgress::Part::Kind;

constexpr std::string_view lengthHeader = "CONTENT-LENGTH";

}  // namespace

HTTPProgress::State HTTPProgress::look(std::string_view buffer) {
    while (next(buffer).kind != Kind::none) {
    }
    switch (phase) {
        case Phase::title:
        case Phase::lineStart:
        case Phase::line:
            return State::needMore;
        case Phase::body:
            return judgeBody(buffer.size());
        case Phase::broken:
            return State::never;
    }
    return State::never;
}

HTTPProgress::Part HTTPProgress::next(std::string_view buffer) {
    switch (phase) {
        case Phase::title:
        case Phase::line:
            return finishLine(buffer);
        case Phase::lineStart:
            if (buffer.size() <= lineStart) return {};
            scanned = lineStart;
            colon = std::string_view::npos;
            phase = buffer[lineStart] == '\r' ? Phase::body : Phase::line;
            return phase == Phase::line ? finishLine(buffer)
                                        : Part{Kind::body, {}, slice(buffer, lineStart + 2)};
        case Phase::body:
        case Phase::broken:
            return {};
    }
    return {};
}

HTTPProgress::Part HTTPProgress::finishLine(std::string_view buffer) {
    const std::size_t end = std::min(buffer.find('\r', scanned), buffer.size());
    if (colon == std::string_view::npos) {
        const std::size_t found = slice(buffer, 0, end).find(':', scanned);
        if (found != std::string_view::npos) colon = found;
    }
    scanned = end;
    if (end == buffer.size()) return {};
    const bool isTitle = phase == Phase::title;
    if (!isTitle && colon == std::string_view::npos) {
        phase = Phase::broken;
        return {};
    }
    const std::size_t start = lineStart;
    lineStart = end + 2;
    phase = Phase::lineStart;
    const std::string_view line = slice(buffer, start, end - start);
    return isTitle ? Part{Kind::title, {}, line} : takeHeader(line, colon - start);
}

HTTPProgress::Part HTTPProgress::takeHeader(std::string_view line, std::size_t nameLength) {
    const std::string_view name = slice(line, 0, nameLength);
    std::string_view value = slice(line, nameLength + 1);
    value = slice(value, value.find_first_not_of(' '));
    if (!hasLength && toUpper(std::string(name)) == lengthHeader) {
        hasLength = true;
        bodyLength = toUnsigned(std::string(value));
    }
    return {Kind::header, name, value};
}

HTTPProgress::State HTTPProgress::judgeBody(std::size_t received) const {
    if (!hasLength) return State::complete;
    // One past the end while the LF is missing; the body is empty then.
    const std::size_t bodyStart = lineStart + 2;
    const std::size_t bodyReceived = received > bodyStart ? received - bodyStart : 0;
    if (bodyReceived == bodyLength) return State::complete;
    return bodyReceived < bodyLength ? State::needMore : State::never;
}

}  // namespace gateway
