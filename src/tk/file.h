#pragma once

#include <cstddef>
#include <string>
#include <string_view>

#include "tk/fd.h"

namespace tk {

/// Reads a regular file of at most `limit` bytes into `out`.
/// Errors: false, with errno set; EFBIG when the file is larger, EINVAL when it is no regular file.
[[nodiscard]] bool readFile(const std::string& path, std::size_t limit, std::string& out);

/// Opens a file to be read; one that is no regular file makes it wait for nobody. Errors: none open, with
/// errno set.
[[nodiscard]] Fd openToRead(const std::string& path);
/// Reads a file that is open, from its start: what was learnt of the descriptor holds for what is read.
/// Errors: as above.
[[nodiscard]] bool readFile(const Fd& file, std::size_t limit, std::string& out);

/// Writes a new file and syncs it; a folder that is missing is made first (one level).
/// Errors: false, with errno set; the file is removed again.
[[nodiscard]] bool writeSynced(const std::string& path, std::string_view content);

/// Puts one file in the place of another, and syncs their folder. Errors: false, with errno set.
[[nodiscard]] bool replaceSynced(const std::string& from, const std::string& to);

/// Renames a file, but never onto another one. Errors: false, with errno set; EEXIST when `to` is there.
[[nodiscard]] bool renameToFree(const std::string& from, const std::string& to);

}  // namespace tk
