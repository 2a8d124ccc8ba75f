#pragma once

#include <map>
#include <string>

#include "http/httpmessage.h"

namespace gateway {

/// The static files that are served over HTTP: a folder, and which of its files answers which URL path.
struct HTTPStore {
    std::string directory;  // ends in a slash
    // From URL path, beginning with "/", to file name in the folder.
    std::map<std::string, std::string> files;
};

/// Answers a GET: with `content` as an XML document, or, when that is empty, with the file that the request
/// names. A file larger than 16384 bytes is cut to its first 16384.
/// Errors: a bare 404 for a path that is not in the store, and for a file that cannot be read (logged).
[[nodiscard]] HTTPMessage serveGet(const HTTPStore& store, const HTTPMessage& request,
                                   const std::string& content);

}  // namespace gateway
