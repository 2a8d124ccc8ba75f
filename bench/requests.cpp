#include "bench/requests.h"

#include <algorithm>
#include <utility>

namespace bench {

namespace {

/// Puts a number of the range in the place of `name`. True when `text` has it.
bool substituteNumber(std::string& text, const std::string& name, const std::optional<Range>& range,
                      unsigned number) {
    return range && substitute(text, name, std::to_string(range->first + number % range->size()));
}

void putLengthRight(std::string& request) {
    const std::string name = "\r\nCONTENT-LENGTH: ";
    const std::size_t header = request.find(name), head = request.find("\r\n\r\n");
    if (header == std::string::npos || head == std::string::npos) return;
    const std::size_t value = header + name.size();
    const std::string length = std::to_string(request.size() - head - 4);
    request.replace(value, request.find("\r\n", value) - value, length);
}

}  // namespace

Requests::Requests(std::vector<std::string> texts, std::optional<Range> ports, std::optional<Range> indexes)
    : texts(std::move(texts)), ports(ports), indexes(indexes) {}

std::size_t Requests::count() const {
    const unsigned numbers = std::max(ports ? ports->size() : 1, indexes ? indexes->size() : 1);
    return texts.size() * numbers;
}

std::string Requests::next() {
    const auto kinds = static_cast<unsigned>(texts.size());
    const unsigned number = taken / kinds;
    std::string request = texts[taken++ % kinds];
    const bool ported = substituteNumber(request, "@PORT@", ports, number);
    const bool indexed = substituteNumber(request, "@INDEX@", indexes, number);
    if (ported || indexed) putLengthRight(request);
    return request;
}

bool substitute(std::string& text, const std::string& name, const std::string& value) {
    bool found = false;
    for (std::size_t at = text.find(name); at != std::string::npos; at = text.find(name, at + value.size())) {
        text.replace(at, name.size(), value);
        found = true;
    }
    return found;
}

}  // namespace bench
