// A NOTIFY whose socket cannot be made to wait, or not to: what the log says, and which number is taken.
#include "upnp/testing/notification.h"

#include <errno.h>

#include <cstring>

#include "faults/injection.h"

namespace gateway {

namespace {

using faults::Call;

/// Calls the function while its first fcntl() fails, and returns the logged lines.
template <typename Function>
std::string linesOf(Function function) {
    const tk::testing::CapturedOutput output;
    faults::begin({Call::fcntl, 1, EPERM});
    {
        const faults::InProgram here;
        function();
    }
    (void)faults::end();
    return output.text();
}

std::string failed(const char* what) {
    return std::string(what) + ::strerror(EPERM) + "\n";
}

TEST_F(Notification, ThatCannotConnectWithoutWaitingIsNotStarted) {
    EXPECT_EQ(linesOf([this] { service.sendEvent(subscription(), ""); }), failed("fcntl O_NONBLOCK: "));
    EXPECT_TRUE(isOver());
    EXPECT_EQ(subscription().seq, 0U);
}

TEST_F(Notification, ThatCannotWaitAgainTakesItsNumberAndIsOver) {
    start("");
    const tk::Fd connection = subscriber.accept();
    EXPECT_EQ(linesOf([this] { loop.looper.turn(longestWait); }), failed("fcntl 0: ") + "notify timeout\n");
    EXPECT_TRUE(isOver());
    EXPECT_EQ(received(connection), "");
    EXPECT_EQ(subscription().seq, 1U);
}

}  // namespace

}  // namespace gateway
