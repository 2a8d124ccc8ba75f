#include "bench/arguments.h"

#include <arpa/inet.h>
#include <errno.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

#include <charconv>
#include <fstream>
#include <iterator>

namespace bench {

namespace {

unsigned toNumber(const std::string& text) {
    unsigned number = 0;
    const char* end = text.data() + text.size();
    const auto [rest, error] = std::from_chars(text.data(), end, number);
    if (error == std::errc() && rest == end) return number;
    errno = 0;
    fail("no number: " + text);
}

}  // namespace

void fail(const std::string& what) {
    ::fprintf(stderr, "%s%s%s\n", what.c_str(), errno != 0 ? ": " : "", errno != 0 ? ::strerror(errno) : "");
    ::exit(1);
}

Range toRange(const std::string& text) {
    const std::size_t dash = text.find('-');
    const Range range{toNumber(text.substr(0, dash)),
                      dash == std::string::npos ? 0 : toNumber(text.substr(dash + 1))};
    errno = 0;
    if (range.last < range.first) fail("no range of numbers: " + text);
    return range;
}

sockaddr_in toEndpoint(const std::string& text) {
    const std::size_t colon = text.find(':');
    sockaddr_in endpoint{};
    endpoint.sin_family = AF_INET;
    errno = 0;
    if (colon == std::string::npos ||
        ::inet_pton(AF_INET, text.substr(0, colon).c_str(), &endpoint.sin_addr) != 1)
        fail("no address with a port: " + text);
    endpoint.sin_port = htons(static_cast<std::uint16_t>(toNumber(text.substr(colon + 1))));
    return endpoint;
}

std::string contentOf(const std::string& path) {
    std::ifstream file(path, std::ios::binary);
    if (!file) fail(path);
    return {std::istreambuf_iterator<char>(file), {}};
}

}  // namespace bench
