#include "faults/driver.h"

#include <dirent.h>
#include <stdlib.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <map>
#include <string_view>

#include <gtest/gtest.h>

#include "faults/injection.h"

namespace faults {

namespace {

using Descriptors = std::map<int, std::string>;  // with what each is open on

std::string targetOf(int descriptor) {
    char target[256];
    const std::string link = "/proc/self/fd/" + std::to_string(descriptor);
    const ssize_t length = ::readlink(link.c_str(), target, sizeof target);
    return length < 0 ? "" : std::string(target, static_cast<std::size_t>(length));
}

Descriptors openDescriptors() {
    Descriptors open;
    DIR* folder = ::opendir("/proc/self/fd");
    while (const dirent* entry = ::readdir(folder)) {
        const int descriptor = static_cast<int>(::strtol(entry->d_name, nullptr, 10));
        if (entry->d_name[0] != '.' && descriptor != ::dirfd(folder)) open[descriptor] = targetOf(descriptor);
    }
    ::closedir(folder);
    return open;
}

void compare(const Judge& mayEndIn, const Outcome& actual, const Outcome& whole) {
    ASSERT_EQ(actual.size(), whole.size());
    for (std::size_t step = 0; step < whole.size(); ++step) {
        const bool isFine = actual[step].empty() || actual[step] == whole[step];
        EXPECT_TRUE(isFine || mayEndIn(actual[step], whole[step])) << "step " << step + 1 << " ended in:\n"
                                                                   << actual[step] << "\nwhere it ends in:\n"
                                                                   << whole[step];
    }
}

/// What a run with a fault led to.
struct Run {
    Outcome faulty;
    Outcome recovered;
    std::string contradiction;
    bool hasStruck = false;
};

/// Reports nothing while the world exists: it may hold standard output.
Run runWith(const Fault& fault, const Maker& makeWorld) {
    Run run;
    const std::unique_ptr<World> world = makeWorld();
    begin(fault);
    run.faulty = world->act();
    (void)end();
    run.hasStruck = hasStruck();
    run.contradiction = world->contradiction();
    world->recover();
    run.recovered = world->act();
    run.contradiction += world->contradiction();
    return run;
}

/// One run with one fault. True when the fault came to pass.
bool endure(const Fault& fault, const Maker& makeWorld, const Judge& mayEndIn, const Outcome& whole) {
    SCOPED_TRACE(fault.toString());
    const Descriptors before = openDescriptors();
    const Run run = runWith(fault, makeWorld);
    EXPECT_EQ(openDescriptors(), before);
    compare(mayEndIn, run.faulty, whole);
    EXPECT_EQ(run.contradiction, "");
    EXPECT_EQ(run.recovered, whole) << "when the fault is over";
    return run.hasStruck;
}

std::vector<int> outcomesToTry(Call call, std::uint32_t number, const Extent& extent) {
    if (std::find(extent.fatal.begin(), extent.fatal.end(), call) != extent.fatal.end()) return {};
    const std::span<const int> all = outcomesOf(call);
    const char* wanted = ::getenv("FAULTS");
    if (wanted && std::string_view(wanted) == "all") return {all.begin(), all.end()};
    if ((number - 1) % extent.every != 0) return {};
    return {all[(number - 1) % all.size()]};
}

}  // namespace

void failEveryCall(const Maker& makeWorld, const Judge& mayEndIn, const Extent& extent) {
    (void)makeWorld()->act();  // what is made only once in a process is made now
    std::unique_ptr<World> first = makeWorld();
    begin();
    const Outcome whole = first->act();
    const Counts counts = end();
    const std::string contradiction = first->contradiction();
    first.reset();
    EXPECT_EQ(contradiction, "");
    unsigned calls = 0, faults = 0, missed = 0;
    for (std::size_t kind = 0; kind < callCount; ++kind) {
        const auto call = static_cast<Call>(kind);
        calls += counts[kind];
        for (std::uint32_t number = 1; number <= counts[kind]; ++number)
            for (const int outcome : outcomesToTry(call, number, extent))
                ++(endure({call, number, outcome}, makeWorld, mayEndIn, whole) ? faults : missed);
    }
    EXPECT_GT(faults, 0U);
    if (extent.repeatsExactly) {
        EXPECT_EQ(missed, 0U) << "calls that did not come again";
    }
    std::printf("%u calls, %u faults injected, %u missed\n", calls, faults, missed);
    testing::Test::RecordProperty("calls", std::to_string(calls));
    testing::Test::RecordProperty("faults", std::to_string(faults));
}

}  // namespace faults
