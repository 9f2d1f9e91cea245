#include "live_ranges.h"

#include <algorithm>

#include "replay_pages.h"

namespace trace {
namespace {

// The last range that starts below `end`, or null.
const live_range* last_below(const live_ranges& live, uint64_t end) {
    const live_range* after =
        std::lower_bound(live.ranges, live.ranges + live.count, end,
                         [](const live_range& range, uint64_t at) { return range.first < at; });
    return after == live.ranges ? nullptr : after - 1;
}

}  // namespace

bool collect_live_ranges(const replay_block* blocks, uint64_t identities, live_ranges& live) {
    live = {static_cast<live_range*>(replay_pages((identities + 1) * sizeof(live_range))), 0};
    if (live.ranges == nullptr) return false;
    for (uint64_t identity = 1; identity < identities; ++identity) {
        const replay_block& block = blocks[identity];
        if (block.address == nullptr || block.bytes == 0) continue;
        uint64_t first = reinterpret_cast<uint64_t>(block.address);
        live.ranges[live.count++] = {first, first + block.bytes};
    }
    std::sort(live.ranges, live.ranges + live.count,
              [](const live_range& a, const live_range& b) { return a.first < b.first; });
    return true;
}

// Live blocks are disjoint, so only the last one starting below `end` can reach `first`.
bool overlaps_live(void* context, uint64_t first, uint64_t end) {
    const live_range* range = last_below(*static_cast<const live_ranges*>(context), end);
    return range != nullptr && range->end > first;
}

bool starts_within(const live_ranges& live, uint64_t first, uint64_t end) {
    const live_range* range = last_below(live, end);
    return range != nullptr && range->first >= first;
}

}  // namespace trace
