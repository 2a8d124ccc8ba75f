#include "http/httpprogress.h"

#include <algorithm>
#include <string>

#include <gtest/gtest.h>

#include "http/httpmessage.h"

namespace gateway {

namespace {

using State = HTTPProgress::State;

const std::string messages[] = {
    "GET / HTTP/1.1\r\n\r\n",
    "GET / HTTP/1.1\r\nHost: 192.0.2.1\r\n\r\n",
    "\r\n\r\n",
    "\r\n:\r\n\r\n",
    "T\r\r\r\r\r",
    "T\r\n\r",
    "T\r\nA: 1\r\n\r",
    "T: x\r\n\r\n",
    "T\r\n\r\nbody without a length",
    "T\r\nCONTENT-LENGTH: 3\r\n\r\nabc",
    "T\r\ncontent-length:3\r\nB: 1\r\n\r\nabc",
    "T\r\ncontent-length:    3\r\n\r\nabcd",
    "T\r\ncontent-length:\t3\r\n\r\nabcd",
    "T\r\nContent-Length: 12\r\n\r\nshort",
    "T\r\nContent-Length: 2\r\n\r\nlonger than that",
    "T\r\nContent-Length: 0\r\n\r\n",
    "T\r\nContent-Length: 0\r\n\rx",
    "T\r\nContent-Length: 0\r\n\r\nx",
    "T\r\nContent-Length:\r\n\r\nx",
    "T\r\nContent-Length: 2 apples\r\n\r\nab",
    "T\r\nContent-Length: 00000000000000000002\r\n\r\nabc",
    "T\r\nContent-Length: -4294967294\r\n\r\nabc",
    "T\r\nContent-Length: 4294967297\r\n\r\na",
    "T\r\nContent-Length: 1\r\nContent-Length: 2\r\n\r\nabc",
    "T\r\nContent-Length: 2\r\nContent-Length: 1\r\n\r\nabc",
    "T\r\nContent-Length : 5\r\n\r\nabc",
    "T\r\nX-Content-Length: 5\r\n\r\nabc",
    "T\r\nno colon\r\n\r\n",
    "T\r\nA: 1\r\nno colon\r\nContent-Length: 1\r\n\r\na",
    "T\r\n: nameless\r\n\r\n",
    "T\n\nA: 1\n\n",
    "T\rxA: 1\ryB: 2\rz\r?body",
    "T\rxContent-Length: 4\ry\r?body",
    "T\r\nA: 1\r\r\n\r\n",
    "T\r\n\n\r\n\r\n",
    "T\r\nContent-Length: 6\r\n\r\na\r\n\r\nb",
    std::string("T\r\nA\0: \0\r\nContent-Length: 1\r\n\r\n\0\0", 33),
};

/// The state of a message that has arrived so far, found by trying what may follow: complete now, after more
/// bytes, or never.
State expected(const std::string& received) {
    if (HTTPMessage(received).complete) return State::complete;
    // If a message of the table can still be completed, one of these and up to 64 bytes of body do so.
    for (const char* rest :
         {"", "\n", "\r\n\r\n", ":\r\n\r\n", "\n\r\n", "\nA:\r\n\r\n", "0\r\n\r\n", ": 0\r\n\r\n"}) {
        std::string text = received + rest;
        for (int i = 0; i < 64; ++i, text += 'x')
            if (HTTPMessage(text).complete) return State::needMore;
    }
    return State::never;
}

class HTTPProgressOf : public testing::TestWithParam<std::size_t> {};

TEST_P(HTTPProgressOf, AgreesWithTheMessageHoweverItIsCut) {
    const std::size_t chunk = GetParam();
    for (const std::string& message : messages) {
        for (std::size_t first = 0; first <= message.size(); ++first) {
            HTTPProgress progress;
            for (std::size_t length = first;; length = std::min(length + chunk, message.size())) {
                const std::string received = message.substr(0, length);
                EXPECT_EQ(progress.look(received) == State::complete, HTTPMessage(received).complete)
                    << testing::PrintToString(received) << " cut first at " << first;
                if (length == message.size()) break;
            }
        }
    }
}

INSTANTIATE_TEST_SUITE_P(Chunks, HTTPProgressOf, testing::Values(1, 2, 3, 7, 4096));

TEST(HTTPProgress, SaysNeverExactlyWhenNoFurtherByteHelps) {
    const std::string huge = "429496729";  // a body too long to wait for in a test
    for (const std::string& message : messages) {
        if (message.find(huge) != std::string::npos) continue;
        HTTPProgress progress;
        for (std::size_t length = 0; length <= message.size(); ++length) {
            const std::string received = message.substr(0, length);
            EXPECT_EQ(progress.look(received), expected(received)) << testing::PrintToString(received);
        }
    }
}

TEST(HTTPProgress, LookingTwiceAtTheSameBytesChangesNothing) {
    for (const std::string& message : messages) {
        HTTPProgress progress;
        const State first = progress.look(message);
        EXPECT_EQ(progress.look(message), first) << testing::PrintToString(message);
    }
}

TEST(HTTPProgress, HeaderLineWithoutColonCanNeverComplete) {
    HTTPProgress progress;
    EXPECT_EQ(progress.look("T\r\nno colon"), State::needMore);
    EXPECT_EQ(progress.look("T\r\nno colon\r"), State::never);
    EXPECT_EQ(progress.look("T\r\nno colon\r\n\r\n"), State::never);
}

TEST(HTTPProgress, BodyBeyondContentLengthCanNeverComplete) {
    HTTPProgress progress;
    EXPECT_EQ(progress.look("T\r\nContent-Length: 1\r\n\r\na"), State::complete);
    EXPECT_EQ(progress.look("T\r\nContent-Length: 1\r\n\r\nab"), State::never);
}

TEST(HTTPProgress, LongMessageInSmallPiecesTakesLinearTime) {
    // If each byte were looked at twice or more, this would take hours.
    const std::string head = "T\r\nA: " + std::string(1000000, 'x') + "\r\nContent-Length: 1000000\r\n\r\n";
    const std::string message = head + std::string(1000000, 'y');
    HTTPProgress progress;
    for (std::size_t length = 1; length < message.size(); ++length)
        ASSERT_EQ(progress.look(std::string_view(message).substr(0, length)), State::needMore);
    EXPECT_EQ(progress.look(message), State::complete);
}

}  // namespace

}  // namespace gateway
