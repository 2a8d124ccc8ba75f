#include "tk/privileges.h"

#include <sys/wait.h>
#include <unistd.h>

#include <fstream>
#include <string>

#include <gtest/gtest.h>

namespace tk {
namespace {

/// The value of a line of /proc/self/status.
std::string status(const std::string& key) {
    std::ifstream file("/proc/self/status");
    for (std::string line; std::getline(file, line);)
        if (line.starts_with(key + ":\t")) return line.substr(key.size() + 2);
    return {};
}

bool dropsThem() {
    std::string reason;
    const std::string none = "0000000000000000";
    return dropCapabilities(reason) && status("CapInh") == none && status("CapPrm") == none &&
           status("CapEff") == none && status("CapAmb") == none && status("NoNewPrivs") == "1";
}

TEST(DropCapabilities, LeavesNoneAndNoWayToGetOne) {
    const pid_t child = ::fork();  // the other tests keep theirs
    ASSERT_GE(child, 0);
    if (child == 0) ::_exit(dropsThem() ? 0 : 1);
    int outcome = -1;
    ASSERT_EQ(::waitpid(child, &outcome, 0), child);
    EXPECT_EQ(outcome, 0);
}

}  // namespace
}  // namespace tk
