#include "http/baseurl.h"

#include <arpa/inet.h>

#include <gtest/gtest.h>

namespace {

TEST(BaseUrl, NamesTheAddressAndThePort) {
    EXPECT_EQ(baseUrl(inet_addr("192.0.2.1")), "http://192.0.2.1:2828");
    EXPECT_EQ(baseUrl(0), "http://0.0.0.0:2828");
}

}  // namespace
