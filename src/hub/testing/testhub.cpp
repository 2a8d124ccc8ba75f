#include "hub/testing/testhub.h"

#include <poll.h>
#include <sys/socket.h>

#include <utility>

#include <gtest/gtest.h>

#include "tk/bus.h"
#include "tk/names.h"

namespace hub::testing {

TestClient::TestClient(tk::Fd socket) : socket(std::move(socket)) {}

std::uint32_t TestClient::request(const tk::Path& to, std::uint32_t command, tk::message content,
                                  const tk::Path& from) {
    content.insert_u32_array(tk::field::destination, to);
    tk::stamp(content, from, ++numbers, tk::Kind::request, command);
    send(content);
    return numbers;
}

void TestClient::answer(const tk::message& request, const tk::message& content) {
    send(tk::endOf(request, content));
}

void TestClient::notify(const tk::Path& from, std::uint32_t command, tk::message content) {
    tk::stamp(content, from, 0, tk::Kind::notification, command);
    send(content);
}

void TestClient::send(const tk::message& whole) {
    std::string frame;
    ASSERT_TRUE(tk::appendFrame(frame, whole));
    sendBytes(frame);
}

void TestClient::sendBytes(const std::string& bytes) {
    ASSERT_EQ(::send(socket.get(), bytes.data(), bytes.size(), MSG_NOSIGNAL),
              static_cast<ssize_t>(bytes.size()));
}

std::vector<tk::message> TestClient::take() {
    char bytes[65536];
    ssize_t count = 0;
    while ((count = ::recv(socket.get(), bytes, sizeof bytes, MSG_DONTWAIT)) > 0)
        reader.append(std::string_view(bytes, static_cast<std::size_t>(count)));
    std::vector<tk::message> messages;
    tk::message next;
    while (reader.next(next) == tk::FrameReader::Result::message) messages.push_back(next);
    return messages;
}

bool TestClient::isClosed() {
    char byte;
    return ::recv(socket.get(), &byte, 1, MSG_DONTWAIT | MSG_PEEK) == 0;
}

bool TestClient::isWritable() {
    pollfd state{socket.get(), POLLOUT, 0};
    return ::poll(&state, 1, 0) == 1 && state.revents == POLLOUT;
}

std::unique_ptr<TestClient> TestHub::connect(uid_t user) {
    int ends[2];
    EXPECT_EQ(::socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0, ends), 0);
    hub.adopt(tk::Fd(ends[0]), {0, user, 0});
    return std::make_unique<TestClient>(tk::Fd(ends[1]));
}

std::unique_ptr<TestClient> TestHub::connectProgram(std::uint32_t program, uid_t user) {
    auto client = connect(user);
    tk::message content;
    content.insert_u32(1, program);
    EXPECT_FALSE(tk::isError(ask(*client, {0}, tk::command::hubRegister, content)));
    return client;
}

void TestHub::settle() {
    for (int i = 0; i < 20; ++i) looper.turn(0);
}

void TestHub::advance(std::uint32_t ticks) {
    clock.advance(std::uint64_t{ticks} * tk::tickMilliseconds);
    settle();
}

std::vector<tk::message> TestHub::arrivedAt(TestClient& client) {
    settle();
    return client.take();
}

tk::message TestHub::ask(TestClient& client, const tk::Path& to, std::uint32_t command,
                         const tk::message& content) {
    const std::uint32_t number = client.request(to, command, content);
    settle();
    const std::vector<tk::message> arrived = client.take();
    EXPECT_EQ(arrived.size(), 1U);
    if (arrived.empty()) return {};
    EXPECT_EQ(arrived.front().get_u32(tk::field::number), number);
    return arrived.front();
}

tk::message subscription(const tk::Path& path, std::uint32_t command) {
    tk::message content;
    content.insert_u32_array(1, path);
    content.insert_u32(2, command);
    return content;
}

tk::message text(const std::string& value) {
    tk::message content;
    content.insert_string(1, value);
    return content;
}

std::uint32_t codeOf(const tk::message& end) {
    std::uint32_t code = 0;
    EXPECT_TRUE(tk::isError(end, &code));
    return code;
}

}  // namespace hub::testing
