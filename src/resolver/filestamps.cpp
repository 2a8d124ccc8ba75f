#include "resolver/filestamps.h"

#include <sys/stat.h>

#include <utility>

namespace resolver {

namespace {

std::int64_t nanoseconds(const timespec& time) {
    return std::int64_t{time.tv_sec} * 1000000000 + time.tv_nsec;
}

}  // namespace

FileStamps::FileStamps(std::vector<std::string> files) : paths(std::move(files)), seen(readAll()) {}

FileStamps::Stamp FileStamps::read(const std::string& path) {
    struct stat state {};
    if (::stat(path.c_str(), &state) != 0) return {};
    return {state.st_dev, state.st_ino, state.st_size, nanoseconds(state.st_mtim),
            nanoseconds(state.st_ctim)};
}

std::vector<FileStamps::Stamp> FileStamps::readAll() const {
    std::vector<Stamp> stamps;
    for (const std::string& path : paths) stamps.push_back(read(path));
    return stamps;
}

bool FileStamps::changed() {
    std::vector<Stamp> now = readAll();
    if (now == seen) return false;
    seen = std::move(now);
    return true;
}

}  // namespace resolver
