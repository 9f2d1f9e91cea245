// The workload driver: runs allocation workloads through the standard entry points only, so
// that the heap serving them is whichever one the process is linked with or has preloaded, and
// prints one line per workload:
//
//     <workload> <ns_per_op> <ops> <peak_rss_kib> <cpu_ns_per_op>
//
// ns_per_op is elapsed time per operation, cpu_ns_per_op the process's user and system time.
//
// Usage: workload_driver [--quick] [--scale X] [--max-seconds S] [--no-warm-up] [--list]
//                        [all | WORKLOAD...]
// A full run uses each workload's own step count; --quick a twentieth of it. --scale multiplies
// the count; --max-seconds 0 lifts the time cap and --no-warm-up drops the untimed steps, so
// that two runs at different scales differ by exactly the operations they report (instruction
// counts are taken as such differences).
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "process_usage.h"
#include "workloads.h"

namespace workload {

void workload_failure(const char* what, uint64_t bytes) {
    std::fprintf(stderr, "workload_driver: %s (%llu bytes)\n", what,
                 static_cast<unsigned long long>(bytes));
    std::exit(3);
}

namespace {

constexpr double QUICK_SCALE = 0.05;
constexpr double FULL_MAX_SECONDS = 2.0;
constexpr double QUICK_MAX_SECONDS = 0.3;
// The clock is read between chunks only: 64 chunks per run keep its cost out of the figures.
constexpr uint64_t CHUNKS_PER_RUN = 64;
// Warm-up steps before timing: the heap's start-up and first refills stay out of the figures.
constexpr uint64_t WARM_UP_DIVISOR = 50;

struct run_options {
    double scale = 1.0;
    double max_seconds = FULL_MAX_SECONDS;
    bool max_seconds_given = false;
    bool warm_up = true;
};

struct run_result {
    uint64_t steps;
    double seconds;
    double processor_seconds;
};

using clock_type = std::chrono::steady_clock;

double seconds_since(clock_type::time_point start) {
    return std::chrono::duration<double>(clock_type::now() - start).count();
}

run_result timed_run(const workload_record& work, uint64_t steps, double max_seconds) {
    uint64_t chunk = steps / CHUNKS_PER_RUN > 0 ? steps / CHUNKS_PER_RUN : 1;
    uint64_t done = 0;
    double processor_start = processor_seconds();
    clock_type::time_point start = clock_type::now();
    while (done < steps) {
        uint64_t next = steps - done < chunk ? steps - done : chunk;
        work.run_steps(next);
        done += next;
        if (max_seconds > 0 && done >= work.min_steps && seconds_since(start) > max_seconds) break;
    }
    double seconds = seconds_since(start);
    return {done, seconds, processor_seconds() - processor_start};
}

void run_workload(const workload_record& work, const run_options& options) {
    auto steps = static_cast<uint64_t>(static_cast<double>(work.full_steps) * options.scale);
    if (steps < work.min_steps) steps = work.min_steps;
    work.set_up();
    if (options.warm_up) work.run_steps(steps / WARM_UP_DIVISOR);
    run_result result = timed_run(work, steps, options.max_seconds);
    work.tear_down();
    uint64_t ops = result.steps * work.ops_per_step;
    double per_op = 1e9 / static_cast<double>(ops);
    std::printf("%s %.3f %llu %llu %.3f\n", work.name, result.seconds * per_op,
                static_cast<unsigned long long>(ops),
                static_cast<unsigned long long>(peak_resident_kib()),
                result.processor_seconds * per_op);
    std::fflush(stdout);
}

const workload_record* find_workload(const char* name) {
    for (const workload_record& work : WORKLOADS)
        if (std::strcmp(work.name, name) == 0) return &work;
    return nullptr;
}

int usage() {
    std::fprintf(stderr,
                 "usage: workload_driver [--quick] [--scale X] [--max-seconds S] [--no-warm-up] "
                 "[--list] [all | WORKLOAD...]\n");
    return 2;
}

void list_workloads() {
    for (const workload_record& work : WORKLOADS)
        std::printf("%-15s %s\n", work.name, work.summary);
}

}  // namespace

}  // namespace workload

int main(int argc, char** argv) {
    using namespace workload;
    run_options options;
    int first_name = argc;
    for (int i = 1; i < argc; ++i) {
        if (std::strcmp(argv[i], "--quick") == 0) {
            options.scale = QUICK_SCALE;
            if (!options.max_seconds_given) options.max_seconds = QUICK_MAX_SECONDS;
        } else if (std::strcmp(argv[i], "--scale") == 0 && i + 1 < argc) {
            options.scale = std::atof(argv[++i]);
        } else if (std::strcmp(argv[i], "--max-seconds") == 0 && i + 1 < argc) {
            options.max_seconds = std::atof(argv[++i]);
            options.max_seconds_given = true;
        } else if (std::strcmp(argv[i], "--no-warm-up") == 0) {
            options.warm_up = false;
        } else if (std::strcmp(argv[i], "--list") == 0) {
            list_workloads();
            return 0;
        } else if (argv[i][0] == '-') {
            return usage();
        } else {
            first_name = i;
            break;
        }
    }
    if (first_name == argc || options.scale <= 0) return usage();
    if (std::strcmp(argv[first_name], "all") == 0) {
        for (const workload_record& work : WORKLOADS) run_workload(work, options);
        return 0;
    }
    for (int i = first_name; i < argc; ++i)
        if (find_workload(argv[i]) == nullptr) return usage();
    for (int i = first_name; i < argc; ++i) run_workload(*find_workload(argv[i]), options);
    return 0;
}
