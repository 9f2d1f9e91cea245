#include "trace_info.h"

#include <cstdio>

namespace trace {
namespace {

constexpr size_t CHUNK = 4096;

struct trace_counts {
    uint64_t calls[TRACE_CALL_LIMIT];
    uint64_t null_results;
    uint64_t zero_size;  // requests of 0 bytes (calloc: either factor 0) that made a block
    uint64_t requested_bytes;
};

bool is_aligned_call(unsigned call) {
    return call >= TRACE_POSIX_MEMALIGN && call <= TRACE_PVALLOC;
}

uint64_t requested_bytes(const trace_op& op) {
    switch (op.call) {
        case TRACE_CALLOC:
        case TRACE_REALLOCARRAY:
            return op.first * op.second;
        case TRACE_FREE:
            return 0;
        case TRACE_POSIX_MEMALIGN:
        case TRACE_ALIGNED_ALLOC:
        case TRACE_MEMALIGN:
            return op.second;
        default:
            return op.first;
    }
}

void count(trace_counts& counts, const trace_op& op) {
    ++counts.calls[op.call];
    if (op.flags & TRACE_FLAG_NULL_RESULT) {
        ++counts.null_results;
        return;
    }
    if (op.call == TRACE_FREE) return;
    uint64_t bytes = requested_bytes(op);
    counts.requested_bytes += bytes;
    if (bytes == 0) ++counts.zero_size;
}

}  // namespace

bool print_trace_info(trace_reader& reader) {
    static trace_op ops[CHUNK];
    trace_counts counts{};
    for (size_t n; (n = trace_read(reader, ops, CHUNK)) > 0;)
        for (size_t i = 0; i < n; ++i) count(counts, ops[i]);
    if (reader.error != nullptr) return false;
    uint64_t aligned = 0;
    std::printf(
        "{\"status\": %u, \"operations\": %llu, \"identities\": %llu, \"foreign\": %llu, "
        "\"null_results\": %llu, \"zero_size\": %llu, \"requested_bytes\": %llu, "
        "\"calls\": {",
        reader.header.status, static_cast<unsigned long long>(reader.operations),
        static_cast<unsigned long long>(reader.identities),
        static_cast<unsigned long long>(reader.header.foreign),
        static_cast<unsigned long long>(counts.null_results),
        static_cast<unsigned long long>(counts.zero_size),
        static_cast<unsigned long long>(counts.requested_bytes));
    for (unsigned call = 1; call < TRACE_CALL_LIMIT; ++call) {
        std::printf("%s\"%s\": %llu", call > 1 ? ", " : "", trace_call_name(call),
                    static_cast<unsigned long long>(counts.calls[call]));
        if (is_aligned_call(call)) aligned += counts.calls[call];
    }
    std::printf("}, \"aligned\": %llu}\n", static_cast<unsigned long long>(aligned));
    return true;
}

}  // namespace trace
