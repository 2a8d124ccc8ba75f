#pragma once

#include <cstdint>
#include <string>
#include <tuple>
#include <vector>

namespace resolver {

/// Sees when one of some files has been written, replaced, made or removed.
class FileStamps {
public:
    /// Looks at the files, which may be absent, for the first time.
    explicit FileStamps(std::vector<std::string> paths);

    /// True when a file is no longer what it was at the call before, or when this was constructed.
    [[nodiscard]] bool changed();

private:
    // Device, inode, size and the times of the last changes of content and inode; all 0 when there is none.
    using Stamp = std::tuple<std::uint64_t, std::uint64_t, std::int64_t, std::int64_t, std::int64_t>;

    static Stamp read(const std::string& path);
    std::vector<Stamp> readAll() const;

    std::vector<std::string> paths;
    std::vector<Stamp> seen;
};

}  // namespace resolver
