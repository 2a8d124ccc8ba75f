#include <benchmark/benchmark.h>

#include <cstdint>
#include <string>

#include "contract/natrules.h"
#include "tk/message.h"

namespace {

const contract::NatRule rule{1, true, false, {0x016433C6, 17, 51413}, {0x020200C0, 51413}};

void writeRule(benchmark::State& state) {
    for (auto _ : state) {
        std::string flat = rule.toMessage().serialise();
        benchmark::DoNotOptimize(flat);
    }
}
BENCHMARK(writeRule);

void readRule(benchmark::State& state) {
    const std::string flat = rule.toMessage().serialise();
    for (auto _ : state) {
        contract::NatRule read = contract::NatRule::fromMessage(tk::message(flat));
        benchmark::DoNotOptimize(read);
    }
}
BENCHMARK(readRule);

}  // namespace
