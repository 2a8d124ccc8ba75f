#include "resolver/cache.h"

#include <gtest/gtest.h>

#include "tk/names.h"

namespace resolver {
namespace {

const Answer known{0x010200C0, 60, 0, ""};
const Answer unknown{0, 30, tk::error::noSuchObject, "unknown"};

class CacheTest : public ::testing::Test {
protected:
    bool has(const std::string& name, std::uint64_t now) { return cache.find(name, now) != nullptr; }

    Cache cache;
};

TEST_F(CacheTest, GivesGoodAndBadAnswersAsTheyWere) {
    cache.insert("nas.example", known, 0);
    cache.insert("nosuch.example", unknown, 0);
    EXPECT_EQ(*cache.find("nas.example", 1), known);
    EXPECT_EQ(*cache.find("nosuch.example", 1), unknown);
    EXPECT_FALSE(has("other.example", 1));
}

TEST_F(CacheTest, AnAnswerLastsForItsLifetimeAndNoLonger) {
    cache.insert("nas.example", known, 5000);
    EXPECT_TRUE(has("nas.example", 64999));
    EXPECT_FALSE(has("nas.example", 65000));
}

TEST_F(CacheTest, TheLongestLifetimeDoesNotWrap) {
    cache.insert("nas.example", Answer{1, 0xFFFFFFFF, 0, ""}, 1000);
    EXPECT_TRUE(has("nas.example", 4294967295999));
    EXPECT_FALSE(has("nas.example", 4294967296000));
}

TEST_F(CacheTest, AnAnswerWithoutALifetimeReplacesTheOldOneAndIsNotRemembered) {
    cache.insert("nas.example", known, 0);
    cache.insert("nas.example", Answer{2, 0, 0, ""}, 1);
    EXPECT_FALSE(has("nas.example", 1));
    EXPECT_EQ(cache.size(), 0u);
}

TEST_F(CacheTest, ANewerAnswerReplacesTheOldOne) {
    cache.insert("nas.example", known, 0);
    cache.insert("nas.example", unknown, 1);
    EXPECT_EQ(*cache.find("nas.example", 2), unknown);
    EXPECT_EQ(cache.size(), 1u);
}

TEST_F(CacheTest, AtTheLimitTheAnswerThatWouldEndFirstMakesRoom) {
    cache.insert("short.example", Answer{1, 10, 0, ""}, 0);
    for (std::size_t i = 1; i < Cache::limit; ++i) cache.insert("host" + std::to_string(i), known, 0);
    EXPECT_EQ(cache.size(), Cache::limit);
    cache.insert("late.example", Answer{1, 5, 0, ""}, 0);
    EXPECT_EQ(cache.size(), Cache::limit);
    EXPECT_FALSE(has("short.example", 1));
    EXPECT_TRUE(has("late.example", 1));
    EXPECT_TRUE(has("host1", 1));
}

TEST_F(CacheTest, ForgetsEverythingWhenCleared) {
    cache.insert("nas.example", known, 0);
    cache.clear();
    EXPECT_FALSE(has("nas.example", 0));
}

}  // namespace
}  // namespace resolver
