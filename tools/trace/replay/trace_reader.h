// Reads a trace file (trace_format.h) in chunks of decoded operations, so that a replay holds
// a bounded part of a long trace in memory.
#pragma once

#include <cstddef>
#include <cstdint>
#include <cstdio>

#include "trace_format.h"

namespace trace {

struct trace_op {
    uint8_t call;   // trace_call
    uint8_t flags;  // TRACE_FLAG_*
    uint64_t identity;
    uint64_t first;  // the arguments, as the call's comment in trace_format.h lists them
    uint64_t second;
};

struct trace_reader {
    std::FILE* file;
    trace_header header;
    uint64_t operations;  // from the header, or counted when the recording was cut short
    uint64_t identities;
    uint64_t decoded;
    uint8_t* bytes;  // read buffer
    size_t held;
    size_t used;
    const char* error;  // what is wrong with the file, or null
};

// Opens a trace, checks its header and, when the recording was cut short, counts its
// operations and identities. False with `error` set on failure.
bool trace_open(trace_reader& reader, const char* path);

// Decodes up to `capacity` operations into `ops`; returns how many, 0 at the end. A damaged
// record ends the trace with `error` set.
size_t trace_read(trace_reader& reader, trace_op* ops, size_t capacity);

// Back to the first operation.
bool trace_rewind(trace_reader& reader);

void trace_close(trace_reader& reader);

// The call's name as programs write it.
const char* trace_call_name(unsigned call);

}  // namespace trace
