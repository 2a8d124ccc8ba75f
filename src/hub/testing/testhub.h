#pragma once

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "contract/programs.h"
#include "hub/hub.h"
#include "tk/fd.h"
#include "tk/frame.h"
#include "tk/looper.h"
#include "tk/message.h"
#include "tk/testing/manualclock.h"

namespace hub::testing {

/// The other end of a connection to the hub. It writes at once and reads what is there.
class TestClient {
public:
    explicit TestClient(tk::Fd socket);

    /// Sends a request and returns its number.
    std::uint32_t request(const tk::Path& to, std::uint32_t command, tk::message content = {},
                          const tk::Path& from = {});
    /// Ends a request that this client received.
    void answer(const tk::message& request, const tk::message& content);
    /// Sends a notification that claims to come from `from`.
    void notify(const tk::Path& from, std::uint32_t command, tk::message content = {});
    void send(const tk::message& whole);
    void sendBytes(const std::string& bytes);

    /// Everything that arrived since the last call.
    std::vector<tk::message> take();
    /// True when the hub has closed the connection, and nothing is left to read.
    bool isClosed();
    /// True when the connection is open, and has room for more.
    bool isWritable();
    void close() { socket.reset(); }

private:
    tk::Fd socket;
    tk::FrameReader reader;
    std::uint32_t numbers = 0;
};

/// A hub on a loop whose time moves by hand.
struct TestHub {
    ~TestHub() { hub.close(); }

    tk::testing::ManualClock clock;
    Hub hub;
    tk::Looper looper{clock, hub, contract::program::network};

    std::unique_ptr<TestClient> connect(uid_t user = 0);
    /// A client that has registered a program, as its user may.
    std::unique_ptr<TestClient> connectProgram(std::uint32_t program, uid_t user = 0);
    /// Serves what is ready, until nothing is.
    void settle();
    void advance(std::uint32_t ticks);
    /// What has arrived at a client once everything is served.
    std::vector<tk::message> arrivedAt(TestClient& client);
    /// Sends a request and returns its end, which must be the only message that arrives.
    tk::message ask(TestClient& client, const tk::Path& to, std::uint32_t command,
                    const tk::message& content = {});
};

/// A message whose field 1 is a string.
tk::message text(const std::string& value);

/// What the hub's subscribe and unsubscribe commands take: the sender and the command of notifications.
tk::message subscription(const tk::Path& path, std::uint32_t command);

/// The code of an error, which `end` must be.
std::uint32_t codeOf(const tk::message& end);

}  // namespace hub::testing
