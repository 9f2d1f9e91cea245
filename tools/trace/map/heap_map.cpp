// The map's replayer: replays a trace on the embeddable library up to an operation, runs the
// heap's own audit against the live blocks, and prints what heap_state then holds as one JSON
// object for the drawing step.
//
//     heap_map [--at N] TRACE
//
// Exits 1 when the audit finds a broken invariant or a request was not served as recorded
// (the JSON is printed all the same), 2 on a bad trace.
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "bucket/bucket_release.h"
#include "embedded_heap.h"
#include "heap_map_json.h"
#include "live_ranges.h"
#include "replay_pages.h"
#include "replay_step.h"
#include "small/release.h"
#include "small/small_class.h"
#include "small/usable_size.h"
#include "state/heap_audit.h"
#include "state/heap_state.h"

namespace trace {
namespace {

using namespace tarnheap;

constexpr size_t CHUNK = 4096;

enum block_area { SMALL, BUCKET, LARGE, ZEROED, BOOTSTRAP, C_LIBRARY, AREA_COUNT };
constexpr const char* AREA_NAMES[AREA_COUNT] = {"small",  "bucket",    "large",
                                                "zeroed", "bootstrap", "c_library"};

struct area_tally {
    uint64_t blocks;
    uint64_t requested;
    uint64_t handed_out;  // what the heap set aside for them, rounding included
};

struct map_options {
    uint64_t at;
    const char* path;
};

unsigned long long number(uint64_t value) {
    return static_cast<unsigned long long>(value);
}

bool parse_options(int argc, char** argv, map_options& options) {
    options = {UINT64_MAX, nullptr};
    for (int i = 1; i < argc; ++i) {
        char* end = nullptr;
        if (std::strcmp(argv[i], "--at") == 0 && i + 1 < argc)
            options.at = std::strtoull(argv[++i], &end, 10);
        else if (options.path == nullptr && argv[i][0] != '-')
            options.path = argv[i];
        else
            return false;
        if (end != nullptr && *end != '\0') return false;
    }
    return options.path != nullptr;
}

block_area area_of(uint64_t address) {
    uint32_t group;
    uint64_t offset;
    if (small_class_owning(address) >= 0) return SMALL;
    if (group_descriptor_record* descriptor = in_use_descriptor(address, &group))
        return descriptor->bucket.unit_size != 0 ? BUCKET : LARGE;
    if (in_zeroed_region(address, &offset)) return ZEROED;
    if (in_bootstrap_arena(address)) return BOOTSTRAP;
    return C_LIBRARY;
}

uint64_t handed_out(uint64_t address, block_area area) {
    return area == C_LIBRARY ? 0 : usable_size(address);
}

void print_blocks(const replay_block* blocks, uint64_t identities) {
    area_tally areas[AREA_COUNT] = {};
    for (uint64_t identity = 1; identity < identities; ++identity) {
        if (blocks[identity].address == nullptr) continue;
        auto address = reinterpret_cast<uint64_t>(blocks[identity].address);
        block_area area = area_of(address);
        areas[area].blocks += 1;
        areas[area].requested += blocks[identity].bytes;
        areas[area].handed_out += handed_out(address, area);
    }
    std::printf(",\n \"blocks\": {");
    for (unsigned area = 0; area < AREA_COUNT; ++area)
        std::printf("%s\"%s\": {\"blocks\": %llu, \"requested\": %llu, \"handed_out\": %llu}",
                    area == 0 ? "" : ", ", AREA_NAMES[area], number(areas[area].blocks),
                    number(areas[area].requested), number(areas[area].handed_out));
    std::printf("}");
}

void print_audit(bool clean, const audit_finding& finding) {
    std::printf(",\n \"audit\": {\"clean\": %s", clean ? "true" : "false");
    if (!clean)
        std::printf(", \"broken\": \"%s\", \"at\": %llu, \"expected\": %llu, \"found\": %llu",
                    finding.broken, number(finding.at), number(finding.expected),
                    number(finding.found));
    std::printf("}");
}

void print_tally(const replay_tally& tally, uint64_t operations) {
    std::printf(
        "{\"operations\": %llu, \"replayed\": %llu, \"init_state\": %u,\n \"tally\": "
        "{\"failures\": %llu, \"zero_size_nulls\": %llu, \"extra_blocks\": %llu, "
        "\"damaged\": %llu}",
        number(operations), number(tally.operations), heap_state.init_state, number(tally.failures),
        number(tally.zero_size_nulls), number(tally.extra_blocks), number(tally.damaged));
}

int map_main(int argc, char** argv) {
    map_options options;
    if (!parse_options(argc, argv, options)) {
        std::fprintf(stderr, "usage: %s [--at N] TRACE\n", argv[0]);
        return 2;
    }
    trace_reader reader;
    if (!trace_open(reader, options.path)) {
        std::fprintf(stderr, "%s: %s\n", options.path, reader.error);
        return 2;
    }
    static trace_op ops[CHUNK];
    auto* blocks =
        static_cast<replay_block*>(replay_pages(reader.identities * sizeof(replay_block)));
    if (blocks == nullptr) {
        std::fprintf(stderr, "%s: no memory for the block table\n", options.path);
        return 2;
    }
    replay_tally tally{};
    for (size_t count;
         tally.operations < options.at && (count = trace_read(reader, ops, CHUNK)) > 0;)
        for (size_t i = 0; i < count && tally.operations < options.at; ++i)
            replay_op<embedded_heap>(ops[i], blocks, tally);
    if (reader.error != nullptr) {
        std::fprintf(stderr, "%s: %s\n", options.path, reader.error);
        return 2;
    }
    live_ranges live;
    if (!collect_live_ranges(blocks, reader.identities, live)) {
        std::fprintf(stderr, "%s: no memory for the live blocks\n", options.path);
        return 2;
    }
    audit_finding finding{};
    bool clean = heap_state.init_state != INIT_READY || audit_heap(finding, overlaps_live, &live);
    print_tally(tally, reader.operations);
    print_audit(clean, finding);
    print_blocks(blocks, reader.identities);
    print_committed();
    print_small_classes();
    print_groups(live);
    print_run_cache();
    std::printf("}\n");
    return clean && tally.failures + tally.damaged == 0 ? 0 : 1;
}

}  // namespace
}  // namespace trace

int main(int argc, char** argv) {
    return trace::map_main(argc, argv);
}
