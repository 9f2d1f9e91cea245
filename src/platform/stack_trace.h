// The calls that led to a point of the program, for the checked build's messages. Compiled into
// checked builds only: the release libraries import nothing for it.
#pragma once

#include <cstdint>

namespace tarnheap {

// The return addresses of the calls that led to the caller of this function, innermost first,
// at most `count` of them; answers how many.
unsigned capture_return_addresses(void** addresses, unsigned count);

// Makes later captures safe inside the heap: on Linux the first capture loads the unwinder,
// which allocates. Called while the heap initialises, when such requests are served from the
// bootstrap arena.
void prepare_return_address_capture();

struct code_location {
    const char* module;       // the file of the program or library holding the code, or null
    uint64_t module_base;     // where it is loaded
    const char* symbol;       // the nearest exported symbol at or below the code, or null
    uint64_t symbol_address;  // where that symbol starts
};

code_location locate_code(const void* address);

}  // namespace tarnheap
