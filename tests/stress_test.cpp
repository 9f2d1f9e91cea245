// The heap under long random sequences of malloc, calloc, realloc and free across every area,
// checked operation by operation by the model of tests/stress/heap_model.h and every so often
// by the heap's own audit.
//
// Each case has a fixed seed. TARNHEAP_STRESS_SEED (a number, or "random") and
// TARNHEAP_STRESS_OPS override the seed and the number of operations of every case; the seed is
// printed and a failure names it, so that any run can be replayed (all but the layout that the
// heap draws from the time-stamp counter at start-up). The build's stress_soak target runs a
// long soak with a random seed.
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <iterator>
#include <string>

#include "platform/platform.h"
#include "stress/heap_model.h"
#include "support/case_printer.h"
#include "support/fresh_heap.h"

namespace tarnheap::testing {
namespace {

using tarnheap::testing::operator<<;

// Under Wine a shorter run: each test program there is one CTest test, run alone.
#ifdef _WIN32
constexpr uint64_t SCALE_DOWN = 4;
#else
constexpr uint64_t SCALE_DOWN = 1;
#endif
constexpr uint64_t AUDIT_EVERY = 25000;

struct random_draws {
    uint64_t state;
    // splitmix64: fast, and every seed gives a full-period sequence.
    uint64_t below(uint64_t bound) {
        uint64_t z = (state += 0x9E3779B97F4A7C15);
        z = (z ^ (z >> 30)) * 0xBF58476D1CE4E5B9;
        z = (z ^ (z >> 27)) * 0x94D049BB133111EB;
        return (z ^ (z >> 31)) % bound;
    }
};

// Printed at once, so that even a crash can be replayed.
uint64_t seed_for(uint64_t seed) {
    const char* text = std::getenv("TARNHEAP_STRESS_SEED");
    if (text != nullptr && std::string(text) == "random")
        seed = static_cast<uint64_t>(std::chrono::steady_clock::now().time_since_epoch().count());
    else if (text != nullptr)
        seed = std::strtoull(text, nullptr, 0);
    std::printf("seed %llu\n", static_cast<unsigned long long>(seed));
    std::fflush(stdout);
    return seed;
}

uint64_t operations_for(uint64_t fixed) {
    const char* text = std::getenv("TARNHEAP_STRESS_OPS");
    return text != nullptr ? std::strtoull(text, nullptr, 0) : fixed / SCALE_DOWN;
}

// Tides: phases that mostly allocate, up to the live limit, and then mostly release, so that
// free-index stacks fill up and flush, and groups empty into the run cache.
constexpr uint64_t TIDE_OPERATIONS = 100000;
constexpr operation_mix FLOOD = {{502, 100, 150, 240, 6, 2}};
constexpr operation_mix EBB = {{150, 30, 100, 710, 10, 0}};

void drive(heap_model& model, random_draws& draws, mix m, uint64_t operations, bool tides = false) {
    for (uint64_t i = 1; i <= operations && !model.failed(); ++i) {
        if (tides && i % TIDE_OPERATIONS == 1)
            m.operations = i / TIDE_OPERATIONS % 2 == 0 ? FLOOD : EBB;
        model.execute(draw_operation(draws, m));
        if (i % AUDIT_EVERY == 0) model.audit();
    }
}

// A model with its draws, on a heap that must be ready.
struct stress_run {
    uint64_t seed;
    heap_model model;
    random_draws draws;
    stress_run(uint64_t fixed_seed, size_t live_limit)
        : seed(seed_for(fixed_seed)), model(seed, live_limit), draws{seed} {}
};

uint64_t reached(const heap_model& model, area a) {
    return model.counts().by_area[static_cast<unsigned>(a)];
}

constexpr mix DEFAULT_MIX = {DEFAULT_BANDS, std::size(DEFAULT_BANDS), DEFAULT_OPERATIONS};
// Small and bucket sizes only, many of them live at the flood.
constexpr size_band SMALL_AND_BUCKET_BANDS[] = {
    {1, 64, 40}, {65, 256, 30}, {257, 35328, 30}, {0, 0, 1}};
constexpr mix SMALL_AND_BUCKET_MIX = {SMALL_AND_BUCKET_BANDS, std::size(SMALL_AND_BUCKET_BANDS),
                                      DEFAULT_OPERATIONS};
// The areas a case's traffic must reach, as bits by `area`: small, bucket, run, zeroed and the
// C runtime's; small, bucket and the C runtime's.
constexpr unsigned EVERY_AREA = 0b110111, SMALL_AND_BUCKET = 0b100011;

// Every commit may report failure (it does happen, so that the blocks stay usable), and the
// platform refuse to zero the zeroed region's released blocks, which are then zeroed by hand.
uint64_t commits_reported;

void fail_commits_and_zeroing() {
    platform_seams.virtual_alloc = [](void* at, uint64_t size, uint32_t type, uint32_t protect) {
        void* got = platform_virtual_alloc(at, size, type, protect);
        if (type != MEMORY_COMMIT) return got;
        ++commits_reported;
        return static_cast<void*>(nullptr);
    };
    platform_seams.last_error = [] { return uint32_t{1455}; };
    heap_state.memory_ops_copy.zero_range = [](void*, uint64_t, uint64_t) { return 1u; };
}

uint64_t occurrences(const std::string& text, const std::string& part) {
    uint64_t count = 0;
    for (size_t at = 0; (at = text.find(part, at)) != std::string::npos; ++at) ++count;
    return count;
}

struct stress_case {
    const char* name;
    uint64_t seed;
    mix traffic;
    uint64_t operations;
    size_t live_limit;
    bool tides, failing_commits;
    unsigned areas;
};

const stress_case STRESS_CASES[] = {
    {"every_area", 20240611, DEFAULT_MIX, 1500000, 4000, false, false, EVERY_AREA},
    {"every_area_again", 7, DEFAULT_MIX, 500000, 4000, false, false, EVERY_AREA},
    {"small_and_bucket_tides", 31337, SMALL_AND_BUCKET_MIX, 1000000, 40000, true, false,
     SMALL_AND_BUCKET},
    {"every_area_on_failing_commits", 4711, DEFAULT_MIX, 300000, 4000, false, true, EVERY_AREA},
};

class stress : public fresh_heap, public ::testing::WithParamInterface<stress_case> {};

// Nothing is printed but each failed commit's two lines, once, and the traffic goes on as if
// nothing had happened.
TEST_P(stress, keeps_every_block_intact) {
    const stress_case& c = GetParam();
    start_heap();
    commits_reported = 0;
    if (c.failing_commits) fail_commits_and_zeroing();
    auto [seed, model, draws] = stress_run(c.seed, c.live_limit);
    ::testing::internal::CaptureStderr();
    drive(model, draws, c.traffic, operations_for(c.operations), c.tides);
    model.finish();
    std::string printed = ::testing::internal::GetCapturedStderr();
    ASSERT_FALSE(model.failed()) << model.failure();
    // The traffic reached its areas, and both outcomes of realloc and of a request.
    for (unsigned a = 0; a < std::size(model.counts().by_area); ++a)
        EXPECT_TRUE(reached(model, area(a)) > 0 || (c.areas >> a & 1) == 0) << "area " << a;
    EXPECT_GT(model.counts().in_place, 0u);
    EXPECT_GT(model.counts().moved, 0u);
    EXPECT_GT(model.counts().null_results, 0u);
    EXPECT_EQ(commits_reported > 2, c.failing_commits);
    EXPECT_EQ(occurrences(printed, "failed with the error: 1455\n"), commits_reported);
    EXPECT_EQ(occurrences(printed, "returned a different address"), commits_reported);
    EXPECT_EQ(occurrences(printed, "\n"), 2 * commits_reported);
}

INSTANTIATE_TEST_SUITE_P(fixed_seeds, stress, ::testing::ValuesIn(STRESS_CASES),
                         [](const auto& info) { return std::string(info.param.name); });

class stress_edges : public fresh_heap {};

// Exhaustion, in three steps: class 27 drained so that its requests overflow into the bucket
// classes; the bucket area filled with runs until the finders fail and the C runtime serves
// them; then random traffic across that boundary, with frees that make room again.
constexpr size_band LAST_CLASS_BANDS[] = {{241, 256, 1}};
constexpr size_band FILLING_BANDS[] = {{4451329, 284884992, 1}};
constexpr size_band BOUNDARY_BANDS[] = {
    {241, 256, 30}, {257, 35328, 30}, {35329, 4451328, 20}, {4451329, 284884992, 5}, {0, 0, 1}};
constexpr operation_mix ALLOCATIONS_ONLY = {{1000, 0, 0, 0, 0, 0}};
// More releases than requests: the live blocks, patterned in full up to 64 KiB, shrink.
constexpr operation_mix SHRINKING = {{300, 60, 150, 480, 10, 0}};

TEST_F(stress_edges, exhaustion_of_a_class_and_of_the_bucket_area_hands_over_and_back) {
    start_heap();
    auto [seed, model, draws] = stress_run(99, 2000000);
    ::testing::internal::CaptureStderr();
    const mix draining = {LAST_CLASS_BANDS, 1, ALLOCATIONS_ONLY};
    while (
        (heap_state.small_class[27].remaining > 0 || heap_state.small_class_head[27].depth > 0) &&
        !model.failed())
        model.execute(draw_operation(draws, draining));
    drive(model, draws, draining, 1000);
    ASSERT_GT(reached(model, area::bucket), 0u);
    while (reached(model, area::foreign) < 20 && !model.failed())
        model.execute(draw_operation(draws, mix{FILLING_BANDS, 1, ALLOCATIONS_ONLY}));
    model.audit();
    ASSERT_FALSE(model.failed()) << model.failure();
    uint64_t runs = reached(model, area::run), foreign = reached(model, area::foreign);
    drive(model, draws, {BOUNDARY_BANDS, std::size(BOUNDARY_BANDS), SHRINKING},
          operations_for(300000));
    model.finish();
    EXPECT_EQ(::testing::internal::GetCapturedStderr(), "");
    ASSERT_FALSE(model.failed()) << model.failure();
    // Runs went on to the C runtime at the boundary, and the area served again once freed.
    EXPECT_GT(reached(model, area::run), runs);
    EXPECT_GT(reached(model, area::foreign), foreign);
}

}  // namespace
}  // namespace tarnheap::testing
