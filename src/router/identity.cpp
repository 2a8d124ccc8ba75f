#include "router/identity.h"

#include <sys/random.h>

#include "tk/log.h"
#include "tk/store.h"

namespace router {

namespace {

constexpr std::uint32_t identityField = 1;  // string
constexpr std::uint32_t storeRevision = 1;
constexpr std::uint32_t storeEntry = 0;
constexpr std::size_t identityBytes = 16;

/// New digits; empty when the kernel has no random numbers.
std::string randomDigits() {
    constexpr char digits[] = "0123456789abcdef";
    unsigned char bytes[identityBytes];
    if (::getrandom(bytes, sizeof bytes, 0) != ssize_t{sizeof bytes}) return {};
    std::string text;
    for (const unsigned char byte : bytes) {
        text += digits[byte >> 4];
        text += digits[byte & 15];
    }
    return text;
}

}  // namespace

Identity::Identity(const std::string& storePath) {
    tk::Store store(storePath, storeRevision);
    identity = store.get(storeEntry).get_string(identityField);
    if (!identity.empty()) return;
    identity = randomDigits();
    tk::message entry;
    entry.insert_string(identityField, identity);
    if (const tk::Status stored = store.set(storeEntry, entry); !stored.isOk())
        tk::log("identity: it will change at the next start: ", stored.reason());
}

tk::message Identity::cmdGet(const tk::message&) {
    tk::message reply;
    reply.insert_string(identityField, identity);
    return reply;
}

}  // namespace router
