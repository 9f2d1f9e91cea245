#include "trace_reader.h"

#include <cstring>

#include "replay_pages.h"

namespace trace {
namespace {

constexpr size_t BUFFER_BYTES = size_t{1} << 20;
constexpr size_t COUNTING_CHUNK = 4096;

constexpr const char* CALL_NAMES[TRACE_CALL_LIMIT] = {
    "?",        "malloc", "calloc",  "realloc",     "free", "posix_memalign", "aligned_alloc",
    "memalign", "valloc", "pvalloc", "reallocarray"};

bool fail(trace_reader& reader, const char* error) {
    reader.error = error;
    return false;
}

// Keeps at least one whole record in the buffer while the file has one.
void refill(trace_reader& reader) {
    if (reader.held - reader.used >= TRACE_RECORD_MAX_BYTES) return;
    std::memmove(reader.bytes, reader.bytes + reader.used, reader.held - reader.used);
    reader.held -= reader.used;
    reader.used = 0;
    reader.held +=
        std::fread(reader.bytes + reader.held, 1, BUFFER_BYTES - reader.held, reader.file);
}

const uint8_t* read_varint(const uint8_t* at, const uint8_t* end, uint64_t& value) {
    value = 0;
    for (unsigned shift = 0; at < end && shift < 64; shift += 7) {
        uint8_t byte = *at++;
        value |= uint64_t{byte & 0x7fu} << shift;
        if ((byte & 0x80) == 0) return at;
    }
    return nullptr;
}

// One record at the reader's position; false at the end of the data or on damage.
bool decode(trace_reader& reader, trace_op& op) {
    refill(reader);
    const uint8_t* at = reader.bytes + reader.used;
    const uint8_t* end = reader.bytes + reader.held;
    if (at == end) return false;
    op.call = *at & TRACE_CALL_MASK;
    op.flags = *at++ & ~TRACE_CALL_MASK;
    if (op.call == 0 || op.call >= TRACE_CALL_LIMIT) return fail(reader, "a damaged record");
    op.first = op.second = 0;
    unsigned arguments = TRACE_ARGUMENTS[op.call];
    at = read_varint(at, end, op.identity);
    if (at != nullptr && arguments > 0) at = read_varint(at, end, op.first);
    if (at != nullptr && arguments > 1) at = read_varint(at, end, op.second);
    // A recording cut short may end inside a record; a complete one may not.
    if (at == nullptr)
        return reader.header.status == TRACE_COMPLETE && fail(reader, "a truncated record");
    if (reader.identities != 0 && op.identity >= reader.identities)
        return fail(reader, "an identity beyond the header's count");
    reader.used = static_cast<size_t>(at - reader.bytes);
    return true;
}

bool count_operations(trace_reader& reader) {
    static trace_op ops[COUNTING_CHUNK];
    uint64_t highest = 0, counted = 0;
    // No limits while counting.
    reader.operations = UINT64_MAX;
    reader.identities = 0;
    for (size_t count; (count = trace_read(reader, ops, COUNTING_CHUNK)) > 0;) {
        counted += count;
        for (size_t i = 0; i < count; ++i)
            if (ops[i].identity > highest) highest = ops[i].identity;
    }
    reader.operations = counted;
    reader.identities = highest + 1;
    return reader.error == nullptr && trace_rewind(reader);
}

}  // namespace

bool trace_open(trace_reader& reader, const char* path) {
    reader = {};
    reader.file = std::fopen(path, "rb");
    if (reader.file == nullptr) return fail(reader, "cannot open the file");
    // The reader buffers; stdio would allocate a buffer of its own.
    std::setvbuf(reader.file, nullptr, _IONBF, 0);
    trace_header& header = reader.header;
    if (std::fread(&header, sizeof header, 1, reader.file) != 1 ||
        std::memcmp(header.magic, TRACE_MAGIC, TRACE_MAGIC_BYTES) != 0)
        return fail(reader, "not a trace of tarnheap-trace");
    if (header.version != TRACE_VERSION) return fail(reader, "a trace of another version");
    if (header.status == TRACE_REFUSED)
        return fail(reader, "a refused recording: the program allocated from a second thread");
    reader.bytes = static_cast<uint8_t*>(replay_pages(BUFFER_BYTES));
    if (reader.bytes == nullptr) return fail(reader, "no memory for the read buffer");
    reader.operations = header.operations;
    reader.identities = header.identities;
    return header.status == TRACE_COMPLETE || count_operations(reader);
}

size_t trace_read(trace_reader& reader, trace_op* ops, size_t capacity) {
    size_t count = 0;
    while (count < capacity && reader.decoded + count < reader.operations &&
           decode(reader, ops[count]))
        ++count;
    reader.decoded += count;
    return count;
}

bool trace_rewind(trace_reader& reader) {
    reader.held = reader.used = 0;
    reader.decoded = 0;
    return std::fseek(reader.file, TRACE_HEADER_BYTES, SEEK_SET) == 0 ||
           fail(reader, "cannot read the file again");
}

void trace_close(trace_reader& reader) {
    if (reader.file != nullptr) std::fclose(reader.file);
    reader.file = nullptr;
}

const char* trace_call_name(unsigned call) {
    return call < TRACE_CALL_LIMIT ? CALL_NAMES[call] : CALL_NAMES[0];
}

}  // namespace trace
