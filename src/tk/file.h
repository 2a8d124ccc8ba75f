#pragma once

#include <cstddef>
#include <string>
#include <string_view>

#include "tk/fd.h"
#include "tk/status.h"

/// Files whole. Errors, of all that give a Status or a Result: its code is the errno value.
namespace tk {

/// Reads a regular file of at most `limit` bytes.
/// Errors: EFBIG when the file is larger, EINVAL when it is no regular file.
[[nodiscard]] Result<std::string> readFile(const std::string& path, std::size_t limit);

/// Opens a file to be read; one that is no regular file makes it wait for nobody.
/// Errors: none open, with errno set.
[[nodiscard]] Fd openToRead(const std::string& path);
/// Reads a file that is open, from its start: what was learnt of the descriptor holds for what is read.
/// Errors: as above; the reason names no path.
[[nodiscard]] Result<std::string> readFile(const Fd& file, std::size_t limit);

/// Writes a new file and syncs it; a folder that is missing is made first (one level).
/// Errors: the file is removed again.
[[nodiscard]] Status writeSynced(const std::string& path, std::string_view content);

/// Puts one file in the place of another, and syncs their folder.
[[nodiscard]] Status replaceSynced(const std::string& from, const std::string& to);

/// Renames a file, but never onto another one.
/// Errors: EEXIST when `to` is there.
[[nodiscard]] Status renameToFree(const std::string& from, const std::string& to);

}  // namespace tk
