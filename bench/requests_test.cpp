#include "bench/requests.h"

#include <gtest/gtest.h>

namespace bench {

namespace {

TEST(Requests, GoThroughEveryTextWithEachNumberAndBeginAgain) {
    Requests requests({"a@PORT@", "b@PORT@"}, Range{9, 10}, std::nullopt);
    EXPECT_EQ(requests.count(), 4U);
    for (const char* expected : {"a9", "b9", "a10", "b10", "a9"}) EXPECT_EQ(requests.next(), expected);
}

TEST(Requests, WithoutARangeTheTextIsTakenAsItIs) {
    Requests requests({"@PORT@ @INDEX@"}, std::nullopt, std::nullopt);
    EXPECT_EQ(requests.count(), 1U);
    EXPECT_EQ(requests.next(), "@PORT@ @INDEX@");
}

TEST(Requests, PutTheLengthOfTheBodyRight) {
    Requests requests({"POST\r\nCONTENT-LENGTH: 15\r\nX: 1\r\n\r\n@INDEX@-@INDEX@"}, std::nullopt,
                      Range{100, 100});
    EXPECT_EQ(requests.next(), "POST\r\nCONTENT-LENGTH: 7\r\nX: 1\r\n\r\n100-100");
    Requests longer({"POST\r\nCONTENT-LENGTH: 7\r\n\r\nport @PORT@"}, Range{65535, 65535}, std::nullopt);
    EXPECT_EQ(longer.next(), "POST\r\nCONTENT-LENGTH: 10\r\n\r\nport 65535");
}

}  // namespace

}  // namespace bench
