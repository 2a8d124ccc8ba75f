// A store whose file cannot be read, for any reason.

#include "tk/store.h"

#include <sys/stat.h>
#include <unistd.h>

#include <filesystem>

#include <gtest/gtest.h>

#include "tk/testing/capturedoutput.h"
#include "tk/testing/folder.h"

namespace tk {
namespace {

message named(const std::string& text) {
    message content;
    content.insert_string(1, text);
    return content;
}

class StoreDamage : public ::testing::Test {
protected:
    void SetUp() override {
        Store store(path(), 1);
        ASSERT_TRUE(store.set(1, named("one")).isOk());
        ASSERT_TRUE(store.set(2, named("two")).isOk());
        good = folder.read("store");
    }
    std::string path() const { return folder.file("store"); }
    std::string asideLine(const std::string& why, const std::string& aside) const {
        return "store " + path() + ": " + why + "; kept as " + path() + aside + "\n";
    }
    /// Opens a store with that content in its file, and checks that it is kept aside and never overwritten.
    void expectKeptAside(const std::string& content) {
        folder.write("store", content);
        {
            const tk::testing::CapturedOutput output;
            Store store(path(), 1);
            EXPECT_TRUE(store.all().empty());
            EXPECT_EQ(output.text(), asideLine("damaged, or of another kind", ".damaged"));
            EXPECT_TRUE(store.set(1, named("new")).isOk());
        }
        EXPECT_EQ(folder.read("store.damaged"), content);
        EXPECT_EQ(Store(path(), 1).get(1), named("new"));
        std::filesystem::remove(path() + ".damaged");
    }

    tk::testing::Folder folder;
    std::string good;
};

TEST_F(StoreDamage, IsKnownUntilSomethingIsStoredAgain) {
    EXPECT_FALSE(Store(path(), 1).hasLostContent());
    EXPECT_FALSE(Store(folder.file("absent"), 1).hasLostContent());
    folder.write("store", "");
    const tk::testing::CapturedOutput output;
    EXPECT_TRUE(Store(path(), 1).hasLostContent());
    EXPECT_TRUE(Store(path(), 1).hasLostContent());  // the file is absent now, and kept aside
    Store last(path(), 1);
    ASSERT_TRUE(last.set(1, named("one")).isOk());
    EXPECT_FALSE(Store(path(), 1).hasLostContent());
}

TEST_F(StoreDamage, FileCutAtEveryByteIsKeptAside) {
    for (std::size_t cut = 0; cut < good.size(); ++cut) {
        SCOPED_TRACE("cut at byte " + std::to_string(cut));
        expectKeptAside(good.substr(0, cut));
    }
}

TEST_F(StoreDamage, FileWithOneByteChangedIsKeptAside) {
    for (std::size_t at = 0; at < good.size(); ++at) {
        SCOPED_TRACE("byte " + std::to_string(at));
        std::string content = good;
        content[at] = static_cast<char>(content[at] ^ 0x20);
        expectKeptAside(content);
    }
}

TEST_F(StoreDamage, ForeignFileIsKeptAside) {
    expectKeptAside("[settings]\nenabled = yes\n");
    expectKeptAside(good + "x");
}

TEST_F(StoreDamage, FileOfAnotherRevisionIsKeptAside) {
    {
        const tk::testing::CapturedOutput output;
        const Store store(path(), 5);
        EXPECT_TRUE(store.all().empty());
        EXPECT_EQ(output.text(), asideLine("damaged, or of another kind", ".damaged"));
    }
    EXPECT_EQ(folder.read("store.damaged"), good);
    EXPECT_FALSE(folder.has("store"));
}

TEST_F(StoreDamage, FileWithoutARevisionIsKeptAsideEvenWhereItsRevisionIsZero) {
    message list;
    list.insert_message_array(3, {});
    message file;
    file.insert_u32(2, crc32(list.serialise()));
    file.insert_message_array(3, {});
    const tk::testing::CapturedOutput output;
    folder.write("store", "tkstore1" + file.serialise());
    const Store store(path(), 0);
    EXPECT_EQ(output.text(), asideLine("damaged, or of another kind", ".damaged"));
}

TEST_F(StoreDamage, SecondDamagedFileDoesNotOverwriteTheFirst) {
    const tk::testing::CapturedOutput output;
    for (const char* content : {"first", "second", "third"}) {
        folder.write("store", content);
        const Store store(path(), 1);
    }
    EXPECT_EQ(folder.read("store.damaged"), "first");
    EXPECT_EQ(folder.read("store.damaged.2"), "second");
    EXPECT_EQ(folder.read("store.damaged.3"), "third");
    EXPECT_EQ(output.text(), asideLine("damaged, or of another kind", ".damaged") +
                                 asideLine("damaged, or of another kind", ".damaged.2") +
                                 asideLine("damaged, or of another kind", ".damaged.3"));
}

TEST_F(StoreDamage, WhatIsNoFileIsKeptAside) {
    std::filesystem::remove(path());
    std::filesystem::create_directory(path());
    const tk::testing::CapturedOutput output;
    Store store(path(), 1);
    EXPECT_EQ(output.text(), asideLine("Invalid argument", ".damaged"));
    EXPECT_TRUE(std::filesystem::is_directory(path() + ".damaged"));
    EXPECT_TRUE(store.set(1, named("new")).isOk());
}

TEST_F(StoreDamage, FileThatMayNotBeReadIsKeptAside) {
    const tk::testing::CapturedOutput output;
    const bool isRoot = ::geteuid() == 0;
    ASSERT_EQ(::chmod(path().c_str(), 0), 0);
    if (isRoot) {  // root reads everything: become a user who may write the folder
        ASSERT_EQ(::chown(folder.path.c_str(), 65534, 65534), 0);
        ASSERT_EQ(::seteuid(65534), 0);
    }
    Store store(path(), 1);
    const Status stored = store.set(1, named("new"));
    ASSERT_TRUE(!isRoot || ::seteuid(0) == 0);
    EXPECT_EQ(output.text(), asideLine("Permission denied", ".damaged"));
    EXPECT_EQ(stored, Status());
    ASSERT_EQ(::chmod((path() + ".damaged").c_str(), 0600), 0);
    EXPECT_EQ(folder.read("store.damaged"), good);
}

TEST_F(StoreDamage, FileThatCannotBeKeptAsideIsNeverOverwritten) {
    folder.write("store", "damaged");
    folder.write("store.damaged", "first");
    for (int number = 2; number <= 100; ++number)
        folder.write("store.damaged." + std::to_string(number), "older");
    const tk::testing::CapturedOutput output;
    Store store(path(), 1);
    EXPECT_EQ(output.text(), "store " + path() +
                                 ": damaged, or of another kind; cannot be kept aside: File exists; "
                                 "no change will be stored\n");
    EXPECT_EQ(store.set(1, named("new")).reason(), path() + ": the file could not be read and is in the way");
    EXPECT_FALSE(store.find(1));
    EXPECT_EQ(folder.read("store"), "damaged");
    EXPECT_EQ(folder.read("store.damaged"), "first");
}

}  // namespace
}  // namespace tk
