#include "machine/tool.h"

#include <errno.h>
#include <signal.h>
#include <stdlib.h>
#include <sys/wait.h>

#include <chrono>

#include <gtest/gtest.h>

namespace machine {
namespace {

tk::Result<ToolEnd> runScript(const std::string& script, const ToolLimits& limits = {}) {
    return runTool({"sh", "-c", script}, limits);
}

TEST(Tool, GivesItsOutputErrorsAndStatus) {
    const auto end = runScript("echo out; echo err >&2; exit 3");
    ASSERT_TRUE(end.isOk()) << end.reason();
    EXPECT_EQ(end->output, "out\n");
    EXPECT_EQ(end->errors, "err\n");
    EXPECT_EQ(end->status, 3);
    EXPECT_FALSE(end->isOk());
}

TEST(Tool, GetsItsArgumentsAsTheyAre) {
    EXPECT_EQ(*outputOf({"printf", "%s.", "a b", "$HOME", "", "`id`"}), "a b.$HOME..`id`.");
}

TEST(Tool, HasNoInputAndAPlainEnvironment) {
    ::setenv("SECRET", "1", 1);
    EXPECT_EQ(*outputOf({"sh", "-c", "cat; echo $LC_ALL $SECRET; pwd"}), "C\n/\n");
}

TEST(Tool, MoreOutputThanAPipeHoldsArrivesWhole) {
    const auto end = runScript("head -c 300000 /dev/zero; head -c 200000 /dev/zero >&2");
    ASSERT_TRUE(end.isOk()) << end.reason();
    EXPECT_EQ(end->output.size(), 300000U);
    EXPECT_EQ(end->errors.size(), 200000U);
}

TEST(Tool, AnAbsentToolIsSaidToBeAbsent) {
    const auto end = outputOf({"no-such-tool"});
    EXPECT_EQ(end.status(), tk::Status::failure("no-such-tool is not installed", ENOENT));
    EXPECT_EQ(runTool({"/no/such/tool"}).status().code(), static_cast<std::uint32_t>(ENOENT));
    EXPECT_EQ(findTool("no-such-tool"), "");
}

TEST(Tool, TheCallersPathIsNotSearched) {
    const char* path = ::getenv("PATH");
    ASSERT_NE(path, nullptr);
    const std::string before = path;
    ::setenv("PATH", "/nowhere", 1);
    EXPECT_EQ(*outputOf({"echo", "found"}), "found\n");
    ::setenv("PATH", before.c_str(), 1);
}

TEST(Tool, OneThatCameWithThisProgramIsFoundBesideIt) {
    EXPECT_TRUE(findBeside("machine_test").ends_with("/test/machine_test"));
    EXPECT_EQ(findBeside("sh"), findTool("sh"));
}

TEST(Tool, ItsFirstLineOfErrorsIsTheReasonOfAFailure) {
    EXPECT_EQ(outputOf({"sh", "-c", "echo first >&2; echo second >&2; exit 1"}).reason(), "sh: first");
    EXPECT_EQ(outputOf({"sh", "-c", "exit 4"}).reason(), "sh: ended with status 4");
    EXPECT_EQ(outputOf({"sh", "-c", "kill -TERM $$"}).reason(), "sh: ended with status 143");
}

TEST(Tool, OneThatTakesTooLongIsKilledWithAllThatItStarted) {
    const auto begun = std::chrono::steady_clock::now();
    const auto end = runScript("sleep 60 & sleep 60", {.milliseconds = 100});
    EXPECT_EQ(end.status(), tk::Status::failure("sh: took too long", ETIMEDOUT));
    EXPECT_LT(std::chrono::steady_clock::now() - begun, std::chrono::seconds(10));
    EXPECT_EQ(::waitpid(-1, nullptr, WNOHANG), -1) << "nothing is left to reap";
    EXPECT_EQ(errno, ECHILD);
}

TEST(Tool, OneThatWritesTooMuchIsKilled) {
    EXPECT_EQ(runTool({"cat", "/dev/zero"}, {.bytes = 100000}).status(),
              tk::Status::failure("cat: wrote too much", EFBIG));
}

TEST(Tool, WhatItLeavesInTheBackgroundIsNotWaitedFor) {
    const auto begun = std::chrono::steady_clock::now();
    const auto end = runScript("sleep 20 & echo $!");
    ASSERT_TRUE(end.isOk()) << end.reason();
    EXPECT_LT(std::chrono::steady_clock::now() - begun, std::chrono::seconds(10));
    ::kill(std::stoi(end->output), SIGKILL);
}

TEST(StartLine, StartsAProgramThatWritesToTheLogOfItsName) {
    EXPECT_EQ(startLine("/opt/sbin/routerd", "--config /a"),
              "setsid /opt/sbin/routerd --config /a </dev/null >>/var/log/routerd.log 2>&1 &");
    EXPECT_EQ(startLine("upnpd"), "setsid upnpd </dev/null >>/var/log/upnpd.log 2>&1 &");
}

}  // namespace
}  // namespace machine
