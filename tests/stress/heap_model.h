// A model of what the heap promises, driven through the embeddable library's entry points by
// random operations (the stress test) or by operations decoded from bytes (the fuzzer).
//
// Every live block is kept in an interval map and carries a byte pattern derived from its
// identity, written when it is handed out and checked when it is resized or released (blocks
// above 64 KiB only over a few sampled spans, so that huge runs stay mostly untouched). Each
// block is checked against the area that serves it: its class, unit or run, its alignment, its
// zero bytes after calloc, and where realloc must keep or move it. Every null result must come
// with errno 12. The C runtime's entries are replaced by shims that check that only foreign
// blocks ever reach them. The heap's own audit runs on request, with the live map.
//
// Runs of more than 4032 groups are claimed at block level and leave their groups clear in
// the group bitmap, so a later claim may hand those groups out again: designed, and kept.
// The model therefore never lets a group be claimed while such a run is live: it keeps at most
// one, and until it is released every request is clamped to a small-class size, which takes
// no group. Once released, such a run waits in the run cache with its groups still clear, and
// a claim of more than 32768 groups, which does not trim the cache first, may land on it and
// overwrite the cached run's descriptor, corrupting the cache (designed as well): while the
// cache holds a run of more than 1899 groups, requests that would need such a claim are cut
// down to block-level size, whose claim trims the cache first. With these rules no two live
// blocks may ever overlap, and none is exempt.
#pragma once

#include <algorithm>
#include <cerrno>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <map>
#include <set>
#include <string>
#include <vector>

#include "bucket/bucket_alloc.h"
#include "bucket/bucket_class.h"
#include "bucket/bucket_release.h"
#include "bucket/bucket_size_table.h"
#include "bucket/run_length.h"
#include "small/release.h"
#include "small/small_class.h"
#include "state/heap_audit.h"
#include "tarnheap.h"

namespace tarnheap::testing {

enum class op_kind : uint8_t { malloc, calloc, wrapped_calloc, realloc, free, foreign, mallopt };

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

// Request sizes by the area that serves them; weights are per 100000 requests.
inline constexpr size_band DEFAULT_BANDS[] = {
    {1, 64, 30000},                       // small classes of 4 to 64 bytes, as routed
    {65, 256, 21000},                     // small classes of 80 to 256 bytes
    {257, 2688, 22000},                   // bucket classes on the fast path
    {2689, 35328, 11000},                 // bucket classes of the slow path
    {35329, 4451328, 9000},               // runs of 1 to 63 groups (bit finders)
    {4451329, 35610624, 1800},            // 64 to 504 groups (byte finders)
    {35610625, 284884992, 150},           // 505 to 4032 groups (word finders)
    {716800, 1048576, 4000},              // the zeroed region's calloc sizes
    {284884993, 2315255808, 14},          // 4033 to 32768 groups (block level)
    {2315255809, LARGE_MAX, 8},           // the generic finder
    {LARGE_MAX + 1, LARGE_MAX + GIB, 8},  // straight to the C runtime
    {0, 0, 1020},                         // requests for nothing
};

// Operation weights per 1000, in op_kind order.
struct operation_mix {
    uint32_t weight[7];
};
inline constexpr operation_mix DEFAULT_OPERATIONS = {{330, 90, 2, 200, 370, 6, 2}};

struct mix {
    const size_band* bands;
    size_t band_count;
    operation_mix operations;
};

// Draws `below(bound)` in [0, bound) from any source: a generator or a fuzzer's bytes.
template <class source>
uint64_t size_in_band(source& draws, const size_band& band) {
    uint64_t span = band.high - band.low;
    // Log-uniform: each doubling of the distance from the band's low end is as likely as the
    // last, so that short requests of a wide band are not drowned by long ones.
    unsigned bits = static_cast<unsigned>(draws.below(65 - __builtin_clzll(span | 1)));
    uint64_t reach = bits >= 64 ? span : std::min(span, (uint64_t{1} << bits) - 1);
    return band.low + draws.below(reach + 1);
}

template <class source>
uint64_t draw_size(source& draws, const mix& m) {
    uint64_t total = 0;
    for (size_t b = 0; b < m.band_count; ++b) total += m.bands[b].weight;
    uint64_t at = draws.below(total);
    size_t band = 0;
    while (at >= m.bands[band].weight) at -= m.bands[band++].weight;
    return size_in_band(draws, m.bands[band]);
}

template <class source>
operation draw_operation(source& draws, const mix& m) {
    uint64_t at = draws.below(1000);
    unsigned kind = 0;
    while (kind < 6 && at >= m.operations.weight[kind]) at -= m.operations.weight[kind++];
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

// What a block is, seen from the heap's records.
enum class area : uint8_t { small, bucket, run, huge_run, zeroed, foreign, unknown };

struct placement {
    area where;
    uint64_t usable;  // bytes from the block's address to the end of what serves it
};

inline placement place(uint64_t address) {
    int small_class = small_class_owning(address);
    if (small_class >= 0)
        return {area::small, 4 * uint64_t{heap_state.small_class_head[small_class].units}};
    uint32_t group;
    if (group_descriptor_record* descriptor = in_use_descriptor(address, &group)) {
        if (descriptor->bucket.unit_size != 0) return {area::bucket, descriptor->bucket.unit_size};
        const large_run_view& run = descriptor->large;
        uint64_t usable = run.run_groups * GROUP_BYTES - (address - run.group_base);
        return {run.run_groups > RUN_LENGTH_TIERS[2].longest ? area::huge_run : area::run, usable};
    }
    uint64_t zeroed = address - heap_state.zeroed_region_base;
    if (heap_state.zeroed_region_base != 0 && zeroed < ZEROED_REGION_BYTES)
        return {area::zeroed, uint64_t{heap_state.zeroed_run_length[zeroed >> ZEROED_SLOT_SHIFT]}
                                  << ZEROED_SLOT_SHIFT};
    return {area::unknown, 0};
}

// The C runtime's own entries, saved when the shims take their place.
struct c_runtime {
    void* (*malloc)(size_t);
    void (*free)(void*);
    void* (*calloc)(size_t, size_t);
    void* (*realloc)(void*, size_t);
};

struct model_counts {
    uint64_t operations, blocks_verified, null_results, in_place, moved, audits;
    uint64_t by_area[7];
};

class heap_model {
  public:
    // Above `live_limit` live blocks every allocation turns into a release.
    heap_model(uint64_t seed, size_t live_limit) : seed_(seed), live_limit_(live_limit) {}
    ~heap_model() { release_shims(); }

    const std::string& failure() const { return failure_; }
    bool failed() const { return !failure_.empty(); }
    const model_counts& counts() const { return counts_; }

    // The heap must be ready; its fallback entries become the checking shims.
    void start() {
        if (heap_state.init_state != INIT_READY)
            return fail("the heap is not ready: " + std::to_string(heap_state.init_state));
        // The heap's later draws (offsets of large blocks, the zeroed region's warm-up) follow
        // the seed; only the layout drawn from the time-stamp counter at start-up varies.
        heap_state.rng_state = seed_;
        c_library_ = {heap_state.fallback_malloc, heap_state.fallback_free,
                      heap_state.fallback_calloc, heap_state.fallback_realloc};
        shim_owner() = this;
        heap_state.fallback_malloc = [](size_t n) {
            return shim_owner()->adopt(shim_owner()->c_library_.malloc(n));
        };
        heap_state.fallback_calloc = [](size_t n, size_t s) {
            return shim_owner()->adopt(shim_owner()->c_library_.calloc(n, s));
        };
        heap_state.fallback_free = [](void* p) { shim_owner()->c_free(p); };
        heap_state.fallback_realloc = [](void* p, size_t n) {
            return shim_owner()->c_realloc(p, n);
        };
    }

    void execute(const operation& op) {
        if (failed()) return;
        ++counts_.operations;
        ++clock_;
        operation clamped = clamp(op);
        errno = 0;
        switch (clamped.kind) {
            case op_kind::malloc:
                return allocate(op_kind::malloc, tarnheap_malloc(clamped.size), clamped.size,
                                clamped.size);
            case op_kind::calloc:
            case op_kind::wrapped_calloc:
                return run_calloc(clamped);
            case op_kind::realloc:
                return run_realloc(clamped);
            case op_kind::free:
                return run_free(clamped.pick);
            case op_kind::foreign:
                return make_foreign(clamped.size);
            case op_kind::mallopt:
                return run_mallopt(clamped.count);
        }
    }

    // Releases the huge run whose time is up; a stress loop calls this after every operation.
    void age_huge_run() {
        if (huge_ != 0 && --huge_ttl_ == 0) release(huge_);
    }

    void audit() {
        if (failed()) return;
        ++counts_.audits;
        audit_finding finding;
        auto overlaps = [](void* model, uint64_t first, uint64_t end) {
            return static_cast<heap_model*>(model)->overlapping(first, end) != 0;
        };
        if (!audit_heap(finding, overlaps, this))
            fail(std::string("audit: ") + finding.broken + " at " + std::to_string(finding.at) +
                 ": expected " + std::to_string(finding.expected) + ", found " +
                 std::to_string(finding.found));
    }

    // Releases every live block through the heap, checking each, and audits the empty heap.
    void finish() {
        while (!starts_.empty() && !failed()) release(starts_.back());
        if (!failed() && !foreign_.empty())
            fail(std::to_string(foreign_.size()) + " blocks of the C runtime were never released");
        audit();
        release_shims();
    }

  private:
    struct block {
        uint64_t size;
        uint64_t identity;
        size_t slot;  // in starts_
    };

    static heap_model*& shim_owner() {
        static heap_model* owner = nullptr;
        return owner;
    }

    void release_shims() {
        if (shim_owner() != this) return;
        heap_state.fallback_malloc = c_library_.malloc;
        heap_state.fallback_free = c_library_.free;
        heap_state.fallback_calloc = c_library_.calloc;
        heap_state.fallback_realloc = c_library_.realloc;
        shim_owner() = nullptr;
    }

    void fail(const std::string& what) {
        if (failed()) return;
        failure_ =
            "seed " + std::to_string(seed_) + ", operation " + std::to_string(clock_) + ": " + what;
    }

    void* adopt(void* foreign) {
        if (foreign != nullptr) foreign_.insert(reinterpret_cast<uint64_t>(foreign));
        return foreign;
    }

    void c_free(void* p) {
        if (foreign_.erase(reinterpret_cast<uint64_t>(p)) == 0)
            return fail("the heap handed a block that is not the C runtime's to its free");
        c_library_.free(p);
    }

    void* c_realloc(void* p, size_t size) {
        if (foreign_.count(reinterpret_cast<uint64_t>(p)) == 0) {
            fail("the heap handed a block that is not the C runtime's to its realloc");
            return nullptr;
        }
        void* moved = c_library_.realloc(p, size);
        if (moved != nullptr) foreign_.erase(reinterpret_cast<uint64_t>(p));
        return adopt(moved);
    }

    // While a huge run lives no request may claim groups: clamp it to a small-class size.
    // calloc zeroes its whole block, and the bucket area keeps what it touched: huge zeroed
    // blocks are left to malloc.
    operation clamp(operation op) const {
        uint64_t bytes = op.size * op.count;
        bool claims = op.kind != op_kind::free && op.kind != op_kind::mallopt &&
                      op.kind != op_kind::wrapped_calloc && bytes > SMALL_MAX && bytes <= LARGE_MAX;
        if (op.kind == op_kind::calloc && bytes > CALLOC_MAX && bytes <= LARGE_MAX)
            op.kind = op_kind::malloc;
        if (huge_ != 0 && claims) {
            op.size = 1 + op.size % SMALL_MAX;
            op.count = 1;
        } else if (claims && heap_state.long_runs_first != nullptr && bytes > LONGEST_TABLE_BYTES) {
            op.size = LONGEST_BIT_BYTES + 1 + op.size % (LONGEST_TABLE_BYTES - LONGEST_BIT_BYTES);
            op.count = 1;
        }
        if (op.kind == op_kind::foreign) op.size = 1 + op.size % 65536;
        if (op.kind == op_kind::realloc || op.kind == op_kind::free) return op;
        if (starts_.size() >= live_limit_ && op.kind != op_kind::mallopt) op.kind = op_kind::free;
        return op;
    }

    // The pattern byte at `offset` of a block: a hash of its identity and its 8-byte word.
    static uint64_t pattern_word(uint64_t identity, uint64_t word) {
        uint64_t x = (identity ^ (word * 0x9E3779B97F4A7C15)) * 0xD6E8FEB86659FD93;
        return x ^ (x >> 29);
    }

    struct span {
        uint64_t first, end;
    };

    static constexpr uint64_t LONGEST_BIT_BYTES = RUN_LENGTH_TIERS[2].longest * GROUP_BYTES;
    static constexpr uint64_t LONGEST_TABLE_BYTES = LONGEST_TABLE_RUN * GROUP_BYTES;
    static constexpr uint64_t FULL_PATTERN_MAX = 65536;
    static constexpr uint64_t CALLOC_MAX = ZEROED_MAX;
    static constexpr uint64_t COPY_MAX = 64 << 20;
    static constexpr uint64_t SAMPLE = 256;

    // Whole blocks up to 64 KiB; larger ones their first and last 4 KiB and two spans between.
    static size_t pattern_spans(uint64_t size, uint64_t identity, span* spans) {
        if (size <= FULL_PATTERN_MAX) {
            spans[0] = {0, size};
            return 1;
        }
        uint64_t middle = size - 8192 - SAMPLE;
        spans[0] = {0, 4096};
        spans[1] = {size - 4096, size};
        uint64_t a = 4096 + identity % middle, b = 4096 + (identity >> 20) % middle;
        spans[2] = {a, a + SAMPLE};
        spans[3] = {b, b + SAMPLE};
        return 4;
    }

    enum class sweep : uint8_t { write, check, zero };

    // Writes the pattern over `s`, or finds its first byte that does not hold the pattern (or
    // zero); returns that offset, or s.end.
    static uint64_t pass(uint64_t address, uint64_t identity, span s, sweep what) {
        auto* bytes = reinterpret_cast<uint8_t*>(address);
        for (uint64_t offset = s.first; offset < s.end; ++offset) {
            uint64_t word = what == sweep::zero ? 0 : pattern_word(identity, offset / 8);
            bool whole = offset % 8 == 0 && offset + 8 <= s.end;
            uint64_t found = 0;
            if (whole && what == sweep::write) std::memcpy(bytes + offset, &word, 8);
            if (whole && what != sweep::write) std::memcpy(&found, bytes + offset, 8);
            if (whole && (what == sweep::write || found == word)) {
                offset += 7;
                continue;
            }
            auto expected = static_cast<uint8_t>(word >> (8 * (offset % 8)));
            if (what == sweep::write)
                bytes[offset] = expected;
            else if (bytes[offset] != expected)
                return offset;
        }
        return s.end;
    }

    bool check_spans(uint64_t address, uint64_t identity, uint64_t size, uint64_t limit, bool zero,
                     const char* what) {
        span spans[4];
        size_t count = pattern_spans(size, identity, spans);
        for (size_t i = 0; i < count; ++i) {
            span s{spans[i].first, std::min(spans[i].end, limit)};
            if (s.first >= s.end) continue;
            uint64_t at = pass(address, identity, s, zero ? sweep::zero : sweep::check);
            if (at != s.end) {
                fail(std::string(what) + " at byte " + std::to_string(at) + " of a block of " +
                     std::to_string(size) + " bytes at " + std::to_string(address));
                return false;
            }
        }
        ++counts_.blocks_verified;
        return true;
    }

    void write_pattern(uint64_t address, uint64_t identity, uint64_t size) {
        span spans[4];
        size_t count = pattern_spans(size, identity, spans);
        for (size_t i = 0; i < count; ++i) pass(address, identity, spans[i], sweep::write);
    }

    // The start of a live block overlapping [first, end), or 0.
    uint64_t overlapping(uint64_t first, uint64_t end) const {
        auto after = live_.lower_bound(end);
        if (after == live_.begin()) return 0;
        --after;
        return after->first + after->second.size > first ? after->first : 0;
    }

    bool expect_null(void* result, uint64_t size, int error, const char* what) {
        if (result != nullptr) return false;
        ++counts_.null_results;
        if (error != ENOMEM)
            fail(std::string(what) + " returned null with errno " + std::to_string(error));
        // Only requests that end with the C runtime may be refused, and only big ones.
        else if (size != 0 && size < GIB)
            fail(std::string(what) + " of " + std::to_string(size) + " bytes returned null");
        return true;
    }

    // The area a new block must come from, for the size the heap routes it by, checked with the
    // heap's records.
    void check_placement(uint64_t address, uint64_t served, op_kind kind) {
        placement p = place(address);
        if (p.where == area::unknown && foreign_.count(address) != 0) p.where = area::foreign;
        counts_.by_area[static_cast<unsigned>(p.where)]++;
        bool zeroed_size = served >= ZEROED_MIN && served <= ZEROED_MAX;
        uint64_t alignment = 16;
        switch (p.where) {
            case area::small: {
                if (served > SMALL_MAX)
                    return fail("a request of " + std::to_string(served) +
                                " bytes got a small block");
                unsigned small_class = kind == op_kind::malloc || kind == op_kind::realloc
                                           ? small_class_for(served)
                                           : CALLOC_CLASS_TABLE.small_class[served >> 4];
                if (SMALL_CLASS_TABLE.bytes[small_class] != p.usable)
                    return fail("a request of " + std::to_string(served) +
                                " bytes got a small block of " + std::to_string(p.usable));
                const small_class_record& c = heap_state.small_class[small_class];
                if ((address - c.first_block) % c.block_size != 0)
                    return fail("a small block is not at a block boundary");
                // Blocks of 4 to 64 bytes are as aligned as their size allows: 4 bytes at least.
                alignment = std::min<uint64_t>(16, p.usable & (~p.usable + 1));
                break;
            }
            case area::bucket:
                if (served > BUCKET_MAX ||
                    p.usable != BUCKET_SIZE_TABLE.bytes[bucket_class_of(served)])
                    return fail("a request of " + std::to_string(served) + " bytes got a unit of " +
                                std::to_string(p.usable));
                alignment = 64;
                break;
            case area::run:
            case area::huge_run: {
                uint64_t groups = run_length_for((served + GROUP_BYTES - 1) / GROUP_BYTES).groups;
                if (groups > LONGEST_TABLE_RUN) groups = (groups + 511) / 512 * 512;
                uint64_t start_room = GROUP_BYTES * groups - p.usable;
                if (start_room >= GROUP_BYTES || p.usable < served ||
                    (kind == op_kind::realloc && start_room != 0))
                    return fail("a run for " + std::to_string(served) + " bytes starts " +
                                std::to_string(start_room) + " bytes in");
                alignment = 64;
                break;
            }
            case area::zeroed:
                if (!zeroed_size || kind == op_kind::malloc || kind == op_kind::realloc ||
                    p.usable != (served + 65535) / 65536 * 65536)
                    return fail("a request of " + std::to_string(served) +
                                " bytes got a zeroed-region block");
                alignment = 65536;
                break;
            case area::foreign:
                break;
            case area::unknown:
                return fail("a block at " + std::to_string(address) +
                            " belongs to no area and not to the C runtime");
        }
        if (address % alignment != 0)
            fail("a block at " + std::to_string(address) + " is not " + std::to_string(alignment) +
                 "-byte aligned");
    }

    void insert(uint64_t address, uint64_t size, uint64_t identity) {
        if (uint64_t other = overlapping(address, address + size))
            return fail("a block of " + std::to_string(size) + " bytes at " +
                        std::to_string(address) + " overlaps the live block at " +
                        std::to_string(other));
        live_[address] = {size, identity, starts_.size()};
        starts_.push_back(address);
        if (place(address).where == area::huge_run) {
            huge_ = address;
            huge_ttl_ = 1 + identity % 300;
        }
    }

    void erase(uint64_t address) {
        auto it = live_.find(address);
        size_t slot = it->second.slot;
        live_[starts_.back()].slot = slot;
        starts_[slot] = starts_.back();
        starts_.pop_back();
        live_.erase(it);
        if (address == huge_) huge_ = 0;
    }

    // A new block: `owned` bytes are the caller's, `served` is the size the heap routes by
    // (calloc's total rounded to 16 bytes).
    void allocate(op_kind kind, void* result, uint64_t owned, uint64_t served,
                  bool zeroed = false) {
        if (expect_null(result, served, errno, "an allocation")) return;
        if (owned == 0) return fail("a request for nothing returned a block");
        uint64_t address = reinterpret_cast<uint64_t>(result);
        uint64_t identity = seed_ * 0x100000001B3 + clock_;
        check_placement(address, served, kind);
        if (zeroed &&
            !check_spans(address, identity, owned, owned, true, "a calloc block is not zero"))
            return;
        if (zeroed && owned <= ZEROED_MAX && pass(address, 0, {0, owned}, sweep::zero) != owned)
            return fail("a calloc block of " + std::to_string(owned) + " bytes is not zero");
        write_pattern(address, identity, owned);
        insert(address, owned, identity);
    }

    void run_calloc(const operation& op) {
        uint64_t count = op.count, size = op.size;
        if (op.kind == op_kind::wrapped_calloc) {
            // The product wraps unchecked: 2^63 x 2 is served as 0 bytes (a 4-byte block, which
            // the fast path leaves as it is), (2^60 + 1) x 16 as 16.
            count = op.pick % 2 == 0 ? uint64_t{1} << 63 : (uint64_t{1} << 60) + 1;
            size = op.pick % 2 == 0 ? 2 : 16;
        }
        void* result = tarnheap_calloc(count, size);
        uint64_t product = count * size;
        uint64_t owned = count == 0 || size == 0 ? 0 : (product == 0 ? 4 : product);
        allocate(op.kind, result, owned, (product + 15) & ~uint64_t{15}, product != 0);
    }

    void release(uint64_t address) {
        const block& b = live_.at(address);
        if (!check_spans(address, b.identity, b.size, b.size, false,
                         "a block changed before its release"))
            return;
        tarnheap_free(reinterpret_cast<void*>(address));
        erase(address);
    }

    void run_free(uint64_t pick) {
        if (starts_.empty()) return tarnheap_free(nullptr);
        release(starts_[pick % starts_.size()]);
    }

    // Whether realloc must keep a block of the heap's in place, by its area and usable size.
    static bool stays(const placement& p, uint64_t size) {
        if (p.where == area::small) return p.usable >= size;
        if (size == p.usable) return true;
        return size < p.usable && (p.usable < 35329 || size * 256 > p.usable);
    }

    void run_realloc(const operation& op) {
        if (starts_.empty() || op.pick % 50 == 0)
            return allocate(op_kind::realloc, tarnheap_realloc(nullptr, op.size), op.size, op.size);
        uint64_t address = starts_[op.pick % starts_.size()];
        block old = live_.at(address);
        placement before = place(address);
        bool foreign = foreign_.count(address) != 0;
        // A block above 64 MiB is not grown: the copy would touch all of it, and the bucket
        // area keeps what it touched. It shrinks instead, while a huge run lives to a small size.
        uint64_t size = op.size;
        if (old.size > COPY_MAX && size > old.size)
            size = 1 + size % (huge_ != 0 ? SMALL_MAX : old.size);
        void* result = tarnheap_realloc(reinterpret_cast<void*>(address), size);
        int error = errno;
        if (size == 0) {
            // Releases the block and reports exhaustion at once, as designed.
            if (result != nullptr || error != ENOMEM)
                return fail("realloc to 0 bytes did not return null with errno 12");
            ++counts_.null_results;
            return erase(address);
        }
        if (expect_null(result, size, error, "a realloc")) {
            check_spans(address, old.identity, old.size, old.size, false,
                        "a failed realloc changed its block");
            return;
        }
        uint64_t moved = reinterpret_cast<uint64_t>(result);
        if (!foreign && (moved == address) != stays(before, size))
            return fail("realloc of a block of " + std::to_string(before.usable) +
                        " usable bytes to " + std::to_string(size) +
                        (moved == address ? " stayed" : " moved"));
        ++(moved == address ? counts_.in_place : counts_.moved);
        if (!check_spans(moved, old.identity, old.size, std::min(old.size, size), false,
                         "realloc lost the block's bytes"))
            return;
        erase(address);
        if (moved != address) check_placement(moved, size, op_kind::realloc);
        if (foreign && foreign_.count(moved) == 0)
            return fail("realloc moved a C runtime block into the heap");
        write_pattern(moved, old.identity, size);
        insert(moved, size, old.identity);
    }

    // A block of the C runtime, to be released and resized through the heap later.
    void make_foreign(uint64_t size) {
        void* block = adopt(c_library_.malloc(size));
        if (block == nullptr)
            return fail("the C runtime refused " + std::to_string(size) + " bytes");
        uint64_t address = reinterpret_cast<uint64_t>(block);
        write_pattern(address, clock_, size);
        insert(address, size, clock_);
    }

    void run_mallopt(uint64_t value) {
        int answer = tarnheap_mallopt(TARNHEAP_M_ROUTING, static_cast<int>(value));
        if (answer != 1 ||
            tarnheap_mallopt(TARNHEAP_M_PROBE, TARNHEAP_PROBE_VALUE) != TARNHEAP_PROBE_ANSWER)
            fail("mallopt answered " + std::to_string(answer));
    }

    uint64_t seed_;
    size_t live_limit_;
    uint64_t clock_ = 0;
    std::string failure_;
    model_counts counts_{};
    std::map<uint64_t, block> live_;  // start -> block
    std::vector<uint64_t> starts_;    // the live starts, for picking one at random
    std::set<uint64_t> foreign_;      // blocks the C runtime owns
    c_runtime c_library_{};
    uint64_t huge_ = 0;  // the live run of more than 4032 groups, if any
    uint64_t huge_ttl_ = 0;
};

}  // namespace tarnheap::testing
