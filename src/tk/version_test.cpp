#include "tk/version.h"

#include <gtest/gtest.h>

#include "tk/file.h"

namespace tk {
namespace {

TEST(Version, StandsInTheFileOfTheProgram) {
    const Result<std::string> program = readFile("/proc/self/exe", std::size_t{1} << 30);
    ASSERT_TRUE(program.isOk()) << program.reason();
    const std::string mark = std::string("@(#)gateway ") + version();
    EXPECT_NE(program->find(mark + '\0'), std::string::npos);
}

TEST(Version, IsThatOfTheProject) {
    EXPECT_STREQ(version(), GATEWAY_VERSION);
}

}  // namespace
}  // namespace tk
