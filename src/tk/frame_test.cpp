#include "tk/frame.h"

#include <gtest/gtest.h>

namespace tk {
namespace {

using namespace std::string_literals;
using Result = FrameReader::Result;

message numbered(std::uint32_t number) {
    message content;
    content.insert_u32(1, number);
    content.insert_string(2, std::string(number, 'x'));
    return content;
}

std::string framed(const message& content) {
    std::string frame;
    EXPECT_TRUE(appendFrame(frame, content));
    return frame;
}

/// A message whose flat form has exactly `size` bytes.
message ofSize(std::size_t size) {
    message content;
    content.insert_string(1, std::string(size - 9, 'x'));
    return content;
}

TEST(Frame, IsTheLengthAndTheFlatMessage) {
    message content;
    content.insert_bool(2, true);
    EXPECT_EQ(framed(content), "\x06\0\0\0\x02\0\0\0\x02\x01"s);
    EXPECT_EQ(framed(message()), "\0\0\0\0"s);
}

TEST(Frame, IsAppended) {
    std::string out = "before";
    ASSERT_TRUE(appendFrame(out, message()));
    EXPECT_EQ(out, "before\0\0\0\0"s);
}

TEST(Frame, LargestOneHasSixteenMebibytes) {
    std::string out = "before";
    EXPECT_FALSE(appendFrame(out, ofSize(std::size_t{16} * 1024 * 1024 + 1)));
    EXPECT_EQ(out, "before");
    const message largest = ofSize(std::size_t{16} * 1024 * 1024);
    FrameReader reader;
    reader.append(framed(largest));
    message read;
    ASSERT_EQ(reader.next(read), Result::message);
    EXPECT_EQ(read, largest);
}

TEST(Frame, StreamCutAtEveryByteGivesTheSameMessages) {
    const std::string stream = framed(numbered(1)) + framed(message()) + framed(numbered(3));
    for (std::size_t cut = 0; cut <= stream.size(); ++cut) {
        FrameReader reader;
        std::vector<message> read;
        message next;
        for (const std::string& part : {stream.substr(0, cut), stream.substr(cut)}) {
            reader.append(part);
            Result result = Result::message;
            while ((result = reader.next(next)) == Result::message) read.push_back(next);
            EXPECT_EQ(result, Result::needMore) << "cut at byte " << cut;
        }
        EXPECT_EQ(read, (std::vector<message>{numbered(1), message(), numbered(3)})) << "cut at byte " << cut;
    }
}

TEST(Frame, StreamOfSingleBytesGivesEachMessageWithItsLastByte) {
    const std::string first = framed(numbered(1));
    const std::string stream = first + framed(numbered(2));
    FrameReader reader;
    message next;
    for (std::size_t at = 0; at < stream.size(); ++at) {
        reader.append(stream.substr(at, 1));
        const bool complete = at + 1 == first.size() || at + 1 == stream.size();
        EXPECT_EQ(reader.next(next), complete ? Result::message : Result::needMore) << "byte " << at;
    }
    EXPECT_EQ(next, numbered(2));
}

TEST(Frame, LengthAboveTheLimitIsToldBeforeAnyContent) {
    FrameReader reader;
    reader.append("\x01\0\0"s);
    message next;
    EXPECT_EQ(reader.next(next), Result::needMore);
    reader.append("\x01"s);
    EXPECT_EQ(reader.next(next), Result::tooLarge);
}

TEST(Frame, BothSidesMayHaveASmallerLimit) {
    std::string out;
    EXPECT_FALSE(appendFrame(out, ofSize(101), 100));
    ASSERT_TRUE(appendFrame(out, ofSize(100), 100));
    message next;
    FrameReader exact(100);
    exact.append(out);
    EXPECT_EQ(exact.next(next), Result::message);
    FrameReader smaller(99);
    smaller.append(out);
    EXPECT_EQ(smaller.next(next), Result::tooLarge);
}

TEST(Frame, ReaderKeepsUnfinishedFramesAlone) {
    const std::string frame = framed(ofSize(300000));
    FrameReader reader;
    message next;
    EXPECT_EQ(reader.keptBytes(), 0U);
    reader.append(frame.substr(0, frame.size() - 1));
    EXPECT_EQ(reader.next(next), Result::needMore);
    EXPECT_GE(reader.keptBytes(), frame.size() - 1);
    reader.append(frame.substr(frame.size() - 1));
    EXPECT_EQ(reader.next(next), Result::message);
    EXPECT_EQ(reader.next(next), Result::needMore);
    EXPECT_EQ(reader.keptBytes(), 0U);
}

TEST(Frame, MalformedContentIsMalformedForGood) {
    FrameReader reader;
    reader.append(framed(numbered(1)) + "\x06\0\0\0\x02\0\0\0\x02\x02"s + framed(numbered(2)));
    message next;
    EXPECT_EQ(reader.next(next), Result::message);
    EXPECT_EQ(next, numbered(1));
    EXPECT_EQ(reader.next(next), Result::malformed);
    EXPECT_EQ(reader.next(next), Result::malformed);
}

}  // namespace
}  // namespace tk
