#include "http/httptitle.h"

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
