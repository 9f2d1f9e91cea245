// Prints what heap_state holds as members of the map's JSON object: the small classes with
// their blocks in use, stacked and free; every group of the bucket area by role; the run
// cache's lists; the memory committed per area. The drawing step reads nothing else.
#pragma once

#include "live_ranges.h"

namespace trace {

void print_small_classes();

// Large runs too long to be marked in the group bitmap count as live only while a live block
// starts in their first group: a released one keeps its record.
void print_groups(const live_ranges& live);

void print_run_cache();

void print_committed();

}  // namespace trace
