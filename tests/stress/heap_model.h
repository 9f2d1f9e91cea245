// A model of what the heap promises, driven through the embeddable library's entry points by
// random operations (the stress test) or by operations decoded from bytes (the fuzzer).
//
// Every live block is kept in an interval map and carries a byte pattern derived from its
// identity, checked when it is resized or released (blocks above 64 KiB only over sampled
// spans, so that huge runs stay mostly untouched). Each new block is checked against the area
// that serves it, its alignment, calloc's zeroes and realloc's stay-or-move; every null must
// come with errno 12. The C runtime's entries are replaced by shims that fail on any block that
// is not the C runtime's.
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
#include <cstring>
#include <map>
#include <set>
#include <string>
#include <type_traits>
#include <vector>

#include "state/heap_audit.h"
#include "support/figures.h"
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

struct model_counts {
    uint64_t null_results, in_place, moved;
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
        if (heap_state.init_state != READY) return fail("heap not ready");
        // The heap's later draws (offsets of large blocks, the zeroed region's warm-up) follow
        // the seed; only the layout drawn from the time-stamp counter at start-up varies.
        heap_state.rng_state = seed_;
        c_ = {heap_state.fallback_malloc, heap_state.fallback_free, heap_state.fallback_calloc,
              heap_state.fallback_realloc};
        owner() = this;
        heap_state.fallback_malloc = [](size_t n) { return owner()->adopt(owner()->c_.malloc(n)); };
        heap_state.fallback_calloc = [](size_t n, size_t s) {
            return owner()->adopt(owner()->c_.calloc(n, s));
        };
        heap_state.fallback_free = [](void* p) {
            if (owner()->disown(p, "free")) owner()->c_.free(p);
        };
        heap_state.fallback_realloc = [](void* p, size_t n) {
            if (!owner()->foreign_.count(reinterpret_cast<uint64_t>(p)))
                return owner()->fail("heap block given to C realloc"), static_cast<void*>(nullptr);
            void* moved = owner()->c_.realloc(p, n);
            if (moved != nullptr) owner()->disown(p, "realloc");
            return owner()->adopt(moved);
        };
    }

    // Runs one operation; a huge run whose time is up is released after it.
    void execute(const operation& op) {
        if (failed()) return;
        ++clock_;
        perform(clamp(op));
        if (huge_ != 0 && --huge_ttl_ == 0) release(huge_);
    }

    void audit() {
        if (failed()) return;
        audit_finding f;
        auto overlaps = [](void* model, uint64_t first, uint64_t end) {
            return static_cast<heap_model*>(model)->overlapping(first, end) != 0;
        };
        if (!audit_heap(f, overlaps, this))
            fail("audit:", f.broken, "at", f.at, "expected", f.expected, "found", f.found);
    }

    // Releases every live block through the heap, checking each, and audits the empty heap.
    void finish() {
        while (!starts_.empty() && !failed()) release(starts_.back());
        if (!foreign_.empty()) fail(foreign_.size(), "C runtime blocks never released");
        audit();
        release_shims();
    }

  private:
    struct block {
        uint64_t size, identity;
        size_t slot;  // in starts_
    };
    struct c_runtime {
        void* (*malloc)(size_t);
        void (*free)(void*);
        void* (*calloc)(size_t, size_t);
        void* (*realloc)(void*, size_t);
    };
    struct span {
        uint64_t first, end;
    };
    enum class sweep : uint8_t { write, check, zero };

    static constexpr uint64_t LONGEST_BIT_BYTES = 4032 * GROUP_BYTES;
    static constexpr uint64_t LONGEST_TABLE_BYTES = 32768 * GROUP_BYTES;
    static constexpr uint64_t FULL_PATTERN_MAX = 65536;
    static constexpr uint64_t COPY_MAX = 64 << 20;
    static constexpr uint64_t SAMPLE = 256;

    static heap_model*& owner() {
        static heap_model* model = nullptr;
        return model;
    }

    void release_shims() {
        if (owner() != this) return;
        heap_state.fallback_malloc = c_.malloc;
        heap_state.fallback_free = c_.free;
        heap_state.fallback_calloc = c_.calloc;
        heap_state.fallback_realloc = c_.realloc;
        owner() = nullptr;
    }

    template <class value>
    static std::string text(const value& v) {
        if constexpr (std::is_arithmetic_v<value>)
            return std::to_string(v);
        else
            return v;
    }

    template <class... parts>
    void fail(const parts&... p) {
        if (failed()) return;
        failure_ = "seed " + text(seed_) + ", operation " + text(clock_) + ":";
        ((failure_ += " " + text(p)), ...);
    }

    void* adopt(void* foreign) {
        if (foreign != nullptr) foreign_.insert(reinterpret_cast<uint64_t>(foreign));
        return foreign;
    }

    bool disown(void* p, const char* entry) {
        if (foreign_.erase(reinterpret_cast<uint64_t>(p)) != 0) return true;
        fail("heap block given to C", entry);
        return false;
    }

    // While a huge run lives no request may claim groups: clamp it to a small-class size.
    // calloc zeroes its whole block, and the bucket area keeps what it touched: huge zeroed
    // blocks are left to malloc.
    operation clamp(operation op) const {
        uint64_t bytes = op.size * op.count;
        bool claims = op.kind != op_kind::free && op.kind != op_kind::mallopt &&
                      op.kind != op_kind::wrapped_calloc && bytes > SMALL_MAX && bytes <= LARGE_MAX;
        if (op.kind == op_kind::calloc && bytes > ZEROED_MAX && bytes <= LARGE_MAX)
            op.kind = op_kind::malloc;
        if (huge_ != 0 && claims) {
            op.size = 1 + op.size % SMALL_MAX;
            op.count = 1;
        } else if (claims && heap_state.long_runs_first != nullptr && bytes > LONGEST_TABLE_BYTES) {
            op.size = LONGEST_BIT_BYTES + 1 + op.size % (LONGEST_TABLE_BYTES - LONGEST_BIT_BYTES);
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
            case op_kind::calloc:
            case op_kind::wrapped_calloc:
                return run_calloc(op);
            case op_kind::realloc:
                return run_realloc(op);
            case op_kind::free:
                if (starts_.empty()) return tarnheap_free(nullptr);
                return release(starts_[op.pick % starts_.size()]);
            case op_kind::foreign:
                // A block of the C runtime, to be released and resized through the heap later.
                return record(reinterpret_cast<uint64_t>(adopt(c_.malloc(op.size))),
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
    // last 4 KiB and two spans between, drawn from the identity.
    bool sweep_block(uint64_t address, const block& b, uint64_t limit, sweep what) {
        bool whole = b.size <= (what == sweep::zero ? ZEROED_MAX : FULL_PATTERN_MAX);
        uint64_t middle = whole ? 1 : b.size - 8192 - SAMPLE;
        uint64_t x = 4096 + b.identity % middle, y = 4096 + (b.identity >> 20) % middle;
        const span spans[4] = {
            {0, whole ? b.size : 4096}, {b.size - 4096, b.size}, {x, x + SAMPLE}, {y, y + SAMPLE}};
        size_t count = whole ? 1 : 4;
        auto* bytes = reinterpret_cast<uint8_t*>(address);
        for (size_t i = 0; i < count; ++i) {
            for (uint64_t at = spans[i].first, end = std::min(spans[i].end, limit); at < end;
                 at = (at | 7) + 1) {
                // Little-endian: byte k of the word is the pattern byte at offset 8 * word + k.
                uint64_t word = 0x9E3779B97F4A7C15 * (at / 8);
                word = what == sweep::zero ? 0 : (b.identity ^ word) * 0xD6E8FEB86659FD93;
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

    // Whether the request was refused; only requests that end with the C runtime may be, only
    // big ones, and always with errno 12.
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
        if (p.where == area::unknown && foreign_.count(address) != 0) p.where = area::foreign;
        counts_.by_area[static_cast<unsigned>(p.where)]++;
        bool by_malloc = kind == op_kind::malloc || kind == op_kind::realloc;
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
            case area::run:
            case area::huge_run: {
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
            case area::foreign:
                alignment = 16;
                break;
            case area::unknown:
                right = false;
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
        if (place(reinterpret_cast<void*>(address)).where == area::huge_run) {
            huge_ = address;
            huge_ttl_ = 1 + b.identity % 300;
        }
    }

    void erase(uint64_t address) {
        auto it = live_.find(address);
        live_[starts_.back()].slot = it->second.slot;
        starts_[it->second.slot] = starts_.back();
        starts_.pop_back();
        live_.erase(it);
        if (address == huge_) huge_ = 0;
    }

    void run_calloc(const operation& op) {
        uint64_t count = op.count, size = op.size;
        if (op.kind == op_kind::wrapped_calloc) {
            // The product wraps unchecked: 2^63 x 2 is served as 0 bytes (a 4-byte block, which
            // the fast path leaves as it is), (2^60 + 1) x 16 as 16.
            count = op.pick % 2 == 0 ? uint64_t{1} << 63 : (uint64_t{1} << 60) + 1;
            size = op.pick % 2 == 0 ? 2 : 16;
        }
        // Hidden from the compiler, which would reject the products that wrap on purpose.
        volatile uint64_t opaque_count = count;
        void* result = tarnheap_calloc(opaque_count, size);
        uint64_t product = count * size;
        uint64_t owned = count == 0 || size == 0 ? 0 : (product == 0 ? 4 : product);
        accept(op.kind, result, owned, (product + 15) & ~uint64_t{15}, product != 0);
    }

    void release(uint64_t address) {
        if (!sweep_block(address, live_.at(address), UINT64_MAX, sweep::check)) return;
        tarnheap_free(reinterpret_cast<void*>(address));
        erase(address);
    }

    // Whether realloc must keep a block of the heap's in place, by its area and usable size.
    static bool stays(const placement& p, uint64_t size) {
        if (p.where == area::small) return p.usable >= size;
        if (size == p.usable) return true;
        return size < p.usable && (p.usable < 35329 || size * 256 > p.usable);
    }

    void run_realloc(const operation& op) {
        if (starts_.empty() || op.pick % 50 == 0)
            return accept(op.kind, tarnheap_realloc(nullptr, op.size), op.size, op.size);
        uint64_t address = starts_[op.pick % starts_.size()];
        block old = live_.at(address);
        placement before = place(reinterpret_cast<void*>(address));
        bool foreign = foreign_.count(address) != 0;
        // A block above 64 MiB is not grown: the copy would touch all of it, and the bucket
        // area keeps what it touched. It shrinks instead, while a huge run lives to a small size.
        uint64_t size = op.size;
        if (old.size > COPY_MAX && size > old.size)
            size = 1 + size % (huge_ != 0 ? SMALL_MAX : old.size);
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
        if (foreign && foreign_.count(moved) == 0)
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
    std::set<uint64_t> foreign_;      // blocks the C runtime owns
    c_runtime c_{};
    uint64_t huge_ = 0;  // the live run of more than 4032 groups, if any
    uint64_t huge_ttl_ = 0;
    bool fine_ = false;  // the routing last set; the heap starts coarse
};

}  // namespace tarnheap::testing
