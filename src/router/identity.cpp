#include "router/identity.h"

#include <sys/random.h>

#include "router/sha256.h"
#include "tk/file.h"
#include "tk/log.h"
#include "tk/store.h"

namespace router {

namespace {

constexpr std::uint32_t identityField = 1;  // string
constexpr std::uint32_t storeRevision = 1;
constexpr std::uint32_t storeEntry = 0;
constexpr std::size_t machineIdLimit = 4096;
constexpr std::size_t machineIdDigits = 32;
constexpr std::size_t identityBytes = 16;
constexpr const char* application = "tk router identity 1";  // never changes: the identities would

/// The machine's id, empty where there is none.
std::string readMachineId(const std::string& path) {
    std::string content;
    if (!tk::readFile(path, machineIdLimit, content)) return {};
    const std::string id = content.substr(0, content.find_first_not_of("0123456789abcdef"));
    return id.size() == machineIdDigits ? id : std::string();  // it reads "uninitialized" in an image
}

std::string randomDigits() {
    std::string bytes(sizeof(Sha256Digest), '\0');
    if (::getrandom(bytes.data(), bytes.size(), 0) != static_cast<ssize_t>(bytes.size())) return {};
    return hexDigits(sha256(bytes), identityBytes);
}

std::string storedDigits(const std::string& storePath) {
    tk::Store store(storePath, storeRevision);
    const std::string stored = store.get(storeEntry).get_string(identityField);
    if (!stored.empty()) return stored;
    const std::string fresh = randomDigits();
    tk::message entry;
    entry.insert_string(identityField, fresh);
    if (!store.set(storeEntry, entry)) tk::log("identity: it will change at the next start: ", store.error());
    return fresh;
}

}  // namespace

Identity::Identity(const std::string& machineIdPath, const std::string& storePath) {
    const std::string machineId = readMachineId(machineIdPath);
    identity = machineId.empty() ? storedDigits(storePath)
                                 : hexDigits(hmacSha256(machineId, application), identityBytes);
}

tk::message Identity::cmdGet(const tk::message&) {
    tk::message reply;
    reply.insert_string(identityField, identity);
    return reply;
}

}  // namespace router
