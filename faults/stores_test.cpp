// A store whose file system fails: it holds what it held, or what it was to hold, and so does its file.
#include <errno.h>
#include <string.h>

#include <functional>
#include <memory>
#include <utility>

#include <gtest/gtest.h>

#include "faults/driver.h"
#include "faults/entries.h"
#include "faults/injection.h"
#include "tk/store.h"
#include "tk/testing/capturedoutput.h"
#include "tk/testing/folder.h"

namespace faults {

namespace {

/// A store that holds one entry, and what it must hold as far as it said so.
class StoreWorld final : public World {
public:
    StoreWorld() { EXPECT_TRUE(tk::Store(path, revision).replace(model).isOk()); }

    Outcome act() override {
        outcome.clear();
        {
            const InProgram here;
            store = std::make_unique<tk::Store>(path, revision);
        }
        const bool isRead = !store->hasLostContent();
        outcome.emplace_back(isRead ? "read" : "");
        if (isRead) require("after reading");
        Entries more = model;
        more[1] = text("a");
        change(more, [this] { return store->set(1, text("a")); });
        change({{3, text("c")}, {4, text("d")}}, [this] {
            return store->replace({{3, text("c")}, {4, text("d")}});
        });
        Entries fewer = model;
        fewer.erase(3);
        change(fewer, [this] { return store->remove(3); });
        change({{9, text("z")}}, [this] { return store->replace({{9, text("z")}}); });
        return outcome;
    }
    std::string contradiction() override { return broken; }

private:
    /// Makes a change that leads to `after` unless it fails.
    void change(Entries after, const std::function<tk::Status()>& make) {
        const bool knows = !store->hasLostContent();
        tk::Status made;
        {
            const InProgram here;
            made = make();
        }
        outcome.emplace_back(made.isOk() ? "changed" : "");
        if (made.isOk()) model = knows ? std::move(after) : store->all();
        if (made.isOk() || knows)
            require(made.isOk() ? "after a change" : "after a failed change: " + made.reason());
    }
    /// The memory and the file must hold the same.
    void require(const std::string& when) {
        if (store->all() != model) broken += "the store in memory is another " + when + "\n";
        if (tk::Store(path, revision).all() != model) broken += "the file is another " + when + "\n";
    }

    tk::testing::CapturedOutput output;
    tk::testing::Folder folder;
    std::string path = folder.file("store/file");
    Entries model{{9, text("z")}};
    std::unique_ptr<tk::Store> store;
    Outcome outcome;
    std::string broken;
};

TEST(StoreFaults, LeaveTheOldContentOrTheNew) {
    failEveryCall([] { return std::make_unique<StoreWorld>(); });
}

TEST(StoreFaults, ShortOfDescriptorsOrMemoryLeaveTheFileAsItIs) {
    for (const auto& [call, error] : {std::pair(Call::open, EMFILE), std::pair(Call::open, ENFILE),
                                      std::pair(Call::open, ENOMEM), std::pair(Call::read, ENOMEM)}) {
        const tk::testing::Folder folder;
        const std::string path = folder.file("file");
        ASSERT_TRUE(tk::Store(path, revision).set(1, text("kept")).isOk());
        const tk::testing::CapturedOutput output;
        begin({call, 1, error});
        {
            const InProgram here;
            tk::Store store(path, revision);
            EXPECT_TRUE(store.hasLostContent());
            EXPECT_FALSE(store.set(2, text("new")).isOk());
        }
        (void)end();
        EXPECT_EQ(output.text(), "store " + path + ": " + ::strerror(error) +
                                     "; left as it is until the next start; no change will be stored\n");
        const tk::Store store(path, revision);
        EXPECT_FALSE(store.hasLostContent());
        EXPECT_EQ(store.get(1), text("kept"));
        EXPECT_FALSE(store.find(2));
    }
}

TEST(StoreFaults, ADamagedFileThatCannotBeKeptAsideForGoodStaysWhereItIs) {
    const tk::testing::Folder folder;
    folder.write("file", "damaged");
    const tk::testing::CapturedOutput output;
    begin({Call::open, 2, EMFILE});  // the first is of the file itself, the second of its folder, to sync it
    {
        const InProgram here;
        tk::Store store(folder.file("file"), revision);
        EXPECT_TRUE(store.hasLostContent());
        EXPECT_FALSE(store.set(1, text("new")).isOk());
    }
    (void)end();
    EXPECT_TRUE(hasStruck());
    EXPECT_EQ(folder.read("file"), "damaged");
}

TEST(StoreFaults, AnInterruptedOpeningIsTriedAgain) {
    const tk::testing::Folder folder;
    const std::string path = folder.file("file");
    ASSERT_TRUE(tk::Store(path, revision).set(1, text("kept")).isOk());
    begin({Call::open, 1, EINTR});
    {
        const InProgram here;
        EXPECT_EQ(tk::Store(path, revision).get(1), text("kept"));
    }
    EXPECT_TRUE(hasStruck());
    (void)end();
}

}  // namespace

}  // namespace faults
