// The power fails at each moment of a change to a store: the next start finds the old content or the new.
#include <stdio.h>

#include <filesystem>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "faults/disk.h"
#include "faults/entries.h"
#include "tk/store.h"
#include "tk/testing/capturedoutput.h"
#include "tk/testing/folder.h"

namespace faults {

namespace {

using tk::testing::Folder;

const std::string storePath = "store/file";

/// The disk of a router whose store holds these entries.
Image diskWith(const Entries& entries) {
    const Folder folder;
    EXPECT_TRUE(tk::Store(folder.file(storePath), revision).replace(entries).isOk());
    return {{storePath, folder.read(storePath)}};
}

void write(const Folder& folder, const Image& image) {
    for (const auto& [path, content] : image) {
        std::filesystem::create_directories(std::filesystem::path(folder.file(path)).parent_path());
        folder.write(path, content);
    }
}

/// What the power cut is to leave on the disk, and the start after it to find.
using Judge =
    std::function<void(const Image& left, const tk::Store& store, const std::string& logged, bool isOver)>;

/// Lets the power fail after each change that `act` makes to a disk, and starts again with each state it may have left.
void cutPower(const Image& before, const std::function<void(tk::Store&)>& act, const Judge& judge) {
    const Folder folder;
    write(folder, before);
    const std::vector<Change> changes = record(folder.path, [&] {
        tk::Store store(folder.file(storePath), revision);
        act(store);
    });
    Disk disk(before);
    int states = 0;
    for (std::size_t made = 0;; ++made) {
        SCOPED_TRACE("after " + std::to_string(made) + " of " + std::to_string(changes.size()) + " changes");
        for (const Image& image : disk.afterPowerCut()) {
            const Folder afterwards;
            write(afterwards, image);
            const tk::testing::CapturedOutput output;
            const tk::Store store(afterwards.file(storePath), revision);
            judge(image, store, output.text(), made == changes.size());
            ++states;
        }
        if (made == changes.size()) break;
        disk.make(changes[made]);
    }
    ::printf("%zu changes, %d states of the disk\n", changes.size(), states);
}

/// The same for a change of a sound store. Once it is over, only the new content will do.
void cutPowerDuring(const Image& disk, const Entries& before, const Entries& after,
                    const std::function<tk::Status(tk::Store&)>& change) {
    const auto act = [&](tk::Store& store) {
        EXPECT_TRUE(change(store).isOk());
        EXPECT_EQ(store.all(), after);
    };
    cutPower(disk, act, [&](const Image&, const tk::Store& store, const std::string& logged, bool isOver) {
        EXPECT_EQ(logged, "");
        if (isOver || store.all() != before) {
            EXPECT_EQ(store.all(), after);
        }
    });
}

const Entries former{{1, text("a")}, {2, text("b")}};

TEST(PowerCut, LeavesTheOldEntryOrTheNew) {
    const Entries after{{1, text("a")}, {2, text("another, longer than the first")}};
    cutPowerDuring(diskWith(former), former, after,
                   [&](tk::Store& store) { return store.set(2, after.at(2)); });
}

TEST(PowerCut, LeavesAllOfAReplacementOrNothing) {
    const Entries after{{7, text("x")}, {8, text("y")}};
    cutPowerDuring(diskWith(former), former, after, [&](tk::Store& store) { return store.replace(after); });
}

TEST(PowerCut, LeavesAnEntryOrItsRemoval) {
    cutPowerDuring(diskWith(former), former, {{2, text("b")}},
                   [](tk::Store& store) { return store.remove(1); });
}

TEST(PowerCut, LeavesTheFirstEntryOrNone) {
    const Entries after{{1, text("a")}};
    cutPowerDuring({}, {}, after, [&](tk::Store& store) { return store.set(1, after.at(1)); });
}

TEST(PowerCut, LeavesOneOfThreeContentsDuringTwoChanges) {
    const Entries between{{1, text("a")}, {2, text("b")}, {3, text("c")}};
    const Entries after{{1, text("a")}, {3, text("c")}};
    const auto act = [](tk::Store& store) {
        EXPECT_TRUE(store.set(3, text("c")).isOk());
        EXPECT_TRUE(store.remove(2).isOk());
    };
    cutPower(diskWith(former), act,
             [&](const Image&, const tk::Store& store, const std::string& logged, bool isOver) {
                 EXPECT_EQ(logged, "");
                 if (isOver || (store.all() != former && store.all() != between)) {
                     EXPECT_EQ(store.all(), after);
                 }
             });
}

TEST(PowerCut, LeavesTheOldContentOfAStagedChangeThatIsNotCommitted) {
    const auto act = [](tk::Store& store) { EXPECT_TRUE(store.stage(3, text("c")).isOk()); };
    cutPower(diskWith(former), act,
             [](const Image&, const tk::Store& store, const std::string& logged, bool) {
                 EXPECT_EQ(logged, "");
                 EXPECT_EQ(store.all(), former);
             });
}

TEST(PowerCut, LeavesTheOldContentOfAChangeThatIsDiscarded) {
    const auto act = [](tk::Store& store) {
        EXPECT_TRUE(store.stageRemoval(1).isOk());
        store.discard();
    };
    cutPower(diskWith(former), act,
             [](const Image&, const tk::Store& store, const std::string& logged, bool) {
                 EXPECT_EQ(logged, "");
                 EXPECT_EQ(store.all(), former);
             });
}

TEST(PowerCut, LosesNoDamagedFileThatIsKeptAside) {
    const Image damaged{{storePath, "damaged"}};
    const auto act = [](tk::Store& store) { EXPECT_TRUE(store.set(1, text("new")).isOk()); };
    const Entries after{{1, text("new")}};
    cutPower(
        damaged, act, [&](const Image& left, const tk::Store& store, const std::string& logged, bool isOver) {
            EXPECT_THAT(left, ::testing::Contains(::testing::Pair(::testing::_, "damaged")));
            if (isOver || !store.all().empty()) {
                EXPECT_EQ(store.all(), after);
            }
            if (store.all().empty()) {
                EXPECT_TRUE(store.hasLostContent());
            }
            EXPECT_THAT(logged,
                        ::testing::AnyOf("", ::testing::HasSubstr("damaged, or of another kind; kept as ")));
        });
}

TEST(Disk, HasAFileThatWasNotSyncedInAnyStateUnderItsNameOrNot) {
    Disk disk({});
    disk.make({Change::Kind::create, "a", "", "", 1});
    disk.make({Change::Kind::write, "a", "", "xy", 1});
    const std::set<Image> all{{}, {{"a", ""}}, {{"a", "x"}}, {{"a", "xy"}}, {{"a", std::string(2, '\0')}}};
    EXPECT_EQ(disk.afterPowerCut(), all);
    disk.make({Change::Kind::syncFile, "a", "", "", 1});
    EXPECT_EQ(disk.afterPowerCut(), (std::set<Image>{{}, {{"a", "xy"}}}));
    disk.make({Change::Kind::syncFolder, "", "", "", 0});
    EXPECT_EQ(disk.afterPowerCut(), (std::set<Image>{{{"a", "xy"}}}));
}

TEST(Disk, LosesWhatLiesInALostFolder) {
    Disk disk({});
    disk.make({Change::Kind::makeFolder, "f", "", "", 0});
    disk.make({Change::Kind::create, "f/a", "", "", 1});
    disk.make({Change::Kind::syncFolder, "f", "", "", 0});
    EXPECT_EQ(disk.afterPowerCut(), (std::set<Image>{{}, {{"f/a", ""}}}));
}

TEST(Disk, HasARenamedFileUnderEitherName) {
    Disk disk({{"a", "1"}, {"b", "2"}});
    disk.make({Change::Kind::rename, "b", "a", "", 0});
    EXPECT_EQ(disk.afterPowerCut(), (std::set<Image>{{{"a", "1"}, {"b", "2"}}, {{"a", "2"}}}));
}

}  // namespace

}  // namespace faults
