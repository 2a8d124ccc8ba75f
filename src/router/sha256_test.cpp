#include "router/sha256.h"

#include <gtest/gtest.h>

namespace router {
namespace {

struct Case {
    const char* name;
    std::string text;
    const char* digest;
};

// The examples that are published with the standard.
const Case cases[] = {
    {"Empty", "", "e3b0c44298fc1c149afbf4c8996fb92427ae41e4649b934ca495991b7852b855"},
    {"OneBlock", "abc", "ba7816bf8f01cfea414140de5dae2223b00361a396177a9cb410ff61f20015ad"},
    {"TwoBlocks", "abcdbcdecdefdefgefghfghighijhijkijkljklmklmnlmnomnopnopq",
     "248d6a61d20638b8e5c026930c3e6039a33ce45964ff2167f6ecedd419db06c1"},
    {"FourBlocks",
     "abcdefghbcdefghicdefghijdefghijkefghijklfghijklmghijklmnhijklmnoijklmnopjklmnopqklmnopqrlmnopqrsmnopqrs"
     "tnopqrstu",
     "cf5b16a778af8380036ce59e7b0492370b249b11e8f07a51afac45037afee9d1"},
    {"AMillion", std::string(1000000, 'a'),
     "cdc76e5c9914fb9281a1c7e284d73e67f1809a48a497200e046d39ccc7112cd0"},
};

class Sha256 : public ::testing::TestWithParam<Case> {};

TEST_P(Sha256, AnswersAsPublished) {
    EXPECT_EQ(hexDigits(sha256(GetParam().text)), GetParam().digest);
}

INSTANTIATE_TEST_SUITE_P(Texts, Sha256, ::testing::ValuesIn(cases),
                         [](const auto& row) { return std::string(row.param.name); });

// RFC 4231, test cases 1, 2 and 6.
TEST(HmacSha256, AnswersAsPublished) {
    EXPECT_EQ(hexDigits(hmacSha256(std::string(20, '\x0b'), "Hi There")),
              "b0344c61d8db38535ca8afceaf0bf12b881dc200c9833da726e9376c2e32cff7");
    EXPECT_EQ(hexDigits(hmacSha256("Jefe", "what do ya want for nothing?")),
              "5bdcc146bf60754e6a042426089575c75a003f089d2739839dec58b964ec3843");
    EXPECT_EQ(hexDigits(hmacSha256(std::string(131, '\xaa'),
                                   "Test Using Larger Than Block-Size Key - Hash Key First")),
              "60e431591ee0b67f0d8a26aacbf5b77f8e0bc6213728c5140546040f0ee37f54");
}

}  // namespace
}  // namespace router
