// The replayer's command line, for any heap:
//
//     replayer [--print | --info] [--progress LABEL] TRACE
//
// Replays the trace once and prints one JSON object: operations, elapsed and processor time
// of the calls alone, peak resident memory before and after, and the tally of requests the
// heap did not serve as recorded. Exits 1 when a request of bytes got null where the
// recording had a block, or a block's contents changed while it lived; 2 on a bad trace, 3
// on a recording refused for a second thread.
// --print lists every call as it is replayed instead (call, identity, arguments, flags);
// --info prints what the trace holds without replaying it. --progress writes LABEL and the
// share replayed so far to standard error, twice a second.
#pragma once

#include <chrono>
#include <cstdio>
#include <cstring>

#include "process_usage.h"
#include "replay_pages.h"
#include "replay_step.h"
#include "trace_info.h"
#include "trace_reader.h"

namespace trace {

constexpr size_t REPLAY_CHUNK = size_t{1} << 16;
constexpr double PROGRESS_SECONDS = 0.5;

struct replay_options {
    bool print;
    bool info;
    const char* progress_label;
    const char* path;
};

struct replay_timing {
    double seconds;
    double processor_seconds;
    std::chrono::steady_clock::time_point last_progress;
};

inline bool parse_replay_options(int argc, char** argv, replay_options& options) {
    options = {};
    for (int i = 1; i < argc; ++i) {
        if (std::strcmp(argv[i], "--print") == 0)
            options.print = true;
        else if (std::strcmp(argv[i], "--info") == 0)
            options.info = true;
        else if (std::strcmp(argv[i], "--progress") == 0 && i + 1 < argc)
            options.progress_label = argv[++i];
        else if (options.path == nullptr && argv[i][0] != '-')
            options.path = argv[i];
        else
            return false;
    }
    return options.path != nullptr;
}

inline void print_op(const trace_op& op) {
    std::printf("%s %llu %llu %llu%s%s\n", trace_call_name(op.call),
                static_cast<unsigned long long>(op.identity),
                static_cast<unsigned long long>(op.first),
                static_cast<unsigned long long>(op.second),
                op.flags & TRACE_FLAG_FROM_NULL ? " from-null" : "",
                op.flags & TRACE_FLAG_NULL_RESULT ? " null" : "");
}

inline void show_progress(replay_timing& timing, const char* label, uint64_t done, uint64_t total) {
    auto now = std::chrono::steady_clock::now();
    if (label == nullptr ||
        now - timing.last_progress < std::chrono::duration<double>(PROGRESS_SECONDS))
        return;
    timing.last_progress = now;
    std::fprintf(
        stderr, "\r\033[K[trace] %s %3.0f%%", label,
        total == 0 ? 100.0 : 100.0 * static_cast<double>(done) / static_cast<double>(total));
}

// Only the recorded calls: instruction counts take the calls made from this function.
template <typename heap>
__attribute__((noinline)) void replay_calls(const trace_op* ops, size_t count, replay_block* blocks,
                                            replay_tally& tally) {
    for (size_t i = 0; i < count; ++i) replay_op<heap>(ops[i], blocks, tally);
}

template <typename heap>
void replay_chunk(const trace_op* ops, size_t count, replay_block* blocks, replay_tally& tally,
                  replay_timing& timing) {
    auto start = std::chrono::steady_clock::now();
    double processor_start = workload::processor_seconds();
    replay_calls<heap>(ops, count, blocks, tally);
    timing.processor_seconds += workload::processor_seconds() - processor_start;
    timing.seconds +=
        std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
}

inline void print_result(const replay_tally& tally, const replay_timing& timing,
                         uint64_t baseline_kib) {
    auto number = [](uint64_t value) { return static_cast<unsigned long long>(value); };
    std::printf(
        "{\"operations\": %llu, \"seconds\": %.9f, \"processor_seconds\": %.9f, "
        "\"baseline_rss_kib\": %llu, \"peak_rss_kib\": %llu, \"failures\": %llu, "
        "\"zero_size_nulls\": %llu, \"extra_blocks\": %llu, \"damaged\": %llu, "
        "\"first_failure\": %llu}\n",
        number(tally.operations), timing.seconds, timing.processor_seconds, number(baseline_kib),
        number(workload::peak_resident_kib()), number(tally.failures),
        number(tally.zero_size_nulls), number(tally.extra_blocks), number(tally.damaged),
        number(tally.first_failure));
}

template <typename heap>
int replay_main(int argc, char** argv) {
    replay_options options;
    if (!parse_replay_options(argc, argv, options)) {
        std::fprintf(stderr, "usage: %s [--print | --info] [--progress LABEL] TRACE\n", argv[0]);
        return 2;
    }
    trace_reader reader;
    if (!trace_open(reader, options.path) || (options.info && !print_trace_info(reader))) {
        std::fprintf(stderr, "%s: %s\n", options.path, reader.error);
        return reader.header.status == TRACE_REFUSED ? 3 : 2;
    }
    if (options.info) return 0;
    // Both tables are touched before the baseline is taken, so that only the heap's growth
    // counts as the replay's.
    auto* blocks =
        static_cast<replay_block*>(replay_pages(reader.identities * sizeof(replay_block)));
    auto* ops = static_cast<trace_op*>(replay_pages(REPLAY_CHUNK * sizeof(trace_op)));
    if (blocks == nullptr || ops == nullptr) {
        std::fprintf(stderr, "%s: no memory for the replay's tables\n", options.path);
        return 2;
    }
    std::memset(blocks, 0, reader.identities * sizeof(replay_block));
    std::memset(ops, 0, REPLAY_CHUNK * sizeof(trace_op));
    uint64_t baseline_kib = workload::peak_resident_kib();
    replay_tally tally{};
    replay_timing timing{};
    for (size_t count; (count = trace_read(reader, ops, REPLAY_CHUNK)) > 0;) {
        if (options.print) {
            for (size_t i = 0; i < count; ++i) {
                replay_op<heap>(ops[i], blocks, tally);
                print_op(ops[i]);
            }
        } else {
            replay_chunk<heap>(ops, count, blocks, tally, timing);
            show_progress(timing, options.progress_label, tally.operations, reader.operations);
        }
    }
    if (options.progress_label != nullptr) std::fprintf(stderr, "\r\033[K");
    if (reader.error != nullptr) {
        std::fprintf(stderr, "%s: %s after %llu operations\n", options.path, reader.error,
                     static_cast<unsigned long long>(tally.operations));
        return 2;
    }
    if (!options.print) print_result(tally, timing, baseline_kib);
    return tally.failures + tally.damaged == 0 ? 0 : 1;
}

}  // namespace trace
