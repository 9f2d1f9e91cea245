// A model of what the heap promises, driven through the embeddable library's entry points by
// random operations (the stress test) or by operations decoded from bytes (the fuzzer).
//
// Every live block is kept in an interval map and carries a byte pattern derived from its
// identity, checked when it is resized or released (blocks above 64 KiB only over sampled
// spans). Each new block is checked against the area that serves it, its alignment, calloc's
// zeroes and realloc's stay-or-move; every null must come with errno 12; no two live blocks may
// overlap. Blocks of the C runtime (requests beyond the heap's reach, or taken from it directly)
// go back to it through the heap's entries, which must recognise them.
//
// Runs of more than 4032 groups are claimed at block level and leave their groups clear in
// the group bitmap, so that a later claim may hand those groups out again (designed, and kept):
// the traffic stops short of them, and the request table of entry_points_test checks them.
#pragma once

#include <algorithm>
#include <cerrno>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <map>
#include <sstream>
#include <string>
#include <vector>

#include "state/heap_audit.h"
#include "support/figures.h"
#include "tarnheap.h"

namespace tarnheap::testing {

enum class op_kind : uint8_t { malloc, calloc, realloc, free, foreign, mallopt };

struct operation {
    op_kind kind;
    uint64_t size;   // bytes; for calloc the element size
    uint64_t count;  // calloc's element count; mallopt's routing value
    uint64_t pick;   // which live block realloc and free take (modulo their number)
};

struct size_band {
    uint64_t low, high;
    uint32_t weight;
};

inline constexpr uint64_t GIB = uint64_t{1} << 30;

// Request sizes by the area that serves them, weights per 100000 requests: small classes of 4
// to 64 and of 80 to 256 bytes; bucket classes of the fast and of the slow path; runs of 1 to
// 63, 64 to 504 and 505 to 4032 groups (the three finder tiers); the zeroed region's calloc
// sizes; the C runtime's; requests for nothing.
inline constexpr size_band DEFAULT_BANDS[] = {{1, 64, 30000},
                                              {65, 256, 21000},
                                              {257, 2688, 22000},
                                              {2689, 35328, 11000},
                                              {35329, 4451328, 9000},
                                              {4451329, 35610624, 1800},
                                              {35610625, 284884992, 150},
                                              {716800, 1048576, 4000},
                                              {LARGE_MAX + 1, LARGE_MAX + GIB, 8},
                                              {0, 0, 1020}};

// Operation weights per 1000, in op_kind order.
struct operation_mix {
    uint32_t weight[6];
};
inline constexpr operation_mix DEFAULT_OPERATIONS = {{332, 90, 200, 370, 6, 2}};

struct mix {
    const size_band* bands;
    size_t band_count;
    operation_mix operations;
};

// `draws.below(bound)` gives [0, bound) from any source: a generator or a fuzzer's bytes.
template <class source>
uint64_t draw_size(source& draws, const mix& m) {
    uint64_t at = 0;
    for (size_t b = 0; b < m.band_count; ++b) at += m.bands[b].weight;
    at = draws.below(at);
    const size_band* band = m.bands;
    while (at >= band->weight) at -= (band++)->weight;
    uint64_t span = band->high - band->low;
    // Log-uniform: each doubling of the distance from the band's low end is as likely as the
    // last, so that short requests of a wide band are not drowned by long ones.
    unsigned bits = static_cast<unsigned>(draws.below(65 - __builtin_clzll(span | 1)));
    uint64_t reach = bits >= 64 ? span : std::min(span, (uint64_t{1} << bits) - 1);
    return band->low + draws.below(reach + 1);
}

template <class source>
operation draw_operation(source& draws, const mix& m) {
    uint64_t at = draws.below(1000);
    unsigned kind = 0;
    while (kind < 5 && at >= m.operations.weight[kind]) at -= m.operations.weight[kind++];
    operation op{static_cast<op_kind>(kind), draw_size(draws, m), 1,
                 draws.below(uint64_t{1} << 32)};
    // A quarter of calloc requests split their total into several elements.
    if (op.kind == op_kind::calloc && op.size > 16 && draws.below(4) == 0) {
        op.count = 1 + draws.below(16);
        op.size /= op.count;
    }
    if (op.kind == op_kind::mallopt) op.count = draws.below(2);
    return op;
}

struct model_counts {
    uint64_t null_results, in_place, moved;
    uint64_t by_area[6];
};

class heap_model {
  public:
    // On a ready heap. Above `live_limit` live blocks every allocation turns into a release.
    // The heap's later draws follow the seed; only the layout drawn at start-up varies.
    heap_model(uint64_t seed, size_t live_limit) : seed_(seed), live_limit_(live_limit) {
        if (heap_state.init_state != READY) fail("heap not ready");
        heap_state.rng_state = seed_;
    }
    bool failed() const { return !failure_.empty(); }
    const std::string& failure() const { return failure_; }
    const model_counts& counts() const { return counts_; }

    void execute(const operation& op) {
        if (failed()) return;
        ++clock_;
        perform(clamp(op));
    }

    void audit() {
        audit_finding f;
        auto overlaps = [](void* model, uint64_t first, uint64_t end) {
            return static_cast<heap_model*>(model)->overlapping(first, end) != 0;
        };
        if (!failed() && !audit_heap(f, overlaps, this))
            fail("audit:", f.broken, "at", f.at, "expected", f.expected, "found", f.found);
    }

    // Releases every live block through the heap, checking each, and audits the empty heap.
    void finish() {
        while (!starts_.empty() && !failed()) release(starts_.back());
        audit();
    }

  private:
    struct block {
        uint64_t size, identity;
        size_t slot;  // in starts_
    };
    enum class sweep : uint8_t { write, check, zero };
    template <class... parts>
    void fail(const parts&... p) {
        if (failed()) return;
        std::ostringstream out;
        out << "seed " << seed_ << ", operation " << clock_ << ":";
        ((out << ' ' << p), ...);
        failure_ = out.str();
    }

    // Keeps requests below block-level runs (see above) and leaves calloc's huge blocks, which
    // it would zero in full, to malloc; past the live limit allocations turn into releases.
    operation clamp(operation op) const {
        uint64_t bytes = op.size * op.count;
        if (op.kind == op_kind::calloc && bytes > ZEROED_MAX && bytes <= LARGE_MAX)
            op.kind = op_kind::malloc;
        if (bytes > 4032 * GROUP_BYTES && bytes <= LARGE_MAX && op.kind != op_kind::mallopt) {
            op.size = 1 + op.size % (4032 * GROUP_BYTES);
            op.count = 1;
        }
        if (op.kind == op_kind::foreign) op.size = 1 + op.size % 65536;
        if (starts_.size() >= live_limit_ && op.kind != op_kind::mallopt &&
            op.kind != op_kind::realloc)
            op.kind = op_kind::free;
        return op;
    }

    void perform(const operation& op) {
        errno = 0;
        switch (op.kind) {
            case op_kind::malloc:
                return accept(op.kind, tarnheap_malloc(op.size), op.size, op.size);
            case op_kind::calloc: {
                uint64_t total = op.count * op.size;
                return accept(op.kind, tarnheap_calloc(op.count, op.size), total,
                              (total + 15) & ~uint64_t{15}, true);
            }
            case op_kind::realloc:
                return run_realloc(op);
            case op_kind::free:
                if (starts_.empty()) return tarnheap_free(nullptr);
                return release(starts_[op.pick % starts_.size()]);
            case op_kind::foreign:
                // A block of the C runtime, to be released and resized through the heap later.
                return record(reinterpret_cast<uint64_t>(std::malloc(op.size)),
                              {op.size, clock_, 0});
            case op_kind::mallopt:
                fine_ = op.count == 0;
                if (tarnheap_mallopt(TARNHEAP_M_ROUTING, static_cast<int>(op.count)) != 1 ||
                    tarnheap_mallopt(TARNHEAP_M_PROBE, TARNHEAP_PROBE_VALUE) !=
                        TARNHEAP_PROBE_ANSWER)
                    fail("mallopt answered wrongly");
        }
    }

    // Writes or checks the pattern (or zeroes) over the block, up to `limit` bytes: whole up to
    // 64 KiB (zeroes up to the zeroed region's largest block); larger ones over their first and
    // last 4 KiB and 256 bytes between, placed by the identity.
    bool sweep_block(uint64_t address, const block& b, uint64_t limit, sweep what) {
        bool whole = b.size <= (what == sweep::zero ? ZEROED_MAX : 65536);
        uint64_t x = whole ? 0 : 4096 + b.identity % (b.size - 8448);
        const uint64_t spans[3][2] = {
            {0, whole ? b.size : 4096}, {x, x + 256}, {b.size - 4096, b.size}};
        auto* bytes = reinterpret_cast<uint8_t*>(address);
        for (size_t i = 0; i < (whole ? 1 : 3); ++i) {
            for (uint64_t at = spans[i][0], end = std::min(spans[i][1], limit); at < end;
                 at = (at | 7) + 1) {
                // Little-endian: byte k of the word is the pattern byte at offset 8 * word + k.
                uint64_t word =
                    what == sweep::zero ? 0 : (b.identity ^ at / 8) * 0xD6E8FEB86659FD93;
                word ^= word >> 29;
                const auto* expected = reinterpret_cast<const uint8_t*>(&word) + at % 8;
                size_t n = std::min(end, (at | 7) + 1) - at;
                if (what == sweep::write)
                    std::memcpy(bytes + at, expected, n);
                else if (std::memcmp(bytes + at, expected, n) != 0)
                    return fail(what == sweep::zero ? "calloc block not zero" : "block changed",
                                "at byte", at, "of", b.size, "at", address),
                           false;
            }
        }
        return true;
    }

    // The start of a live block overlapping [first, end), or 0.
    uint64_t overlapping(uint64_t first, uint64_t end) const {
        auto after = live_.lower_bound(end);
        if (after == live_.begin()) return 0;
        --after;
        return after->first + after->second.size > first ? after->first : 0;
    }

    // Whether the request was refused: only big ones may be, always with errno 12.
    bool refused(void* result, uint64_t size, int error) {
        if (result != nullptr) return false;
        ++counts_.null_results;
        if (error != ENOMEM || (size != 0 && size < GIB))
            fail("null for", size, "bytes with errno", error);
        return true;
    }

    // The area a new block must come from, for the size the heap routes it by.
    void check_placement(uint64_t address, uint64_t served, op_kind kind) {
        placement p = place(reinterpret_cast<void*>(address));
        counts_.by_area[static_cast<unsigned>(p.where)]++;
        bool by_malloc = kind != op_kind::calloc;
        uint64_t alignment = 64;
        bool right = true;
        switch (p.where) {
            case area::small: {
                unsigned c = served > SMALL_MAX ? 0
                             : by_malloc        ? malloc_class(served, fine_)
                                                : calloc_class(served);
                right = served <= SMALL_MAX && p.small_class == c &&
                        p.usable == small_block_bytes(c) &&
                        (address - heap_state.small_class[c].first_block) % p.usable == 0;
                // Blocks of 4 to 64 bytes are as aligned as their size allows: 4 bytes at least.
                alignment = std::min<uint64_t>(16, p.usable & (~p.usable + 1));
                break;
            }
            case area::bucket:
                right = served <= BUCKET_MAX && p.usable == bucket_bytes(served);
                break;
            case area::run: {
                uint64_t start_room = GROUP_BYTES * run_groups(served) - p.usable;
                right = start_room < GROUP_BYTES && p.usable >= served &&
                        (kind != op_kind::realloc || start_room == 0);
                break;
            }
            case area::zeroed:
                right = !by_malloc && served >= ZEROED_MIN && served <= ZEROED_MAX &&
                        p.usable == (served + 65535) / 65536 * 65536;
                alignment = 65536;
                break;
            case area::huge_run:  // the traffic never asks for one
                right = false;
                break;
            case area::foreign:
                alignment = 16;
        }
        if (!right || address % alignment != 0)
            fail("block at", address, "for", served, "bytes: wrong for area",
                 static_cast<unsigned>(p.where), "usable", p.usable, "alignment", alignment);
    }

    // A block handed out by the heap: placed right, zero if calloc's, then recorded. `owned`
    // bytes are the caller's, `served` is the size the heap routes by (calloc's total rounded
    // to 16 bytes).
    void accept(op_kind kind, void* result, uint64_t owned, uint64_t served, bool zero = false) {
        if (refused(result, served, errno)) return;
        if (owned == 0) return fail("a request for nothing returned a block");
        uint64_t address = reinterpret_cast<uint64_t>(result);
        block b{owned, seed_ * 0x100000001B3 + clock_, 0};
        check_placement(address, served, kind);
        if (!zero || sweep_block(address, b, owned, sweep::zero)) record(address, b);
    }

    // Patterns a live block and enters it in the interval map.
    void record(uint64_t address, block b) {
        sweep_block(address, b, b.size, sweep::write);
        if (uint64_t other = overlapping(address, address + b.size))
            return fail("block at", address, "of", b.size, "overlaps the one at", other);
        b.slot = starts_.size();
        live_[address] = b;
        starts_.push_back(address);
    }

    void erase(uint64_t address) {
        auto it = live_.find(address);
        live_[starts_.back()].slot = it->second.slot;
        starts_[it->second.slot] = starts_.back();
        starts_.pop_back();
        live_.erase(it);
    }

    void release(uint64_t address) {
        if (!sweep_block(address, live_.at(address), UINT64_MAX, sweep::check)) return;
        tarnheap_free(reinterpret_cast<void*>(address));
        erase(address);
    }

    // Whether realloc must keep a block of the heap's in place, by its area and usable size.
    static bool stays(const placement& p, uint64_t size) {
        if (p.where == area::small) return p.usable >= size;
        return size == p.usable || (size < p.usable && (p.usable < 35329 || size * 256 > p.usable));
    }

    void run_realloc(const operation& op) {
        if (starts_.empty() || op.pick % 50 == 0)
            return accept(op.kind, tarnheap_realloc(nullptr, op.size), op.size, op.size);
        uint64_t address = starts_[op.pick % starts_.size()];
        block old = live_.at(address);
        placement before = place(reinterpret_cast<void*>(address));
        bool foreign = before.where == area::foreign;
        // A block above 64 MiB is not grown: the copy would touch all of it, and the bucket
        // area keeps what it touched. It shrinks instead.
        uint64_t size =
            old.size > (64 << 20) && op.size > old.size ? 1 + op.size % old.size : op.size;
        void* result = tarnheap_realloc(reinterpret_cast<void*>(address), size);
        if (size == 0) {
            // Releases the block and reports exhaustion at once, as designed.
            if (!refused(result, 0, errno)) fail("realloc to 0 returned a block");
            return erase(address);
        }
        if (refused(result, size, errno)) {
            sweep_block(address, old, UINT64_MAX, sweep::check);
            return;
        }
        uint64_t moved = reinterpret_cast<uint64_t>(result);
        if (!foreign && (moved == address) != stays(before, size))
            return fail("realloc of", before.usable, "usable bytes to", size,
                        moved == address ? "stayed" : "moved");
        if (foreign && place(result).where != area::foreign)
            return fail("realloc moved a C runtime block into the heap");
        ++(moved == address ? counts_.in_place : counts_.moved);
        if (!sweep_block(moved, old, size, sweep::check)) return;
        erase(address);
        if (moved != address) check_placement(moved, size, op_kind::realloc);
        record(moved, {size, old.identity, 0});
    }

    uint64_t seed_;
    size_t live_limit_;
    uint64_t clock_ = 0;
    std::string failure_;
    model_counts counts_{};
    std::map<uint64_t, block> live_;  // start -> block
    std::vector<uint64_t> starts_;    // the live starts, for picking one at random
    bool fine_ = false;               // the routing last set; the heap starts coarse
};

}  // namespace tarnheap::testing
