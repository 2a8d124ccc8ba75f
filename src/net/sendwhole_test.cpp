#include "net/sendwhole.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/socket.h>

#include <string>

#include <gtest/gtest.h>

#include "tk/fd.h"

namespace {

class SendWhole : public testing::Test {
protected:
    SendWhole() {
        const tk::Fd listener(::socket(AF_INET, SOCK_STREAM, 0));
        sockaddr_in address{};
        address.sin_family = AF_INET;
        address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        socklen_t size = sizeof address;
        const int small = 4096;
        EXPECT_EQ(::setsockopt(listener.get(), SOL_SOCKET, SO_RCVBUF, &small, sizeof small), 0);
        EXPECT_EQ(::bind(listener.get(), reinterpret_cast<sockaddr*>(&address), size), 0);
        EXPECT_EQ(::listen(listener.get(), 1), 0);
        EXPECT_EQ(::getsockname(listener.get(), reinterpret_cast<sockaddr*>(&address), &size), 0);
        EXPECT_EQ(::connect(sender.get(), reinterpret_cast<sockaddr*>(&address), size), 0);
        receiver.reset(::accept(listener.get(), nullptr, nullptr));
    }
    tk::Fd sender{::socket(AF_INET, SOCK_STREAM, 0)};
    tk::Fd receiver;
};

TEST_F(SendWhole, TakesALargeTextFromAPeerThatDoesNotReadWithoutWaiting) {
    const int small = 4608;
    ASSERT_EQ(::setsockopt(sender.get(), SOL_SOCKET, SO_SNDBUF, &small, sizeof small), 0);
    EXPECT_TRUE(sendWhole(sender.get(), std::string(100000, 'x')));
}

TEST_F(SendWhole, ReportsWhatDoesNotFitWithoutWaiting) {
    EXPECT_FALSE(sendWhole(sender.get(), std::string(100000000, 'x')));
}

TEST_F(SendWhole, ReportsAPeerThatIsGoneWithoutASignal) {
    receiver.reset();
    (void)sendWhole(sender.get(), "x");  // what comes back tells the kernel that nobody is there
    EXPECT_FALSE(sendWhole(sender.get(), "x"));
}

}  // namespace
