// What a trace holds, without replaying it: the front-end's view of the file.
#pragma once

#include "trace_reader.h"

namespace trace {

// Prints the header and the counts per call as one JSON object on standard output; false with
// the reader's error when the trace is damaged.
bool print_trace_info(trace_reader& reader);

}  // namespace trace
