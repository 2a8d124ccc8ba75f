#include "http/httpconn.h"

#include <errno.h>
#include <sys/socket.h>

#include <utility>

#include "http/httpserver.h"
#include "net/sockets.h"
#include "tk/log.h"

namespace gateway {

namespace {

constexpr std::uint32_t requestTicks = 1000;                   // 10 s from accept for the whole request
constexpr std::size_t readSize = 4096;                         // what one read takes
constexpr std::size_t requestLimit = std::size_t{128} * 1024;  // bytes kept of one request

}  // namespace

HTTPConn::HTTPConn(HTTPServer& server, tk::Fd accepted, Device& device, std::uint32_t source,
                   std::uint64_t number)
    : server(server), socket(std::move(accepted)), owner(device), peer(source), serial(number) {
    watch.start<HTTPServer, &HTTPServer::connRead>(socket.get(), server, tk::readable);
    requestTimer.arm(requestTicks);
}

HTTPConn::~HTTPConn() {
    watch.endWithSocket();
}

HTTPConn::Input HTTPConn::read() {
    char bytes[readSize];
    const ssize_t length = ::recv(socket.get(), bytes, sizeof bytes, MSG_DONTWAIT);
    if (length < 0 && (errno == EAGAIN || errno == EINTR)) return Input::more;
    if (length <= 0) return Input::ended;
    if (isHopeless) return Input::more;
    buffer.append(bytes, static_cast<std::size_t>(length));
    const HTTPProgress::State state =
        buffer.size() > requestLimit ? HTTPProgress::State::never : progress.look(buffer);
    if (state == HTTPProgress::State::complete) return Input::complete;
    if (state == HTTPProgress::State::never) giveUp();
    return Input::more;
}

void HTTPConn::giveUp() {
    isHopeless = true;
    std::string().swap(buffer);  // unlike an assignment, this frees the memory
}

void HTTPConn::write(const std::string& response) {
    if (!sendWhole(socket.get(), response)) tk::log("write error");
}

tk::Fd HTTPConn::giveSocketUp() {
    watch.stop();
    return std::move(socket);
}

void HTTPConn::keepWaiting(std::unique_ptr<HTTPWait> with) {
    requestTimer.disarm();  // it limits only the arrival of the request
    // A client may close its side after its request, and is answered all the same.
    watch.stop();
    std::string().swap(buffer);
    wait = std::move(with);
}

bool HTTPConn::mayWait() const {
    return server.mayWait(peer);
}

void HTTPConn::answer(const HTTPMessage& response) {
    server.answered(*this, response);  // deletes this connection: nothing may follow
}

void HTTPConn::timeout() {
    server.timedOut(socket.get());  // deletes this connection: nothing may follow
}

}  // namespace gateway
