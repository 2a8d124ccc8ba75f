// Takes down what a program does to its files: the linker puts these functions before those of the C library.
#include <fcntl.h>
#include <stdarg.h>
#include <sys/stat.h>
#include <sys/types.h>

#include <utility>

#include "faults/disk.h"

using faults::Change;

namespace {

/// What is recorded now, and what a sync or a write of each descriptor is about.
struct Recording {
    std::string folder;  // with a slash at its end; empty: nothing is recorded
    std::vector<Change> changes;
    std::map<int, Change> opened;
    int lastFile = 0;
};

Recording recording;

/// The path from the recorded folder on, of what lies in it or is it; nothing for all else.
std::optional<std::string> recordedPath(const char* path) {
    const std::string whole = path;
    if (recording.folder.empty()) return {};
    if (whole + "/" == recording.folder) return "";
    if (!whole.starts_with(recording.folder)) return {};
    return whole.substr(recording.folder.size());
}

void addNames(Change::Kind kind, const char* path, const char* to = nullptr) {
    const std::optional<std::string> recorded = recordedPath(path);
    if (!recorded) return;
    recording.changes.push_back({kind, *recorded, to ? recordedPath(to).value_or("") : "", "", 0});
}

/// Remembers what a descriptor is: of a folder, or of a file that was made now.
void addOpened(int fd, const char* path, int flags) {
    const std::optional<std::string> recorded = recordedPath(path);
    if (fd < 0 || !recorded) return;
    recording.opened.erase(fd);
    if (flags & O_DIRECTORY) recording.opened[fd] = {Change::Kind::syncFolder, *recorded, "", "", 0};
    if (!(flags & O_CREAT)) return;
    recording.opened[fd] = {Change::Kind::syncFile, *recorded, "", "", ++recording.lastFile};
    recording.changes.push_back({Change::Kind::create, *recorded, "", "", recording.lastFile});
}

}  // namespace

extern "C" {

// The names that the linker gives them.
// NOLINTBEGIN(readability-identifier-naming)
int __real_open(const char* path, int flags, ...);
ssize_t __real_write(int fd, const void* bytes, size_t count);
int __real_fsync(int fd);
int __real_rename(const char* from, const char* to);
int __real_renameat2(int fromFolder, const char* from, int toFolder, const char* to, unsigned int flags);
int __real_unlink(const char* path);
int __real_mkdir(const char* path, mode_t mode);

int __wrap_open(const char* path, int flags, ...) {
    va_list list;
    va_start(list, flags);
    const mode_t mode = flags & O_CREAT ? va_arg(list, mode_t) : 0;
    va_end(list);
    const int fd = __real_open(path, flags, mode);
    addOpened(fd, path, flags);
    return fd;
}

ssize_t __wrap_write(int fd, const void* bytes, size_t count) {
    const ssize_t written = __real_write(fd, bytes, count);
    const auto file = recording.opened.find(fd);
    if (written <= 0 || file == recording.opened.end()) return written;
    recording.changes.push_back(
        {Change::Kind::write, file->second.path, "",
         std::string(static_cast<const char*>(bytes), static_cast<std::size_t>(written)), file->second.file});
    return written;
}

int __wrap_fsync(int fd) {
    const int synced = __real_fsync(fd);
    const auto file = recording.opened.find(fd);
    if (synced == 0 && file != recording.opened.end()) recording.changes.push_back(file->second);
    return synced;
}

int __wrap_rename(const char* from, const char* to) {
    const int renamed = __real_rename(from, to);
    if (renamed == 0) addNames(Change::Kind::rename, from, to);
    return renamed;
}

int __wrap_renameat2(int fromFolder, const char* from, int toFolder, const char* to, unsigned int flags) {
    const int renamed = __real_renameat2(fromFolder, from, toFolder, to, flags);
    if (renamed == 0) addNames(Change::Kind::rename, from, to);
    return renamed;
}

int __wrap_unlink(const char* path) {
    const int removed = __real_unlink(path);
    if (removed == 0) addNames(Change::Kind::remove, path);
    return removed;
}

int __wrap_mkdir(const char* path, mode_t mode) {
    const int made = __real_mkdir(path, mode);
    if (made == 0) addNames(Change::Kind::makeFolder, path);
    return made;
}
// NOLINTEND(readability-identifier-naming)

}  // extern "C"

namespace faults {

std::vector<Change> record(const std::string& folder, const std::function<void()>& act) {
    recording = {};
    recording.folder = folder + "/";
    act();
    return std::exchange(recording, {}).changes;
}

}  // namespace faults
