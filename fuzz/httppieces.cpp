// A message in the form of HTTP, whole against in pieces: the cuts change nothing. The first byte says how many cuts
// there are, and that many bytes after it say how long each piece is.
#include <algorithm>
#include <string>
#include <utility>
#include <vector>

#include "fuzz/target.h"
#include "http/httpmessage.h"
#include "http/httpprogress.h"

namespace {

using gateway::HTTPMessage;
using gateway::HTTPProgress;
using Kind = HTTPProgress::Part::Kind;

/// The title and the headers, which are handed out only when they have arrived whole.
std::vector<std::pair<std::string, std::string>> linesOf(HTTPProgress& progress, std::string_view received) {
    std::vector<std::pair<std::string, std::string>> lines;
    for (auto part = progress.next(received); part.kind != Kind::none; part = progress.next(received))
        if (part.kind != Kind::body) lines.emplace_back(part.name, part.text);
    return lines;
}

/// Where the text is cut: ends of pieces, the last one being the end of the text.
std::vector<std::size_t> cuts(std::string_view lengths, std::size_t size) {
    std::vector<std::size_t> ends;
    std::size_t end = 0;
    for (const char length : lengths) {
        end = std::min(end + static_cast<unsigned char>(length), size);
        ends.push_back(end);
    }
    ends.push_back(size);
    return ends;
}

}  // namespace

int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    if (size == 0) return 0;
    const std::size_t cutCount = std::min<std::size_t>(data[0] % 32, size - 1);
    const std::string_view lengths = fuzz::text(data + 1, cutCount);
    const std::string_view text = fuzz::text(data + 1 + cutCount, size - 1 - cutCount);

    HTTPProgress whole;
    const auto expected = linesOf(whole, text);
    const HTTPProgress::State outcome = whole.look(text);
    HTTPProgress parts;
    HTTPProgress looks;
    std::vector<std::pair<std::string, std::string>> lines;
    bool ended = false;
    for (const std::size_t end : cuts(lengths, text.size())) {
        const std::string_view received = text.substr(0, end);
        const auto more = linesOf(parts, received);
        lines.insert(lines.end(), more.begin(), more.end());
        const HTTPProgress::State state = looks.look(received);
        fuzz::require(!ended || state == HTTPProgress::State::never, "no byte mends what is broken");
        ended = state == HTTPProgress::State::never;
        fuzz::require(HTTPMessage(received).complete == (state == HTTPProgress::State::complete),
                      "a piece is as complete as the message that is read from it");
    }
    fuzz::require(lines == expected, "the same lines, however they arrive");
    fuzz::require(looks.look(text) == outcome, "the same outcome, however it arrives");
    return 0;
}
