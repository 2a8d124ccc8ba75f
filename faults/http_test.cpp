// The HTTP server where a call of the kernel fails: what it logs, and that it goes on.
#include <errno.h>
#include <unistd.h>

#include <cstring>
#include <fstream>
#include <vector>

#include <gtest/gtest.h>

#include "faults/injection.h"
#include "http/testing/serverfixture.h"
#include "tk/testing/folder.h"

namespace faults {

namespace {

using gateway::Client;

constexpr const char* request = "GET /unknown HTTP/1.1\r\n\r\n";
constexpr const char* answer = "HTTP/1.1 404 Not Found\r\n\r\n";

class ServerFaults : public gateway::Server {
protected:
    /// Serves while the first accept fails. Returns how many were tried.
    std::uint32_t serveWithoutAccept(int error) {
        begin({Call::accept4, 1, error});
        {
            const InProgram here;
            loop.settle();
        }
        return end()[static_cast<std::size_t>(Call::accept4)];
    }
};

TEST_F(ServerFaults, AListenerWithoutDescriptorsOrMemoryRestsBeforeItTriesAgain) {
    std::string lines;
    for (const int error : {EMFILE, ENFILE, ENOBUFS, ENOMEM}) {
        const Client client(port);
        client.send(request);
        EXPECT_EQ(serveWithoutAccept(error), 1U) << ::strerror(error);
        loop.advance(9);
        EXPECT_EQ(client.received(), "");
        loop.advance(1);
        loop.settle();
        EXPECT_EQ(client.received(), answer);
        lines += "accept failed\n";
    }
    EXPECT_EQ(log(), lines);
}

TEST_F(ServerFaults, AnAcceptThatFailsForAnotherReasonKeepsNobodyWaiting) {
    std::string lines;
    for (const int error : {ECONNABORTED, EINTR, EAGAIN}) {
        const Client client(port);
        client.send(request);
        EXPECT_EQ(serveWithoutAccept(error), 2U) << ::strerror(error);
        EXPECT_EQ(client.received(), answer);
        lines += "accept failed\n";
    }
    EXPECT_EQ(log(), lines);
}

TEST_F(ServerFaults, AListenerThatGoesWhileItRestsIsForgotten) {
    const Client client(port);
    EXPECT_EQ(serveWithoutAccept(ENFILE), 1U);
    loop.looper.runner().removeSocket(listener.get());
    loop.advance(20);
    EXPECT_EQ(loop.looper.runner().socketCount(), 0U);
    EXPECT_EQ(log(), "accept failed\n");
}

TEST_F(ServerFaults, AConnectionWhoseReadFailsIsClosedWithoutALine) {
    const Client client(port);
    client.send("GET ");
    loop.settle();
    client.send("/");
    begin({Call::recv, 1, ECONNRESET});
    {
        const InProgram here;
        loop.settle();
    }
    (void)end();
    EXPECT_FALSE(server.hasConnections(host.device));
    EXPECT_EQ(loop.looper.runner().timerCount(), 0U);
    EXPECT_EQ(log(), "");
}

TEST(FileFaults, AFileThatCannotBeReadIsLoggedAndNotFound) {
    const tk::testing::Folder folder;
    std::ofstream(folder.file("a.xml")) << "<a/>";
    const gateway::HTTPStore store{folder.file(""), {{"/a.xml", "a.xml"}}};
    const gateway::HTTPMessage get("GET /a.xml HTTP/1.1\r\n\r\n");
    testing::internal::CaptureStdout();
    for (const Fault& fault : {Fault{Call::open, 1, EMFILE}, Fault{Call::read, 1, EIO}}) {
        begin(fault);
        const InProgram here;
        EXPECT_EQ(serveGet(store, get, "").toString(), answer);
    }
    (void)end();
    EXPECT_EQ(testing::internal::GetCapturedStdout(),
              "open file " + folder.file("a.xml") + ": " + ::strerror(EMFILE) + "\nread file " +
                  folder.file("a.xml") + ": " + ::strerror(EIO) + "\n");
}

}  // namespace

}  // namespace faults
