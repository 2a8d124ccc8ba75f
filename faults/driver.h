#pragma once

#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "faults/injection.h"

namespace faults {

/// What a scenario's steps led to, in order: replies, states. An empty text stands for nothing at all.
using Outcome = std::vector<std::string>;

/// Everything that a scenario needs, made anew for each run of it.
class World {
public:
    virtual ~World() = default;

    /// Runs the scenario. The tested program's own code runs while an InProgram exists.
    virtual Outcome act() = 0;
    /// What contradicts itself in the world now; empty when nothing does. Called after a fault.
    virtual std::string contradiction() { return {}; }
    /// Does what an administrator, a peer or the passing of time does once the fault is over. After that the scenario
    /// must succeed again.
    virtual void recover() {}
};

/// Makes a world in which nothing has happened yet.
using Maker = std::function<std::unique_ptr<World>()>;
/// True when a step may end in `actual` where it ends in `whole` without a fault. Nothing, and the whole, always may.
using Judge = std::function<bool(const std::string& actual, const std::string& whole)>;
/// Takes nothing else.
inline bool allOrNothing(const std::string&, const std::string&) {
    return false;
}

/// How a scenario that takes long, or whose calls depend on the kernel's pace, is run. A value.
struct Extent {
    unsigned every = 1;            // of so many calls of a kind one fails, unless FAULTS=all
    unsigned everyAllocation = 1;  // the same of allocations alone
    std::vector<Call> paced{};     // by the kernel: one that was counted may not come again
    std::vector<Call> fatal{};     // are left out: a process that cannot make them ends
};

/// True when the environment says FAULTS=all: every call is to fail in every way, however long that takes.
bool areAllWanted();

/// Runs the scenario once to count its calls, and then again, each time in a new world, for each of them and for its
/// outcomes: one of them in turn, or all when the environment says FAULTS=all. Fails the test when a step ends in what
/// it may not end in, the world contradicts itself, does not recover, or keeps a descriptor, or when a call does not
/// come again that the kernel does not pace, or more than one in ten of all.
void failEveryCall(const Maker& makeWorld, const Judge& mayEndIn = allOrNothing, const Extent& extent = {});

}  // namespace faults
