#pragma once

#include <map>
#include <string>

#include "http/httpmessage.h"

namespace gateway {

/// The static files that are served over HTTP: a folder, and the URL path of each file.
struct HTTPStore {
    std::string directory;  // ends in a slash
    // From a URL path, beginning with "/", to the name of a file in the folder.
    std::map<std::string, std::string> files;
};

/// Answers a GET with `content` as an XML document or, if that is empty, with the file that the request
/// names. A file is cut to its first 16384 bytes.
/// Errors: a bare 404 for a path that is not in the store, or a file that cannot be read (logged).
[[nodiscard]] HTTPMessage serveGet(const HTTPStore& store, const HTTPMessage& request,
                                   const std::string& content);

}  // namespace gateway
