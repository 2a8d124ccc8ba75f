#include "faults/driver.h"

#include <dirent.h>
#ifdef FAULTS_SANITIZED
#include <sanitizer/common_interface_defs.h>
#endif
#include <signal.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
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

/// What became of a fault: it came to pass, its call did not come, or had nothing to shorten.
enum class Fate { injected, missed, spared };

/// What a run with a fault led to.
struct Run {
    Outcome faulty;
    Outcome recovered;
    std::string contradiction;
    Fate fate = Fate::missed;
};

/// Reports nothing while the world exists: it may hold standard output.
Run runWith(const Fault& fault, const Maker& makeWorld) {
    Run run;
    const std::unique_ptr<World> world = makeWorld();
    begin(fault);
    run.faulty = world->act();
    (void)end();
    if (hasStruck()) run.fate = Fate::injected;
    if (hasSpared()) run.fate = Fate::spared;
    run.contradiction = world->contradiction();
    world->recover();
    run.recovered = world->act();
    run.contradiction += world->contradiction();
    return run;
}

char faultOfThisRun[64];  // and a line's end; empty between runs

/// Names the fault when the process ends of it, which then goes on to end.
void nameFault(int) {
    (void)end();  // what is written here is no call of the program's
    (void)!::write(STDERR_FILENO, faultOfThisRun, ::strlen(faultOfThisRun));
}

/// A sanitizer handles what its own report is about, and ends the process without a signal.
void nameFaultOfACrash() {
    struct sigaction action {};
    action.sa_handler = nameFault;
    action.sa_flags = static_cast<int>(SA_RESETHAND);
    (void)::sigaction(SIGABRT, &action, nullptr);
#ifdef FAULTS_SANITIZED
    __sanitizer_set_death_callback([] { nameFault(0); });
#else
    (void)::sigaction(SIGSEGV, &action, nullptr);
#endif
}

/// One run with one fault.
Fate endure(const Fault& fault, const Maker& makeWorld, const Judge& mayEndIn, const Outcome& whole) {
    SCOPED_TRACE(fault.toString());
    const Descriptors before = openDescriptors();
    (void)::snprintf(faultOfThisRun, sizeof faultOfThisRun, "%s\n", fault.toString().c_str());
    const Run run = runWith(fault, makeWorld);
    faultOfThisRun[0] = '\0';
    EXPECT_EQ(openDescriptors(), before);
    compare(mayEndIn, run.faulty, whole);
    EXPECT_EQ(run.contradiction, "");
    EXPECT_EQ(run.recovered, whole) << "when the fault is over";
    return run.fate;
}

bool isOneOf(const std::vector<Call>& calls, Call call) {
    return std::find(calls.begin(), calls.end(), call) != calls.end();
}

/// True when a process that cannot make the call ends, so that there is nothing to compare.
bool isFatal(Call call, const Extent& extent) {
    return call == Call::allocateObject || isOneOf(extent.fatal, call);
}

/// The outcomes to try of a call that is made `count` times, the first of them another for each number that is
/// tried. Where one of several calls is tried, kinds begin with other numbers and other outcomes.
std::vector<int> outcomesToTry(Call call, std::uint32_t number, std::uint32_t count, const Extent& extent) {
    const std::uint32_t sampled = call == Call::allocate ? extent.everyAllocation : extent.every;
    const std::uint32_t every = areAllWanted() ? 1 : sampled;
    const std::uint32_t first = static_cast<std::uint32_t>(call) % std::min(every, count);
    if ((number - 1) % every != first) return {};
    const std::span<const int> all = outcomesOf(call);
    std::vector<int> turned(all.begin(), all.end());
    const auto turns = static_cast<std::ptrdiff_t>(((number - 1) / every + first) % all.size());
    std::rotate(turned.begin(), turned.begin() + turns, turned.end());
    return turned;
}

/// How many faults had each fate, and which were missed.
struct Tally {
    unsigned injected = 0;
    std::vector<Fault> missed;

    /// True when one fault of this call is enough, and this was one.
    bool add(const Fault& fault, Fate fate) {
        if (fate == Fate::injected) ++injected;
        if (fate == Fate::missed) missed.push_back(fault);
        return fate != Fate::spared && !areAllWanted();
    }
    void judge(const Extent& extent) const {
        constexpr std::size_t share = 10;  // of so many faults one may be missed
        EXPECT_GT(injected, 0U);
        EXPECT_LE(missed.size() * share, injected) << "too few calls came again";
        for (const Fault& fault : missed) {
            std::printf("missed: %s\n", fault.toString().c_str());
            EXPECT_TRUE(isOneOf(extent.paced, fault.call)) << fault.toString() << ": did not come again";
        }
    }
};

}  // namespace

bool areAllWanted() {
    const char* wanted = ::getenv("FAULTS");
    return wanted && std::string_view(wanted) == "all";
}

void failEveryCall(const Maker& makeWorld, const Judge& mayEndIn, const Extent& extent) {
    nameFaultOfACrash();
    (void)makeWorld()->act();  // what is made only once in a process is made now
    std::unique_ptr<World> first = makeWorld();
    begin();
    const Outcome whole = first->act();
    const Counts counts = end();
    const std::string contradiction = first->contradiction();
    first.reset();
    EXPECT_EQ(contradiction, "");
    unsigned calls = 0;
    Tally tally;
    for (std::size_t kind = 0; kind < callCount; ++kind) {
        const auto call = static_cast<Call>(kind);
        if (isFatal(call, extent)) continue;
        calls += counts[kind];
        for (std::uint32_t number = 1; number <= counts[kind]; ++number)
            for (const int outcome : outcomesToTry(call, number, counts[kind], extent)) {
                const Fault fault{call, number, outcome};
                if (tally.add(fault, endure(fault, makeWorld, mayEndIn, whole))) break;
            }
    }
    std::printf("%u calls, %u faults injected, %zu missed\n", calls, tally.injected, tally.missed.size());
    tally.judge(extent);
    testing::Test::RecordProperty("calls", std::to_string(calls));
    testing::Test::RecordProperty("faults", std::to_string(tally.injected));
}

}  // namespace faults
