#include "tk/handover.h"

#include <dirent.h>
#include <errno.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <memory>

#include "tk/fd.h"

namespace tk {

namespace {

struct CloseFolder {
    void operator()(DIR* folder) const { (void)::closedir(folder); }
};

/// Makes a folder that everybody may enter, whatever the umask is; one that is there stays as it is.
bool makeFolder(const std::string& path) {
    constexpr mode_t everybodyMayEnter = 0755;
    if (::mkdir(path.c_str(), everybodyMayEnter) != 0) return errno == EEXIST;
    return ::chmod(path.c_str(), everybodyMayEnter) == 0;
}

/// Whoever may write to the folder may have put a name of somebody else's file there: only a file without
/// another name is given away, and by the descriptor that was looked at.
bool giveFile(int folder, const char* name, const Account& account) {
    const Fd file(::openat(folder, name, O_PATH | O_NOFOLLOW | O_CLOEXEC));
    struct stat status {};
    if (!file.isOpen() || ::fstat(file.get(), &status) != 0) return errno == ENOENT;
    if (!S_ISREG(status.st_mode) || status.st_nlink != 1) return true;
    return ::fchownat(file.get(), "", account.uid, account.gid, AT_EMPTY_PATH) == 0;
}

}  // namespace

bool handOver(const std::string& path, const Account& account) {
    if (!makeFolder(path.substr(0, path.rfind('/'))) || !makeFolder(path)) return false;
    Fd opened(::open(path.c_str(), O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC));
    if (!opened.isOpen()) return false;
    if (::fchown(opened.get(), account.uid, account.gid) != 0) return false;
    const std::unique_ptr<DIR, CloseFolder> folder(::fdopendir(opened.get()));
    if (!folder) return false;
    (void)opened.release();  // the stream closes it
    while (const dirent* entry = ::readdir(folder.get()))
        if (!giveFile(::dirfd(folder.get()), entry->d_name, account)) return false;
    return true;
}

}  // namespace tk
