// The run finders against the plain reference search on the group bitmap at 10, 50 and 90 %
// occupancy: representative members of each tier, the block level and the generic finder.
#include <benchmark/benchmark.h>

#include <random>
#include <string>
#include <vector>

#include "runs/run_finder_table.h"
#include "state/heap_state.h"
#include "support/reference_run_search.h"

namespace {

using namespace tarnheap;

constexpr uint64_t GENERIC_LENGTH = 40000;

// Alternating busy and free stretches of widely spread lengths, in the ratio of the occupancy.
std::vector<uint8_t> occupied_bitmap(unsigned percent) {
    std::vector<uint8_t> bytes(GROUP_BITMAP_BYTES, 0);
    std::mt19937_64 rng(percent);
    auto stretch = [&rng](unsigned share) {
        uint64_t base = 1 + rng() % (uint64_t{1} << (rng() % 12));
        return base * share / 50;
    };
    for (uint64_t bit = 0; bit < GROUP_COUNT;) {
        for (uint64_t end = std::min<uint64_t>(GROUP_COUNT, bit + stretch(percent)); bit < end;
             ++bit)
            bytes[bit / 8] |= uint8_t(1u << (bit % 8));
        bit += stretch(100 - percent);
    }
    return bytes;
}

void run_search(benchmark::State& bench, unsigned slot, bool reference) {
    run_finder_slot table[RUN_FINDER_SLOTS];
    build_run_finder_table(table);
    std::vector<uint8_t> bitmap = occupied_bitmap(unsigned(bench.range(0)));
    // The mark at the limit: every claim is a hole and the state stays put once it is undone.
    run_search_state state{};
    state.high_water = GROUP_COUNT;
    testing::reference_member member = slot == GENERIC_SLOT
                                           ? testing::reference_generic_member(GENERIC_LENGTH)
                                           : testing::reference_member_for_slot(slot);
    uint64_t found = 0;
    for (auto _ : bench) {
        uint64_t length = GENERIC_LENGTH;
        int64_t first =
            reference ? testing::reference_find(bitmap.data(), bitmap.size() * 8, GROUP_COUNT,
                                                state, member)
            : slot == GENERIC_SLOT
                ? table[GENERIC_SLOT].generic(bitmap.data(), GROUP_COUNT, &length, &state)
                : table[slot].fixed(bitmap.data(), GROUP_COUNT, &state);
        benchmark::DoNotOptimize(first);
        if (first >= 0) {
            release_run(bitmap.data(), &state, uint64_t(first), member.length);
            ++found;
        }
    }
    bench.counters["found"] = benchmark::Counter(double(found), benchmark::Counter::kAvgIterations);
}

struct measured_member {
    const char* tier;
    unsigned slot;
};

constexpr measured_member MEMBERS[] = {
    {"bits", 2},
    {"bits", 17},
    {"bits", 45},
    {"bits", 63},
    {"bytes", 72},
    {"bytes", 94},
    {"bytes", 127},
    {"words", 136},
    {"words", 140},
    {"words", 191},
    {"blocks", 200},
    {"blocks", 256},
    {"generic", GENERIC_SLOT},
};

}  // namespace

int main(int argc, char** argv) {
    for (const measured_member& m : MEMBERS) {
        for (bool reference : {false, true}) {
            std::string name = std::string(m.tier) + "/slot" + std::to_string(m.slot) +
                               (reference ? "/reference" : "/finder");
            benchmark::RegisterBenchmark(name.c_str(), run_search, m.slot, reference)
                ->Arg(10)
                ->Arg(50)
                ->Arg(90)
                ->MinTime(0.05);
        }
    }
    benchmark::Initialize(&argc, argv);
    benchmark::RunSpecifiedBenchmarks();
    benchmark::Shutdown();
}
