#pragma once

#include <string>
#include <string_view>

#include "tk/fd.h"
#include "tk/frame.h"
#include "tk/message.h"
#include "tk/names.h"
#include "tk/testing/folder.h"

namespace tk::testing {

/// The hub's side of one bus connection, played by hand: a listening Unix socket, and blocking reads and
/// writes of single messages on the accepted connection. No read waits longer than five seconds.
class FakeHub {
public:
    FakeHub();

    /// Where it listens.
    std::string path() const { return folder.file("bus"); }
    /// Accepts the connection that waits, or the next one.
    void accept();

    void send(const message& content);
    void sendBytes(std::string_view bytes);
    /// Sends the end of request `number`: a reply, or an error when `content` is one.
    void sendEnd(std::uint32_t number, message content);
    /// Sends a notification of the handler at `from`.
    void sendNotification(const Path& from, std::uint32_t command, message content);
    /// Sends a request for the handler at `to`.
    void sendRequest(const Path& to, std::uint32_t number, std::uint32_t command, message content);

    /// The next message of the connected program. False when it closed, was silent or sent rubbish.
    [[nodiscard]] bool read(message& out);
    /// True when the program closes, or has closed, the connection without sending anything more.
    [[nodiscard]] bool seesEnd();
    /// Closes the connection.
    void close() { connection.reset(); }

private:
    Folder folder;
    Fd listener;
    Fd connection;
    FrameReader reader;
};

}  // namespace tk::testing
