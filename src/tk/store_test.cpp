#include "tk/store.h"

#include <signal.h>
#include <sys/resource.h>
#include <unistd.h>

#include <filesystem>

#include <gtest/gtest.h>

#include "tk/testing/folder.h"

namespace tk {
namespace {

message named(const std::string& text) {
    message content;
    content.insert_string(1, text);
    content.insert_u32_array(2, {1, 2});
    return content;
}

class StoreTest : public ::testing::Test {
protected:
    std::string path() const { return folder.file("store"); }
    /// The entry as the next start would read it.
    message stored(std::uint32_t id) const { return Store(path(), 1).get(id); }

    tk::testing::Folder folder;
    Store store{path(), 1};
};

using StoreStage = StoreTest;
using StoreFailure = StoreTest;

TEST_F(StoreTest, StartsEmptyWhereThereIsNoFileAndMakesNone) {
    EXPECT_FALSE(store.find(0));
    EXPECT_TRUE(store.get(0).empty());
    EXPECT_TRUE(store.all().empty());
    EXPECT_FALSE(folder.has("store"));
}

TEST_F(StoreTest, PersistsAtOnce) {
    ASSERT_TRUE(store.set(0, named("settings")).isOk());
    EXPECT_EQ(stored(0), named("settings"));
    ASSERT_TRUE(store.set(0, named("changed")).isOk());
    EXPECT_EQ(stored(0), named("changed"));
    EXPECT_FALSE(folder.has("store.new"));
}

TEST_F(StoreTest, ReplacesAllEntriesAtOnce) {
    ASSERT_TRUE(store.set(1, named("one")).isOk());
    ASSERT_TRUE(store.replace({{2, named("two")}, {3, named("three")}}).isOk());
    EXPECT_FALSE(store.find(1));
    const Store again(path(), 1);
    EXPECT_EQ(again.all(), store.all());
    EXPECT_EQ(again.all().size(), 2U);
    EXPECT_EQ(again.get(3), named("three"));
}

TEST_F(StoreTest, KeepsEveryEntryUnderItsId) {
    ASSERT_TRUE(store.set(5, named("five")).isOk());
    ASSERT_TRUE(store.set(0xFFFFFFFE, named("last")).isOk());
    ASSERT_TRUE(store.set(2, message()).isOk());
    EXPECT_TRUE(store.find(2));
    EXPECT_FALSE(store.find(3));
    const Store again(path(), 1);
    EXPECT_EQ(again.all(), store.all());
    EXPECT_EQ(again.all().size(), 3U);
    EXPECT_EQ(again.get(0xFFFFFFFE), named("last"));
}

TEST_F(StoreTest, RemovalPersistsAtOnceAndAnAbsentEntryIsNoError) {
    ASSERT_TRUE(store.set(1, named("one")).isOk());
    ASSERT_TRUE(store.set(2, named("two")).isOk());
    EXPECT_TRUE(store.remove(1).isOk());
    EXPECT_TRUE(store.remove(7).isOk());
    EXPECT_FALSE(store.find(1));
    EXPECT_EQ(Store(path(), 1).all(), store.all());
    EXPECT_EQ(store.all().size(), 1U);
}

TEST_F(StoreTest, MakesItsFolder) {
    Store inside(folder.file("sub/store"), 1);
    ASSERT_TRUE(inside.set(1, named("one")).isOk());
    EXPECT_EQ(Store(folder.file("sub/store"), 1).get(1), named("one"));
}

TEST_F(StoreStage, NothingChangesBeforeTheCommit) {
    ASSERT_TRUE(store.set(1, named("old")).isOk());
    ASSERT_TRUE(store.stage(1, named("new")).isOk());
    EXPECT_EQ(store.get(1), named("old"));
    EXPECT_EQ(stored(1), named("old"));
    ASSERT_TRUE(store.commit().isOk());
    EXPECT_EQ(store.get(1), named("new"));
    EXPECT_EQ(stored(1), named("new"));
}

TEST_F(StoreStage, DiscardLeavesTheOldContentAndNoFile) {
    ASSERT_TRUE(store.set(1, named("old")).isOk());
    ASSERT_TRUE(store.stage(1, named("new")).isOk());
    store.discard();
    EXPECT_EQ(store.get(1), named("old"));
    EXPECT_EQ(stored(1), named("old"));
    EXPECT_FALSE(folder.has("store.new"));
}

TEST_F(StoreStage, RemovalIsStagedTheSameWay) {
    ASSERT_TRUE(store.set(1, named("old")).isOk());
    ASSERT_TRUE(store.stageRemoval(1).isOk());
    EXPECT_TRUE(store.find(1));
    ASSERT_TRUE(store.commit().isOk());
    EXPECT_FALSE(store.find(1));
    EXPECT_FALSE(Store(path(), 1).find(1));
}

TEST_F(StoreStage, WhatACrashLeftStagedIsNotTheStore) {
    ASSERT_TRUE(store.set(1, named("old")).isOk());
    ASSERT_TRUE(store.stage(1, named("new")).isOk());
    Store restarted(path(), 1);
    EXPECT_EQ(restarted.get(1), named("old"));
    ASSERT_TRUE(restarted.set(2, named("two")).isOk());
    EXPECT_EQ(Store(path(), 1).all(), restarted.all());
}

TEST_F(StoreFailure, WriteThatFailsLeavesTheOldContentAndTellsWhy) {
    ASSERT_TRUE(store.set(1, named("old")).isOk());
    std::filesystem::create_directory(path() + ".new");
    EXPECT_EQ(store.set(1, named("new")).reason(), path() + ": File exists");
    EXPECT_FALSE(store.remove(1).isOk());
    EXPECT_FALSE(store.stage(1, named("new")).isOk());
    EXPECT_EQ(store.get(1), named("old"));
    EXPECT_EQ(stored(1), named("old"));
    std::filesystem::remove(path() + ".new");
    EXPECT_TRUE(store.set(1, named("new")).isOk());
    EXPECT_EQ(stored(1), named("new"));
}

TEST_F(StoreFailure, AFileThatMayNotGrowLeavesTheOldContent) {
    ASSERT_TRUE(store.set(1, named("old")).isOk());
    rlimit before{};
    ASSERT_EQ(::getrlimit(RLIMIT_FSIZE, &before), 0);
    const auto handler = ::signal(SIGXFSZ, SIG_IGN);
    const rlimit small{16, before.rlim_max};
    ASSERT_EQ(::setrlimit(RLIMIT_FSIZE, &small), 0);
    const Status outcome = store.set(1, named("new"));
    ASSERT_EQ(::setrlimit(RLIMIT_FSIZE, &before), 0);
    ::signal(SIGXFSZ, handler);
    EXPECT_EQ(outcome.reason(), path() + ": File too large");
    EXPECT_EQ(store.get(1), named("old"));
    EXPECT_EQ(stored(1), named("old"));
    EXPECT_FALSE(std::filesystem::exists(path() + ".new"));
}

TEST_F(StoreFailure, CommitThatFailsLeavesTheOldContent) {
    ASSERT_TRUE(store.set(1, named("old")).isOk());
    ASSERT_TRUE(store.stage(1, named("new")).isOk());
    std::filesystem::remove(path() + ".new");
    EXPECT_EQ(store.commit().reason(), path() + ": No such file or directory");
    EXPECT_EQ(store.get(1), named("old"));
    EXPECT_EQ(stored(1), named("old"));
}

TEST_F(StoreFailure, CommitWithoutAFreeDescriptorLeavesTheOldContent) {
    ASSERT_TRUE(store.set(1, named("old")).isOk());
    ASSERT_TRUE(store.stage(1, named("new")).isOk());
    rlimit before{};
    ASSERT_EQ(::getrlimit(RLIMIT_NOFILE, &before), 0);
    const rlimit none{0, before.rlim_max};
    ASSERT_EQ(::setrlimit(RLIMIT_NOFILE, &none), 0);
    const bool committed = store.commit().isOk();
    ASSERT_EQ(::setrlimit(RLIMIT_NOFILE, &before), 0);
    EXPECT_FALSE(committed);
    EXPECT_EQ(store.get(1), named("old"));
    EXPECT_EQ(stored(1), named("old"));
}

TEST_F(StoreFailure, EntryThatCouldNotBeReadBackIsRefused) {
    ASSERT_TRUE(store.set(1, named("old")).isOk());
    message deep = named("inside");
    for (int level = 0; level < 15; ++level) {
        message outer;
        outer.insert_message_array(1, {deep});
        deep = outer;
    }
    EXPECT_EQ(store.set(1, deep).reason(), path() + ": the entry cannot be stored");
    EXPECT_EQ(store.get(1), named("old"));
    EXPECT_EQ(stored(1), named("old"));
    EXPECT_FALSE(folder.has("store.damaged"));
    const message shallower = deep.get_message_array(1).front();
    EXPECT_TRUE(store.set(1, shallower).isOk());
    EXPECT_EQ(stored(1), shallower);
}

TEST(StoreChecksum, IsTheCommonCrc32) {
    EXPECT_EQ(crc32(""), 0U);
    EXPECT_EQ(crc32("123456789"), 0xCBF43926U);
    EXPECT_EQ(crc32(std::string_view("\0\xFF", 2)), 0x6CDBFD72U);
}

}  // namespace
}  // namespace tk
