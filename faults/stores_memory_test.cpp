// A store whose process gets no memory: what is left is the old content or the new.
#include <errno.h>
#include <fcntl.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdio>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "faults/entries.h"
#include "faults/injection.h"
#include "tk/fd.h"
#include "tk/store.h"
#include "tk/testing/folder.h"

namespace faults {

namespace {

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

}  // namespace

}  // namespace faults
