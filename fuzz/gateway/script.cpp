#include "fuzz/gateway/script.h"

#include <arpa/inet.h>

#include <algorithm>
#include <iterator>

namespace fuzz {

namespace {

constexpr unsigned hosts = 10;
constexpr std::uint32_t firstHost = 0xC0A8010A;  // 192.168.1.10

}  // namespace

char Script::letter() {
    const char first = rest.front();
    rest.remove_prefix(1);
    return first;
}

unsigned Script::number(unsigned limit) {
    if (isOver()) return 0;
    const auto byte = static_cast<unsigned char>(letter());
    if (byte >= '0' && byte <= '9') return (byte - unsigned{'0'}) % limit;
    if (byte >= 'a' && byte <= 'z') return (byte - unsigned{'a'} + 10) % limit;
    return byte % limit;
}

std::string Script::text() {
    const std::size_t end = std::min(rest.find(';'), rest.size());
    std::string found(rest.substr(0, end));
    rest.remove_prefix(std::min(end + 1, rest.size()));
    return found;
}

std::uint32_t Script::host() {
    return htonl(firstHost + number(hosts));
}

const char* Script::address() {
    const char* const addresses[] = {"192.168.1.1",  "192.168.1.2",     "192.168.3.1", "198.51.100.1",
                                     "198.51.100.9", "203.0.113.1",     "0.0.0.0",     "127.0.0.1",
                                     "10.0.0.1",     "255.255.255.255", "224.0.0.1",   "1.0.0.0"};
    return addresses[number(std::size(addresses))];
}

const std::string* Script::argument() {
    const char* const values[] = {"",
                                  "TCP",
                                  "UDP",
                                  "0",
                                  "80",
                                  "8080",
                                  "65535",
                                  "65536",
                                  "1",
                                  "192.168.1.10",
                                  "-1",
                                  "true",
                                  "no",
                                  "255.255.255.255",
                                  "3600",
                                  "192.168.1.11",
                                  "%s%n\x7f\xc2\x85&gt;"};
    constexpr unsigned own = std::size(values);
    const unsigned choice = number(own + 4);
    if (choice < own)
        value = values[choice];
    else if (choice == own)
        value = text();
    else if (choice == own + 1)
        value.assign(std::size_t{60} * 1024, 'x');
    else if (choice == own + 2)
        value.assign(std::size_t{5} * 1024, '\n');
    else
        return nullptr;
    return &value;
}

Link* Script::choose(const std::vector<Link*>& links) {
    const unsigned place = number(256);
    return links.empty() ? nullptr : links[links.size() - 1 - place % links.size()];
}

}  // namespace fuzz
