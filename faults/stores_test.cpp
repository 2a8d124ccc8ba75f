// A store whose file system fails: it holds what it held, or what it was to hold, and so does its file.
#include <errno.h>
#include <fcntl.h>
#include <signal.h>
#include <string.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdio>
#include <functional>
#include <map>
#include <memory>
#include <utility>
#include <vector>

#include <gtest/gtest.h>

#include "faults/driver.h"
#include "faults/injection.h"
#include "tk/fd.h"
#include "tk/store.h"
#include "tk/testing/capturedoutput.h"
#include "tk/testing/folder.h"

namespace faults {

namespace {

using Entries = std::map<std::uint32_t, tk::message>;

constexpr std::uint32_t revision = 1;

tk::message text(const std::string& value) {
    tk::message content;
    content.insert_string(1, value);
    return content;
}

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

/// Changes a store in another process, which gets no memory the `number`th time that it asks for some. Returns how
/// many changes it could report, or -1 when it ended in another way than a process without memory does.
int changeWithout(const std::string& path, const std::vector<Entries>& contents, std::uint32_t number,
                  bool& isOver) {
    int ends[2];
    EXPECT_EQ(::pipe2(ends, O_CLOEXEC), 0);
    tk::Fd told(ends[0]), tells(ends[1]);
    const pid_t child = ::fork();
    if (child == 0) {
        begin({Call::allocateObject, number, ENOMEM});
        const InProgram here;
        tk::Store store(path, revision);
        for (const Entries& content : contents)
            if (store.replace(content).isOk() && ::write(tells.get(), "x", 1) != 1) ::_exit(2);
        ::_exit(hasStruck() ? 1 : 0);
    }
    tells.reset();
    int changes = 0, status = 0;
    for (char one = 0; ::read(told.get(), &one, 1) == 1;) ++changes;
    EXPECT_EQ(::waitpid(child, &status, 0), child);
    isOver = WIFEXITED(status) && WEXITSTATUS(status) == 0;
    return isOver || (WIFSIGNALED(status) && WTERMSIG(status) == SIGABRT) ? changes : -1;
}

TEST(StoreFaults, WithoutMemoryAProcessLeavesTheOldContentOrTheNew) {
#ifdef FAULTS_SANITIZED
    GTEST_SKIP() << "the sanitizer gives the memory";
#endif
    const std::vector<Entries> contents{
        {{1, text("a")}}, {{1, text("a")}, {2, text(std::string(999, 'b'))}}, {}};
    bool isOver = false;
    std::uint32_t number = 0;
    while (!isOver && !HasFailure()) {
        const tk::testing::Folder folder;
        const std::string path = folder.file("store/file");
        ASSERT_TRUE(tk::Store(path, revision).replace(contents.back()).isOk());
        const int changes = changeWithout(path, contents, ++number, isOver);
        ASSERT_GE(changes, 0) << "operator new " << number;
        const tk::Store left(path, revision);
        EXPECT_FALSE(left.hasLostContent());
        const auto done = static_cast<std::size_t>(changes);
        const bool isBefore = left.all() == (done == 0 ? contents.back() : contents[done - 1]);
        EXPECT_TRUE(isBefore || (done < contents.size() && left.all() == contents[done]))
            << "operator new " << number;
    }
    EXPECT_GT(number, 10U) << "a store asks for memory";
    std::printf("%u allocations refused\n", number - 1);
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
