#include "checked/misuse_report.h"

#include <cstdarg>
#include <cstdlib>

#include "platform/platform.h"
#include "platform/stack_trace.h"

namespace tarnheap {
namespace {

constexpr char PREFIX[] = "tarnheap: ";
constexpr unsigned TRACE_DEPTH = 16;
constexpr const char* ENTRY_NAMES[] = {"malloc", "calloc", "realloc", "free"};

// The line is built in static storage and printed whole: a report must not allocate from the
// heap it reports on, and the C runtimes format 64-bit numbers differently.
struct message_line {
    char text[1024];
    unsigned length;
};

constinit message_line line{};

void add(const char* text) {
    while (*text != '\0' && line.length < sizeof line.text - 2) line.text[line.length++] = *text++;
}

void add_number(uint64_t value, unsigned base) {
    char digits[24];
    unsigned count = 0;
    do {
        digits[count++] = "0123456789abcdef"[value % base];
        value /= base;
    } while (value != 0);
    char text[26] = {};
    unsigned at = 0;
    if (base == 16) {
        text[at++] = '0';
        text[at++] = 'x';
    }
    while (count > 0) text[at++] = digits[--count];
    add(text);
}

void add_decimal(uint64_t value) {
    add_number(value, 10);
}

void add_hex(uint64_t value) {
    add_number(value, 16);
}

void print(const char* format, ...) {
    va_list arguments;
    va_start(arguments, format);
    print_to_standard_error(format, arguments);
    va_end(arguments);
}

void print_line() {
    line.text[line.length++] = '\n';
    line.text[line.length] = '\0';
    print("%s", line.text);
    line.length = 0;
}

void add_call() {
    const checked_call& call = current_call;
    add(ENTRY_NAMES[static_cast<unsigned>(call.entry)]);
    add("(");
    switch (call.entry) {
        case checked_entry::malloc:
            add_decimal(call.size);
            break;
        case checked_entry::calloc:
            add_decimal(call.count);
            add(", ");
            add_decimal(call.size);
            break;
        case checked_entry::realloc:
            add_hex(call.block);
            add(", ");
            add_decimal(call.size);
            break;
        case checked_entry::free:
            add_hex(call.block);
            break;
    }
    add(")");
}

void add_unused_place(const checked_block& block) {
    switch (block.place) {
        case unused_place::small_segment:
            add("in the segment of small class ");
            add_decimal(block.class_index);
            add(", outside its blocks");
            return;
        case unused_place::bucket_group:
            add("in group ");
            add_decimal(block.group);
            add(" of the bucket area, outside its blocks");
            return;
        case unused_place::region_end:
            add("in the heap's region, past the bucket area");
            return;
        case unused_place::zeroed_region:
            add("in slot ");
            add_decimal(block.group);
            add(" of the zeroed region, outside its blocks");
            return;
        case unused_place::bootstrap_arena:
            add("in the bootstrap arena, past its pieces");
            return;
        case unused_place::heap_records:
            add("in the heap's own records");
            return;
    }
}

void add_area(const checked_block& block) {
    switch (block.area) {
        case block_area::small:
            add(" of small class ");
            add_decimal(block.class_index);
            add(" (");
            add_decimal(block.usable);
            add("-byte blocks)");
            break;
        case block_area::unit:
            if (block.class_index != UNKNOWN_CLASS) {
                add(" of bucket class ");
                add_decimal(block.class_index);
                add(" (");
                add_decimal(block.usable);
                add("-byte units)");
            }
            add(" in group ");
            add_decimal(block.group);
            break;
        case block_area::large:
            if (block.groups != 0) {
                add(" of the large run of ");
                add_decimal(block.groups);
                add(" groups");
            } else {
                add(" of a released large run");
            }
            add(" from group ");
            add_decimal(block.group);
            break;
        case block_area::zeroed:
            add(" of the zeroed region (");
            add_decimal(block.groups);
            add(" slots of 64 KiB from slot ");
            add_decimal(block.group);
            add(")");
            break;
        case block_area::bootstrap:
            add(" of the bootstrap arena (");
            add_decimal(block.usable);
            add(" bytes)");
            break;
        case block_area::foreign:
        case block_area::unused:
            break;
    }
    if (block.requested != UNKNOWN_REQUEST) {
        add(", allocated with ");
        add_decimal(block.requested);
        add(" bytes");
    }
}

void start_line(const char* problem) {
    add(PREFIX);
    add(problem);
    add(": ");
    add_call();
    add(": ");
}

// The message's line, the return addresses below the reporting functions, and the stop.
[[noreturn]] __attribute__((noinline)) void finish_and_stop() {
    print_line();
    void* addresses[TRACE_DEPTH];
    unsigned count = capture_return_addresses(addresses, TRACE_DEPTH);
    // The outermost frame returns to nowhere.
    for (unsigned i = 0; i < count && addresses[i] != nullptr; ++i) {
        auto address = reinterpret_cast<uint64_t>(addresses[i]);
        code_location where = locate_code(addresses[i]);
        add(PREFIX);
        add("  #");
        add_decimal(i);
        add(" ");
        add_hex(address);
        if (where.module != nullptr) {
            add(" ");
            add(where.module);
            add("+");
            add_hex(address - where.module_base);
        }
        if (where.symbol != nullptr) {
            add(" (");
            add(where.symbol);
            add("+");
            add_hex(address - where.symbol_address);
            add(")");
        }
        print_line();
    }
    std::abort();
}

}  // namespace

constinit checked_call current_call{};

void stop_for_address(const checked_block& block) {
    start_line(block.problem);
    if (block.area == block_area::unused) {
        add_unused_place(block);
    } else {
        if (block.address != block.start) {
            add_decimal(block.address - block.start);
            add(" bytes into ");
        }
        add("block ");
        add_hex(block.start);
        add_area(block);
    }
    finish_and_stop();
}

void stop_for_write(const char* problem, const checked_block& block, uint64_t offset) {
    start_line(problem);
    add("byte ");
    add_decimal(offset);
    add(problem == WRITE_AFTER_RELEASE ? " of released block " : " of block ");
    add_hex(block.start);
    add_area(block);
    finish_and_stop();
}

void stop_for_shadow(const char* operation, uint64_t bytes) {
    add(PREFIX);
    add("the checked build cannot ");
    add(operation);
    add(" ");
    add_decimal(bytes);
    add(" bytes of shadow memory");
    finish_and_stop();
}

}  // namespace tarnheap
