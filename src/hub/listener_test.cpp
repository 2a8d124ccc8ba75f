#include "hub/listener.h"

#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <cstring>
#include <filesystem>

#include <gtest/gtest.h>

#include "hub/testing/testhub.h"
#include "tk/testing/folder.h"

namespace hub {
namespace {

class BusListenerTest : public ::testing::Test {
protected:
    tk::Fd connect() const {
        sockaddr_un address{};
        address.sun_family = AF_UNIX;
        std::strncpy(address.sun_path, path.c_str(), sizeof address.sun_path - 1);
        tk::Fd socket(::socket(AF_UNIX, SOCK_STREAM | SOCK_NONBLOCK, 0));
        if (::connect(socket.get(), reinterpret_cast<const sockaddr*>(&address), sizeof address) != 0)
            socket.reset();
        return socket;
    }
    void openAt(Listener& listener) const {
        const tk::Status opened = listener.open(path);
        ASSERT_TRUE(opened.isOk()) << opened.reason();
    }

    tk::testing::Folder files;
    const std::string path = files.file("run/bus");
    testing::TestHub bus;
};

TEST_F(BusListenerTest, MakesTheFileForItsGroupAloneAndRemovesItAtTheEnd) {
    {
        Listener listener(bus.hub);
        openAt(listener);
        struct stat status;
        ASSERT_EQ(::stat(path.c_str(), &status), 0);
        EXPECT_EQ(status.st_mode & 07777, 0660U);
    }
    EXPECT_FALSE(std::filesystem::exists(path));
}

TEST_F(BusListenerTest, TakesConnectionsOfRoot) {
    if (::geteuid() != 0) GTEST_SKIP() << "needs root";
    Listener listener(bus.hub);
    openAt(listener);
    const tk::Fd first = connect();
    const tk::Fd second = connect();
    bus.settle();
    EXPECT_EQ(bus.hub.peerCount(), 2U);
}

TEST_F(BusListenerTest, ReplacesAFileThatNobodyServes) {
    {
        tk::Fd dead(::socket(AF_UNIX, SOCK_STREAM, 0));
        std::filesystem::create_directory(files.file("run"));
        sockaddr_un address{};
        address.sun_family = AF_UNIX;
        std::strncpy(address.sun_path, path.c_str(), sizeof address.sun_path - 1);
        ASSERT_EQ(::bind(dead.get(), reinterpret_cast<const sockaddr*>(&address), sizeof address), 0);
    }
    EXPECT_TRUE(Listener::checkFree(path).isOk());
    Listener listener(bus.hub);
    openAt(listener);
    EXPECT_EQ(Listener::checkFree(path).reason(), path + ": another router is running; end that one first");
}

TEST_F(BusListenerTest, LeavesALiveOneAlone) {
    Listener listener(bus.hub);
    openAt(listener);
    {
        Listener second(bus.hub);
        EXPECT_EQ(second.open(path).reason(), path + ": another router is running; end that one first");
    }
    EXPECT_EQ(Listener::checkFree(path).reason(), path + ": another router is running; end that one first");
}

TEST_F(BusListenerTest, MakesTheFolderForEverybodyToPassThroughWhateverTheMask) {
    const mode_t mask = ::umask(0077);
    Listener listener(bus.hub);
    const tk::Status opened = listener.open(path);
    EXPECT_EQ(::umask(mask), 0077U) << "the mask is as it was";
    ASSERT_TRUE(opened.isOk()) << opened.reason();
    struct stat status;
    ASSERT_EQ(::stat(files.file("run").c_str(), &status), 0);
    EXPECT_EQ(status.st_mode & 07777, 0755U);
}

TEST_F(BusListenerTest, OnceClosedItAdmitsNobodyAndLeavesItsSuccessorsFile) {
    Listener listener(bus.hub);
    openAt(listener);
    const tk::Fd waiting = connect();
    listener.close();
    EXPECT_FALSE(std::filesystem::exists(path));
    EXPECT_FALSE(connect().isOpen());
    bus.settle();
    EXPECT_EQ(bus.hub.peerCount(), 0U);
    Listener successor(bus.hub);
    openAt(successor);
    listener.close();
    EXPECT_EQ(Listener::checkFree(path).reason(), path + ": another router is running; end that one first");
}

TEST_F(BusListenerTest, LeavesASocketAloneThatMayStillBeServed) {
    const tk::Fd other(::socket(AF_UNIX, SOCK_DGRAM, 0));  // a stream connection fails, but not as refused
    std::filesystem::create_directory(files.file("run"));
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    std::strncpy(address.sun_path, path.c_str(), sizeof address.sun_path - 1);
    ASSERT_EQ(::bind(other.get(), reinterpret_cast<const sockaddr*>(&address), sizeof address), 0);
    EXPECT_FALSE(Listener::checkFree(path).isOk());
    Listener listener(bus.hub);
    EXPECT_EQ(listener.open(path).reason(), path + ": Protocol wrong type for socket");
    EXPECT_TRUE(std::filesystem::exists(path));
}

TEST_F(BusListenerTest, NeverRemovesAFileThatIsNoSocket) {
    std::filesystem::create_directory(files.file("run"));
    files.write("run/bus", "precious");
    Listener listener(bus.hub);
    EXPECT_EQ(listener.open(path).reason(), path + ": Address already in use");
    EXPECT_TRUE(std::filesystem::exists(path));
}

}  // namespace
}  // namespace hub
