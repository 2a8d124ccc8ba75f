#include "tk/store.h"

#include <errno.h>
#include <unistd.h>

#include <cstring>
#include <utility>

#include "tk/file.h"
#include "tk/log.h"

namespace tk {

namespace {

// The file: this text, then one flat message with the fields below. The checksum covers the flat form of a
// message with only the entries field.
constexpr std::string_view magic = "tkstore1";
constexpr std::uint32_t revisionField = 1;  // u32
constexpr std::uint32_t checksumField = 2;  // u32
constexpr std::uint32_t entriesField = 3;   // message[], each with the two fields below
constexpr std::uint32_t entryId = 1;        // u32
constexpr std::uint32_t entryContent = 2;   // message[] with the one message

constexpr std::size_t sizeLimit = std::size_t{64} * 1024 * 1024;
constexpr int asideLimit = 100;  // damaged files that are kept under numbered names

message listOf(const std::map<std::uint32_t, message>& entries) {
    message list;
    std::vector<message>& items = list.get_message_array_ref(entriesField);
    for (const auto& [id, content] : entries) {
        message& item = items.emplace_back();
        item.insert_u32(entryId, id);
        item.insert_message_array(entryContent, {content});
    }
    return list;
}

/// Reads a file's content.
/// Errors: false when it is damaged or foreign.
bool decode(std::string_view content, std::uint32_t revision, std::map<std::uint32_t, message>& entries) {
    message file;
    if (!content.starts_with(magic) || !message::parse(content.substr(magic.size()), file)) return false;
    if (file.get_u32(revisionField) != revision || !file.has(revisionField)) return false;
    message list;
    list.insert_message_array(entriesField, file.get_message_array(entriesField));
    if (!file.has(checksumField) || file.get_u32(checksumField) != crc32(list.serialise())) return false;
    for (const message& item : file.get_message_array(entriesField)) {
        const std::vector<message>& stored = item.get_message_array(entryContent);
        if (stored.size() != 1 || !item.has(entryId)) return false;
        entries[item.get_u32(entryId)] = stored.front();
    }
    return true;
}

/// Errors: false when its nesting or its size would keep decode() from reading it.
bool encode(const std::map<std::uint32_t, message>& entries, std::uint32_t revision, std::string& content) {
    const message list = listOf(entries);
    message file;
    file.insert_u32(revisionField, revision);
    file.insert_u32(checksumField, crc32(list.serialise()));
    file.insert(list.fields().front());
    content = magic;
    file.serialiseTo(content);
    return file.isParsable() && content.size() <= sizeLimit;
}

}  // namespace

std::uint32_t crc32(std::string_view bytes) {
    constexpr std::uint32_t polynomial = 0xEDB88320;
    std::uint32_t crc = 0xFFFFFFFF;
    for (const char byte : bytes) {
        crc ^= static_cast<unsigned char>(byte);
        for (int bit = 0; bit < 8; ++bit) crc = crc & 1 ? crc >> 1 ^ polynomial : crc >> 1;
    }
    return ~crc;
}

Store::Store(std::string path, std::uint32_t revision) : path(std::move(path)), revision(revision) {
    load();
}

void Store::load() {
    const Fd file = openToRead(path);
    if (!file.isOpen() && (errno == ENOENT || errno == ENOTDIR)) {
        lost = ::access(asidePath().c_str(), F_OK) == 0;
        return;
    }
    if (!file.isOpen()) return unreadable(Status::ofErrno(errno));
    const Result<std::string> content = readFile(file, sizeLimit);
    if (!content.isOk()) return unreadable(content.status());
    if (decode(*content, revision, entries)) return;
    entries.clear();
    keepAside("damaged, or of another kind");
}

/// A shortage is no damage: it will have passed by the next start, which must find the file in its place.
void Store::unreadable(const Status& why) {
    if (!isShortage(static_cast<int>(why.code()))) return keepAside(why.reason());
    lost = blocked = true;
    log("store ", path, ": ", why.reason(), "; left as it is until the next start; no change will be stored");
}

void Store::keepAside(const std::string& why) {
    lost = true;
    std::string aside = asidePath();
    Status moved = renameToFree(path, aside);
    for (int number = 2; moved.code() == EEXIST && number <= asideLimit; ++number) {
        aside = asidePath() + "." + std::to_string(number);
        moved = renameToFree(path, aside);
    }
    if (moved.isOk()) return log("store ", path, ": ", why, "; kept as ", aside);
    blocked = true;
    log("store ", path, ": ", why, "; cannot be kept aside: ", std::strerror(static_cast<int>(moved.code())),
        "; no change will be stored");
}

message Store::get(std::uint32_t id) const {
    const auto entry = entries.find(id);
    return entry == entries.end() ? message() : entry->second;
}

bool Store::find(std::uint32_t id) const {
    return entries.contains(id);
}

Status Store::set(std::uint32_t id, const message& entry) {
    const Status written = stage(id, entry);
    return written.isOk() ? commit() : written;
}

Status Store::replace(std::map<std::uint32_t, message> content) {
    staged = std::move(content);
    const Status written = writeStaged();
    return written.isOk() ? commit() : written;
}

Status Store::remove(std::uint32_t id) {
    const Status written = stageRemoval(id);
    return written.isOk() ? commit() : written;
}

Status Store::stage(std::uint32_t id, const message& entry) {
    staged = entries;
    staged[id] = entry;
    return writeStaged();
}

Status Store::stageRemoval(std::uint32_t id) {
    staged = entries;
    staged.erase(id);
    return writeStaged();
}

Status Store::writeStaged() {
    if (blocked) return Status::failure(path + ": the file could not be read and is in the way");
    std::string content;
    if (!encode(staged, revision, content)) return Status::failure(path + ": the entry cannot be stored");
    return ownOutcome(writeSynced(stagedPath(), content));
}

Status Store::commit() {
    Status replaced = ownOutcome(replaceSynced(stagedPath(), path));
    if (!replaced.isOk()) return replaced;
    entries = std::move(staged);
    staged.clear();
    return replaced;
}

/// Drops what is staged after a failure, and names the store in the reason, not the temporary file.
Status Store::ownOutcome(const Status& outcome) {
    if (outcome.isOk()) return outcome;
    discard();
    return Status::ofErrno(path, static_cast<int>(outcome.code()));
}

void Store::discard() {
    ::unlink(stagedPath().c_str());
    staged.clear();
}

std::string Store::asidePath() const {
    return path + ".damaged";
}

std::string Store::stagedPath() const {
    return path + ".new";
}

}  // namespace tk
