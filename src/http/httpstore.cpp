#include "http/httpstore.h"

#include <fcntl.h>
#include <unistd.h>

#include "http/httpmessage.h"
#include "net/convert.h"
#include "net/sockets.h"
#include "tk/fd.h"
#include "tk/log.h"

namespace gateway {

namespace {

constexpr std::size_t fileLimit = 16384;  // one read, and so all that is served of a larger file

std::string contentTypeOf(const std::string& fileName) {
    const std::size_t dot = fileName.rfind('.');
    return dot != std::string::npos && fileName.compare(dot + 1, std::string::npos, "gif") == 0 ? "image/gif"
                                                                                                : "text/xml";
}

/// Reads the beginning of a file into `content`.
/// Errors: false, logged.
bool readStart(const std::string& path, std::string& content) {
    const tk::Fd file(::open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK));
    if (!file.isOpen()) {
        tk::log("open file ", path, ": ", tk::errorText());
        return false;
    }
    content.resize(fileLimit);
    const ssize_t length = ::read(file.get(), content.data(), content.size());
    if (length < 0) {
        tk::log("read file ", path, ": ", tk::errorText());
        return false;
    }
    content.resize(static_cast<std::size_t>(length));
    return true;
}

HTTPMessage respond(const HTTPMessage& request, const std::string& contentType, std::string content) {
    HTTPMessage response(httpstatus::ok);
    if (request.has("ACCEPT-LANGUAGE")) response.add("CONTENT-LANGUAGE", "en-us");
    response.add("CONTENT-TYPE", contentType);
    response.add("CONTENT-LENGTH", toString(static_cast<unsigned>(content.size())));
    response.addDate(0);
    response.add("SERVER", serverString);
    response.add("CONNECTION", "close");
    response.body = std::move(content);
    return response;
}

}  // namespace

HTTPMessage serveGet(const HTTPStore& store, const HTTPMessage& request, const std::string& content) {
    if (!content.empty()) return respond(request, "text/xml", content);
    const auto file = store.files.find(pathOf(request.title));
    if (file == store.files.end()) return HTTPMessage(httpstatus::notFound);
    std::string read;
    if (!readStart(store.directory + file->second, read)) return HTTPMessage(httpstatus::notFound);
    return respond(request, contentTypeOf(file->second), std::move(read));
}

}  // namespace gateway
