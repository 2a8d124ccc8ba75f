#include "http/httpprogress.h"

#include <algorithm>
#include <string>

#include "http/httpmessage.h"
#include "net/convert.h"

namespace {

constexpr std::string_view lengthHeader = "CONTENT-LENGTH";

}  // namespace

HTTPProgress::State HTTPProgress::look(std::string_view buffer) {
    while (advance(buffer)) {
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

bool HTTPProgress::advance(std::string_view buffer) {
    switch (phase) {
        case Phase::title:
        case Phase::line:
            return finishLine(buffer);
        case Phase::lineStart:
            if (buffer.size() <= lineStart) return false;
            scanned = lineStart;
            colon = std::string_view::npos;
            phase = buffer[lineStart] == '\r' ? Phase::body : Phase::line;
            return true;
        case Phase::body:
        case Phase::broken:
            return false;
    }
    return false;
}

bool HTTPProgress::finishLine(std::string_view buffer) {
    const std::size_t end = std::min(buffer.find('\r', scanned), buffer.size());
    if (colon == std::string_view::npos) {
        const std::size_t found = slice(buffer, 0, end).find(':', scanned);
        if (found != std::string_view::npos) colon = found;
    }
    scanned = end;
    if (end == buffer.size()) return false;
    if (phase == Phase::line && colon == std::string_view::npos) {
        phase = Phase::broken;
        return true;
    }
    if (phase == Phase::line) takeHeader(slice(buffer, lineStart, end - lineStart), colon - lineStart);
    lineStart = end + 2;  // the byte behind the CR is the LF, or taken for it
    phase = Phase::lineStart;
    return true;
}

void HTTPProgress::takeHeader(std::string_view line, std::size_t nameLength) {
    if (hasLength || nameLength != lengthHeader.size()) return;
    if (toUpper(std::string(slice(line, 0, nameLength))) != lengthHeader) return;
    hasLength = true;
    bodyLength =
        toUnsigned(std::string(slice(line, nameLength + 1)));  // blanks before the number are skipped there
}

HTTPProgress::State HTTPProgress::judgeBody(std::size_t received) const {
    if (!hasLength) return State::complete;
    const std::size_t bodyStart =
        lineStart + 2;  // one past the end while the LF is missing: the body is empty then
    const std::size_t bodyReceived = received > bodyStart ? received - bodyStart : 0;
    if (bodyReceived == bodyLength) return State::complete;
    return bodyReceived < bodyLength ? State::needMore : State::never;
}
