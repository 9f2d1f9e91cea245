// Replays the request sizes recorded from a real program: a pool as large as the program's
// peak of live blocks, each step replacing a random block by the next request of a sequence
// drawn from the recorded distribution before timing starts.
#include <cstdlib>
#include <cstring>

#include "block_touch.h"
#include "fixed_random.h"
#include "size_mix_data.h"
#include "workloads.h"

namespace workload {

namespace {

enum request_kind : uint8_t { KIND_MALLOC, KIND_CALLOC, KIND_REALLOC };

struct request {
    uint8_t kind;
    uint32_t bytes;
};

struct mix_entry {
    request what;
    uint64_t cumulative_count;
};

constexpr unsigned MAX_MIX_ENTRIES = 8192;
constexpr unsigned MAX_POOL_BLOCKS = 65536;
constexpr unsigned SEQUENCE_LENGTH = 1 << 16;

mix_entry mix[MAX_MIX_ENTRIES];
unsigned mix_entries = 0;
uint64_t mix_total = 0;
unsigned pool_blocks = 0;

void* pool[MAX_POOL_BLOCKS];
request sequence[SEQUENCE_LENGTH];
uint64_t sequence_next = 0;
fixed_random draws{0x5851f42d4c957f2dULL};

// Lines are "live <peak>" or "<m|c|r> <bytes> <count>"; '#' starts a comment line.
bool parse_line(const char* line) {
    char* end = nullptr;
    if (std::strncmp(line, "live ", 5) == 0) {
        unsigned long long live = std::strtoull(line + 5, &end, 10);
        pool_blocks = live < MAX_POOL_BLOCKS ? static_cast<unsigned>(live) : MAX_POOL_BLOCKS;
        return true;
    }
    const char* kinds = "mcr";
    const char* kind = std::strchr(kinds, line[0]);
    if (kind == nullptr || line[0] == '\0' || line[1] != ' ' || mix_entries == MAX_MIX_ENTRIES)
        return false;
    unsigned long long bytes = std::strtoull(line + 2, &end, 10);
    unsigned long long count = std::strtoull(end, &end, 10);
    if (bytes == 0 || bytes > UINT32_MAX || count == 0) return false;
    mix_total += count;
    mix[mix_entries++] = {{static_cast<uint8_t>(kind - kinds), static_cast<uint32_t>(bytes)},
                          mix_total};
    return true;
}

void parse_mix() {
    mix_entries = 0;
    mix_total = 0;
    uint64_t number = 1;
    for (const char* line = SIZE_MIX_TEXT; *line != '\0'; ++number) {
        const char* newline = std::strchr(line, '\n');
        if (*line != '#' && *line != '\n' && !parse_line(line))
            workload_failure("malformed size mix data, line", number);
        if (newline == nullptr) break;
        line = newline + 1;
    }
    if (mix_entries == 0 || pool_blocks == 0) workload_failure("size mix data without entries", 0);
}

request draw_request() {
    uint64_t target = draw_below(draws, mix_total);
    unsigned low = 0, high = mix_entries - 1;
    while (low < high) {
        unsigned middle = (low + high) / 2;
        if (mix[middle].cumulative_count > target)
            high = middle;
        else
            low = middle + 1;
    }
    return mix[low].what;
}

}  // namespace

void size_mix_set_up() {
    parse_mix();
    for (request& next : sequence) next = draw_request();
    for (unsigned slot = 0; slot < pool_blocks; ++slot) {
        uint32_t bytes = sequence[slot].bytes;
        pool[slot] = checked(std::malloc(bytes), "malloc", bytes);
        touch_first(pool[slot]);
    }
}

void size_mix_steps(uint64_t steps) {
    for (uint64_t i = 0; i < steps; ++i) {
        request next = sequence[sequence_next++ % SEQUENCE_LENGTH];
        void*& block = pool[draw_below(draws, pool_blocks)];
        if (next.kind == KIND_REALLOC) {
            block = checked(std::realloc(block, next.bytes), "realloc", next.bytes);
        } else {
            std::free(block);
            block = next.kind == KIND_CALLOC ? std::calloc(1, next.bytes) : std::malloc(next.bytes);
            checked(block, "malloc or calloc", next.bytes);
        }
        touch_first(block);
    }
}

void size_mix_tear_down() {
    for (unsigned slot = 0; slot < pool_blocks; ++slot) std::free(pool[slot]);
}

}  // namespace workload
