#pragma once

#include <cstdint>
#include <string>
#include <tuple>
#include <vector>

namespace resolver {

/// Detects that one of some files was written, replaced, created or removed.
class FileStamps {
public:
    /// Takes the first look at the files, which may be absent.
    explicit FileStamps(std::vector<std::string> paths);

    /// True when a file has changed since the previous call, or since construction.
    [[nodiscard]] bool changed();

private:
    // Device, inode, size and the last change times of content and inode; all 0 for an absent file.
    using Stamp = std::tuple<std::uint64_t, std::uint64_t, std::int64_t, std::int64_t, std::int64_t>;

    static Stamp read(const std::string& path);
    std::vector<Stamp> readAll() const;

    std::vector<std::string> paths;
    std::vector<Stamp> seen;
};

}  // namespace resolver
