#include "links/interfaceids.h"

#include <sys/stat.h>

#include <filesystem>
#include <memory>
#include <set>
#include <string>
#include <utility>

#include <gtest/gtest.h>

#include "tk/testing/capturedoutput.h"
#include "tk/testing/folder.h"
#include "tk/testing/testloop.h"

namespace links {
namespace {

class InterfaceIdsTest : public ::testing::Test {
protected:
    /// The ids after the end of a process; a crash leaves what the store has now.
    void restart() {
        ids.reset();
        ids = std::make_unique<InterfaceIds>(files.file("interfaces"));
    }
    void crash() {
        std::filesystem::copy_file(files.file("interfaces"), files.file("kept"));
        ids.reset();
        std::filesystem::rename(files.file("kept"), files.file("interfaces"));
        ids = std::make_unique<InterfaceIds>(files.file("interfaces"));
    }
    /// How often the store was written. Each write makes another file.
    bool isWrittenSince(ino_t& last) const {
        struct stat status {};
        EXPECT_EQ(::stat(files.file("interfaces").c_str(), &status), 0);
        return std::exchange(last, status.st_ino) != status.st_ino;
    }

    const tk::testing::Folder files;
    const tk::testing::CapturedOutput output;
    tk::testing::TestLoop loop;
    std::unique_ptr<InterfaceIds> ids = std::make_unique<InterfaceIds>(files.file("interfaces"));
};

TEST_F(InterfaceIdsTest, GoFromOneUpAndStayWithTheirNames) {
    EXPECT_EQ(ids->idOf("lan0"), 1U);
    EXPECT_EQ(ids->idOf("wan0"), 2U);
    EXPECT_EQ(ids->idOf("lan0"), 1U);
}

TEST_F(InterfaceIdsTest, SurviveARestart) {
    EXPECT_EQ(ids->idOf("lan0"), 1U);
    EXPECT_EQ(ids->idOf("ppp0"), 2U);
    restart();
    EXPECT_EQ(ids->idOf("wan0"), 3U);
    EXPECT_EQ(ids->idOf("ppp0"), 2U);
}

TEST_F(InterfaceIdsTest, SurviveACrashASecondAfterTheyWereGiven) {
    EXPECT_EQ(ids->idOf("lan0"), 1U);
    EXPECT_EQ(ids->idOf("ppp0"), 2U);
    loop.advance(InterfaceIds::storeTicks);
    crash();
    EXPECT_EQ(ids->idOf("ppp0"), 2U);
    EXPECT_EQ(ids->idOf("lan0"), 1U);
}

TEST_F(InterfaceIdsTest, OneThatWasGivenButNotStoredNeverGoesToAnotherName) {
    for (const char* name : {"veth1", "veth2", "veth3"}) EXPECT_LE(ids->idOf(name), 3U);
    loop.advance(InterfaceIds::storeTicks - 1);
    crash();
    EXPECT_GT(ids->idOf("veth9"), 3U);
    EXPECT_GT(ids->idOf("veth1"), 3U) << "it is a new name now";
    const std::uint32_t last = ids->idOf("veth2");
    crash();
    EXPECT_GT(ids->idOf("veth5"), last);
}

TEST_F(InterfaceIdsTest, ManyNewNamesAreStoredTogether) {
    ino_t file = 0;
    EXPECT_EQ(ids->idOf("lan0"), 1U);
    loop.advance(InterfaceIds::storeTicks);
    EXPECT_TRUE(isWrittenSince(file));
    for (int i = 0; i < 200; ++i) EXPECT_NE(ids->idOf("veth" + std::to_string(i)), 0U);
    loop.advance(InterfaceIds::storeTicks - 1);
    EXPECT_FALSE(isWrittenSince(file));
    loop.advance(1);
    EXPECT_TRUE(isWrittenSince(file));
    loop.advance(10 * InterfaceIds::storeTicks);
    EXPECT_FALSE(isWrittenSince(file));
}

TEST_F(InterfaceIdsTest, MoreNamesThanIdsReservedAtOnceAllGetIds) {
    std::set<std::uint32_t> given;
    for (std::uint32_t i = 0; i < 3 * InterfaceIds::reservedAtOnce; ++i)
        given.insert(ids->idOf("veth" + std::to_string(i)));
    EXPECT_EQ(given.size(), 3 * InterfaceIds::reservedAtOnce);
    crash();
    EXPECT_GT(ids->idOf("lan0"), *given.rbegin());
}

TEST(InterfaceIds, WorkWithoutAStore) {
    const tk::testing::Folder files;
    const tk::testing::CapturedOutput output;
    const tk::testing::TestLoop loop;
    files.write("file", "");
    InterfaceIds ids(files.file("file/interfaces"));
    EXPECT_EQ(ids.idOf("lan0"), 1U);
    EXPECT_EQ(ids.idOf("wan0"), 2U);
    EXPECT_EQ(ids.idOf("lan0"), 1U);
}

constexpr std::uint32_t usualIds = 1U << 24;  // random ids lie beyond them

TEST(InterfaceIds, NoFormerIdIsGivenAgainWhenTheStoreIsDamaged) {
    const tk::testing::Folder files;
    const tk::testing::CapturedOutput output;
    const tk::testing::TestLoop loop;
    {
        InterfaceIds ids(files.file("interfaces"));
        EXPECT_EQ(ids.idOf("lan0"), 1U);
        EXPECT_EQ(ids.idOf("wan0"), 2U);
    }
    files.write("interfaces", "half a file");
    (void)InterfaceIds(files.file("interfaces"));  // a router that ends before it has seen an interface
    std::uint32_t fresh = 0;
    {
        InterfaceIds ids(files.file("interfaces"));
        fresh = ids.idOf("wan0");
        EXPECT_GT(fresh, usualIds);
        EXPECT_EQ(ids.idOf("lan0"), fresh + 1);
    }
    InterfaceIds ids(files.file("interfaces"));
    EXPECT_EQ(ids.idOf("wan0"), fresh);
    EXPECT_EQ(ids.idOf("ppp0"), fresh + 2);
}

/// Keeps stores in a folder from being written while it exists.
class InTheWay {
public:
    explicit InTheWay(const tk::testing::Folder& files) : path(files.file("interfaces.new")) {
        std::filesystem::create_directory(path);
        files.write("interfaces.new/in-the-way", "");
    }
    ~InTheWay() { std::filesystem::remove_all(path); }

private:
    const std::string path;
};

TEST_F(InterfaceIdsTest, OneThatCannotBeReservedIsNotTheNextInLine) {
    EXPECT_EQ(ids->idOf("lan0"), 1U);
    restart();
    {
        const InTheWay obstacle(files);
        EXPECT_GT(ids->idOf("wan0"), usualIds);
    }
    EXPECT_EQ(ids->idOf("ppp0"), 2U);
}

TEST_F(InterfaceIdsTest, NamesThatCannotBeStoredAreStoredAMinuteLater) {
    EXPECT_EQ(ids->idOf("lan0"), 1U);
    {
        const InTheWay obstacle(files);
        loop.advance(InterfaceIds::storeTicks);
    }
    loop.advance(6000);
    crash();
    EXPECT_EQ(ids->idOf("lan0"), 1U);
}

/// Remembers three names.
class ForgottenIds : public ::testing::Test {
protected:
    void SetUp() override {
        start();
        EXPECT_EQ(ids->idOf("ppp1"), 1U);
        EXPECT_EQ(ids->idOf("lan0"), 2U);
        EXPECT_EQ(ids->idOf("ppp3"), 3U);
    }
    void start() {
        ids.reset();  // what it has to store comes first
        ids = std::make_unique<InterfaceIds>(files.file("interfaces"), 3);
    }
    void forget() {
        ids->forgetSurplus([this](std::uint32_t id) { return present.contains(id); });
    }

    const tk::testing::Folder files;
    const tk::testing::TestLoop loop{};
    std::unique_ptr<InterfaceIds> ids;
    std::set<std::uint32_t> present;
};

TEST_F(ForgottenIds, NoNameIsForgottenWithinTheLimit) {
    forget();
    EXPECT_EQ(ids->idOf("ppp1"), 1U);
    EXPECT_EQ(ids->idOf("ppp3"), 3U);
}

TEST_F(ForgottenIds, TheAbsentNameWithTheLowestIdIsForgottenAndGetsANewOne) {
    present = {2, 4};
    EXPECT_EQ(ids->idOf("ppp4"), 4U);
    forget();
    EXPECT_EQ(ids->idOf("lan0"), 2U);
    EXPECT_EQ(ids->idOf("ppp3"), 3U);
    EXPECT_EQ(ids->idOf("ppp1"), 5U);
    forget();
    EXPECT_EQ(ids->idOf("lan0"), 2U);
    EXPECT_EQ(ids->idOf("ppp4"), 4U);
    EXPECT_EQ(ids->idOf("ppp3"), 6U);
}

TEST_F(ForgottenIds, AForgottenNameGetsANewIdAfterARestartToo) {
    present = {2, 4};
    EXPECT_EQ(ids->idOf("ppp4"), 4U);
    forget();
    start();
    EXPECT_EQ(ids->idOf("ppp1"), 5U);
    EXPECT_EQ(ids->idOf("lan0"), 2U);
    EXPECT_EQ(ids->idOf("ppp3"), 3U);
}

TEST_F(ForgottenIds, APresentInterfaceIsNeverForgotten) {
    present = {1, 2, 3, 4, 5};
    EXPECT_EQ(ids->idOf("ppp4"), 4U);
    EXPECT_EQ(ids->idOf("ppp5"), 5U);
    forget();
    EXPECT_EQ(ids->idOf("ppp1"), 1U);
    EXPECT_EQ(ids->idOf("ppp3"), 3U);
}

TEST_F(ForgottenIds, TheLastIdIsNotGivenAgainThoughItsInterfaceIsAbsent) {
    present = {1, 2, 3};
    EXPECT_EQ(ids->idOf("ppp4"), 4U);
    forget();
    start();
    EXPECT_EQ(ids->idOf("ppp5"), 5U);
}

}  // namespace
}  // namespace links
