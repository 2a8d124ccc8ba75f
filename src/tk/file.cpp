#include "tk/file.h"

#include <errno.h>
#include <fcntl.h>
#include <stdio.h>
#include <sys/stat.h>
#include <unistd.h>

#include "tk/log.h"

namespace tk {

namespace {

constexpr std::size_t readSize = 4096;

std::string folderOf(const std::string& path) {
    const std::size_t slash = path.rfind('/');
    if (slash == std::string::npos) return ".";
    return slash == 0 ? "/" : path.substr(0, slash);
}

bool writeAll(int fd, std::string_view content) {
    while (!content.empty()) {
        const ssize_t count = ::write(fd, content.data(), content.size());
        if (count < 0 && errno == EINTR) continue;
        if (count < 0) return false;
        content.remove_prefix(static_cast<std::size_t>(count));
    }
    return true;
}

/// Opens the folder of a path, to sync it.
Fd openFolderOf(const std::string& path) {
    return Fd(::open(folderOf(path).c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
}

/// Syncs the folder that has just got `path`. A power cut might still undo that where it fails, but it is no failure.
void syncFolderOf(const std::string& path, const Fd& folder) {
    if (!folder.isOpen() || ::fsync(folder.get()) != 0)
        log("cannot sync the folder of ", path, ": ", errorText());
}

/// Makes a folder that a power cut does not take away again, with all that is put into it.
bool makeFolder(const std::string& path) {
    if (::mkdir(path.c_str(), 0755) != 0) return false;
    syncFolderOf(path, openFolderOf(path));
    return true;
}

Fd createFile(const std::string& path) {
    // Never write through somebody else's link: remove what is in the way, and insist on a new file.
    constexpr int flags = O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC;
    ::unlink(path.c_str());
    Fd file(::open(path.c_str(), flags, 0600));
    if (file.isOpen() || errno != ENOENT || !makeFolder(folderOf(path))) return file;
    return Fd(::open(path.c_str(), flags, 0600));
}

}  // namespace

Fd openToRead(const std::string& path) {
    Fd file;
    do file.reset(::open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK));
    while (!file.isOpen() && errno == EINTR);
    return file;
}

Result<std::string> readFile(const std::string& path, std::size_t limit) {
    const Fd file = openToRead(path);
    if (!file.isOpen()) return Status::ofErrno(path, errno);
    Result<std::string> content = readFile(file, limit);
    if (!content.isOk()) return content.status().prefixed(path + ": ");
    return content;
}

Result<std::string> readFile(const Fd& file, std::size_t limit) {
    struct stat status {};
    if (::fstat(file.get(), &status) != 0) return Status::ofErrno(errno);
    if (!S_ISREG(status.st_mode)) return Status::ofErrno(EINVAL);
    std::string content;
    char bytes[readSize];
    for (;;) {
        const ssize_t count = ::read(file.get(), bytes, sizeof bytes);
        if (count < 0 && errno == EINTR) continue;
        if (count < 0) return Status::ofErrno(errno);
        if (count == 0) return content;
        content.append(bytes, static_cast<std::size_t>(count));
        if (content.size() > limit) return Status::ofErrno(EFBIG);
    }
}

Status writeSynced(const std::string& path, std::string_view content) {
    const Fd file = createFile(path);
    if (!file.isOpen()) return Status::ofErrno(path, errno);
    if (writeAll(file.get(), content) && ::fsync(file.get()) == 0) return {};
    Status failure = Status::ofErrno(path, errno);
    ::unlink(path.c_str());
    return failure;
}

Status replaceSynced(const std::string& from, const std::string& to) {
    // Opened first, so that nothing is replaced when there is no free descriptor.
    const Fd folder = openFolderOf(to);
    if (!folder.isOpen() || ::rename(from.c_str(), to.c_str()) != 0) return Status::ofErrno(to, errno);
    syncFolderOf(to, folder);
    return {};
}

Status renameToFree(const std::string& from, const std::string& to) {
    // Opened first, as above.
    const Fd folder = openFolderOf(to);
    if (!folder.isOpen() || ::renameat2(AT_FDCWD, from.c_str(), AT_FDCWD, to.c_str(), RENAME_NOREPLACE) != 0)
        return Status::ofErrno(to, errno);
    syncFolderOf(to, folder);
    return {};
}

}  // namespace tk
