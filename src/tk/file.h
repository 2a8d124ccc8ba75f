#pragma once

#include <cstddef>
#include <string>
#include <string_view>

#include "tk/fd.h"
#include "tk/status.h"

/// Reads and writes whole files.
/// Errors: the code of each Status and Result is the errno value.
namespace tk {

/// Reads a regular file of at most `limit` bytes.
/// Errors: EFBIG when the file is larger, EINVAL when it is no regular file.
[[nodiscard]] Result<std::string> readFile(const std::string& path, std::size_t limit);

/// Opens a file for reading, and never blocks, even when it is not a regular file.
/// Errors: the descriptor is not open, and errno is set.
[[nodiscard]] Fd openToRead(const std::string& path);
/// Reads an open file from its start: it is certainly the file that the caller checked by its descriptor.
/// Errors: as above, but the reason names no path.
[[nodiscard]] Result<std::string> readFile(const Fd& file, std::size_t limit);

/// Writes a new file and syncs it. Makes its folder first if that is missing (one level).
/// Errors: the file is removed again.
[[nodiscard]] Status writeSynced(const std::string& path, std::string_view content);

/// Renames a file, replacing any file at `to`, and syncs their folder.
[[nodiscard]] Status replaceSynced(const std::string& from, const std::string& to);

/// Renames a file, but never over another one, and syncs their folder.
/// Errors: EEXIST when `to` exists.
[[nodiscard]] Status renameToFree(const std::string& from, const std::string& to);

}  // namespace tk
