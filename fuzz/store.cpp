// A store's file as it is found on disk, after a byte of flags: it is read, or it is kept aside and the store begins empty.
// Then changes: what is read back is what was set, and the file that was kept aside stays as it is.
#include "tk/store.h"

#include <stdlib.h>

#include <filesystem>
#include <map>
#include <optional>
#include <string>

#include "fuzz/target.h"
#include "tk/testing/folder.h"

namespace {

using tk::message;
using tk::Store;
using Entries = std::map<std::uint32_t, message>;

// The flags of an input.
constexpr std::uint8_t isList = 1;       // it is the list of entries, and gets its checksum here
constexpr std::uint8_t hasFormer = 2;    // another file was kept aside before
constexpr std::uint8_t isOfAnother = 4;  // the list gets another revision

constexpr std::uint32_t revision = 3;
constexpr const char* former = "kept aside before";

// The form of the file.
constexpr std::uint32_t revisionField = 1, checksumField = 2, entriesField = 3;
constexpr std::uint32_t entryId = 1, entryContent = 2;

/// The folder of all inputs: in memory, as each change is synced.
const tk::testing::Folder& folder() {
    (void)::setenv("TMPDIR", "/dev/shm", 0);
    static const tk::testing::Folder shared;
    return shared;
}

void emptyFolder() {
    for (const auto& entry : std::filesystem::directory_iterator(folder().path))
        std::filesystem::remove_all(entry.path());
}

std::string path() {
    return folder().file("store");
}

/// A file with these entries and the checksum that goes with them.
std::string sealed(const message& entries, std::uint8_t flags) {
    message list;
    list.insert_message_array(entriesField, entries.get_message_array(entriesField));
    message file;
    file.insert_u32(revisionField, (flags & isOfAnother) != 0 ? revision + 1 : revision);
    file.insert_u32(checksumField, tk::crc32(list.serialise()));
    file.insert_message_array(entriesField, entries.get_message_array(entriesField));
    return "tkstore1" + file.serialise();
}

/// What a sealed file holds; nothing when it is damaged.
std::optional<Entries> entriesOf(const message& list) {
    Entries entries;
    for (const message& item : list.get_message_array(entriesField)) {
        if (!item.has(entryId) || item.size_message_array(entryContent) != 1) return std::nullopt;
        entries[item.get_u32(entryId)] = item.get_message_array(entryContent).front();
    }
    return entries;
}

void requireStored(const Entries& expected) {
    const Store again(path(), revision);
    fuzz::require(again.all() == expected && !again.hasLostContent(), "what is read back is what was set");
    fuzz::require(!folder().has("store.new"), "no temporary file is left");
}

/// Sets an entry, drops a change, removes an entry.
void change(Store& store, Entries expected, const message& content) {
    const bool isFileThere = folder().has("store");
    const bool wasLost = store.hasLostContent();
    if (store.set(1, content).isOk()) {
        expected[1] = content;
        requireStored(expected);
    } else {
        const Store again(path(), revision);
        fuzz::require(again.all() == expected && again.hasLostContent() == wasLost,
                      "a refused change is none");
        fuzz::require(folder().has("store") == isFileThere, "a refused change makes no file");
    }
    fuzz::require(store.all() == expected, "the store is as its file");
    if (store.stage(2, message()).isOk()) store.discard();
    fuzz::require(store.all() == expected && !folder().has("store.new"), "a dropped change is none");
    fuzz::require(store.remove(1).isOk(), "any entry can be removed");
    expected.erase(1);
    requireStored(expected);
}

void requireKeptAside(const std::string& file, std::uint8_t flags) {
    const bool isSecond = (flags & hasFormer) != 0;
    fuzz::require(folder().read(isSecond ? "store.damaged.2" : "store.damaged") == file,
                  "a damaged file is kept");
    fuzz::require(!isSecond || folder().read("store.damaged") == former, "so is the one before it");
}

}  // namespace

int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    if (size == 0) return 0;
    const std::uint8_t flags = data[0];
    const std::string_view rest = fuzz::text(data + 1, size - 1);
    message content;
    const bool isSealed = message::parse(rest, content) && (flags & isList) != 0;
    const std::string file = isSealed ? sealed(content, flags) : std::string(rest);
    emptyFolder();
    folder().write("store", file);
    if ((flags & hasFormer) != 0) folder().write("store.damaged", former);

    Store store(path(), revision);
    const bool isRead = folder().has("store");
    if (isSealed) {
        const auto entries = (flags & isOfAnother) != 0 ? std::nullopt : entriesOf(content);
        fuzz::require(isRead == entries.has_value(), "a whole file is read, any other is kept aside");
        fuzz::require(store.all() == entries.value_or(Entries()), "the entries are those of the file");
    }
    fuzz::require(store.hasLostContent() != isRead, "a store knows whether it lost its content");
    fuzz::require(isRead || store.all().empty(), "a store begins empty when its file cannot be read");
    change(store, store.all(), content);
    if (!isRead) requireKeptAside(file, flags);
    return 0;
}
