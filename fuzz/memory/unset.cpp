// Has a parser read bytes that nobody has set. Unless the memory sanitizer ends this program, it sees nothing in the fuzz
// targets either.
#include <cstring>
#include <string_view>

#include "http/httpmessage.h"

int main() {
    constexpr std::string_view begin = "GET /";
    char bytes[64];
    std::memcpy(bytes, begin.data(), begin.size());
    return gateway::HTTPMessage(std::string_view(bytes, sizeof bytes)).complete ? 1 : 0;
}
