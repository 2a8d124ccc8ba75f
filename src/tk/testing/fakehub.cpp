#include "tk/testing/fakehub.h"

#include <stdlib.h>
#include <sys/socket.h>
#include <sys/time.h>
#include <sys/un.h>

#include <cstring>
#include <utility>

#include "tk/bus.h"

namespace tk::testing {

namespace {

constexpr timeval patience{5, 0};

}  // namespace

FakeHub::FakeHub() : listener(::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0)) {
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    std::strncpy(address.sun_path, path().c_str(), sizeof address.sun_path - 1);
    ::setsockopt(listener.get(), SOL_SOCKET, SO_RCVTIMEO, &patience, sizeof patience);
    if (::bind(listener.get(), reinterpret_cast<sockaddr*>(&address), sizeof address) != 0 ||
        ::listen(listener.get(), 4) != 0)
        ::abort();
}

void FakeHub::accept() {
    connection.reset(::accept4(listener.get(), nullptr, nullptr, SOCK_CLOEXEC));
    ::setsockopt(connection.get(), SOL_SOCKET, SO_RCVTIMEO, &patience, sizeof patience);
    reader = FrameReader();
}

void FakeHub::sendBytes(std::string_view bytes) {
    while (!bytes.empty()) {
        const ssize_t count = ::send(connection.get(), bytes.data(), bytes.size(), MSG_NOSIGNAL);
        if (count <= 0) return;
        bytes.remove_prefix(static_cast<std::size_t>(count));
    }
}

void FakeHub::send(const message& content) {
    std::string frame;
    if (appendFrame(frame, content)) sendBytes(frame);
}

void FakeHub::sendEnd(std::uint32_t number, message content) {
    const Kind kind = isError(content) ? Kind::error : Kind::reply;
    stamp(content, {program::hub}, number, kind, 0);
    send(content);
}

void FakeHub::sendNotification(const Path& from, std::uint32_t command, message content) {
    stamp(content, from, 0, Kind::notification, command);
    send(content);
}

void FakeHub::sendRequest(const Path& to, std::uint32_t number, std::uint32_t command, message content) {
    content.insert_u32_array(field::destination, to);
    stamp(content, {program::firstClient}, number, Kind::request, command);
    send(content);
}

bool FakeHub::read(message& out) {
    for (;;) {
        const FrameReader::Result result = reader.next(out);
        if (result != FrameReader::Result::needMore) return result == FrameReader::Result::message;
        char bytes[4096];
        const ssize_t count = ::recv(connection.get(), bytes, sizeof bytes, 0);
        if (count <= 0) return false;
        reader.append(std::string_view(bytes, static_cast<std::size_t>(count)));
    }
}

bool FakeHub::seesEnd() {
    char byte = 0;
    return ::recv(connection.get(), &byte, 1, 0) == 0;
}

}  // namespace tk::testing
