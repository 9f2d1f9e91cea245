// Processor time and peak resident memory: GetProcessTimes and the peak working set on Windows
// (Wine keeps both), the process CPU clock and the maximum resident set size elsewhere.
#include "process_usage.h"

#ifdef _WIN32
#include <windows.h>
// After windows.h, which defines its types.
#include <psapi.h>
#else
#include <sys/resource.h>
#include <time.h>
#endif

namespace workload {

#ifdef _WIN32

double processor_seconds() {
    FILETIME created, exited, kernel, user;
    if (!GetProcessTimes(GetCurrentProcess(), &created, &exited, &kernel, &user)) return 0;
    auto ticks = [](FILETIME time) {
        return (uint64_t{time.dwHighDateTime} << 32) | time.dwLowDateTime;
    };
    return static_cast<double>(ticks(kernel) + ticks(user)) * 1e-7;
}

uint64_t peak_resident_kib() {
    PROCESS_MEMORY_COUNTERS counters{};
    if (!K32GetProcessMemoryInfo(GetCurrentProcess(), &counters, sizeof counters)) return 0;
    return counters.PeakWorkingSetSize / 1024;
}

#else

double processor_seconds() {
    timespec now{};
    if (clock_gettime(CLOCK_PROCESS_CPUTIME_ID, &now) != 0) return 0;
    return static_cast<double>(now.tv_sec) + static_cast<double>(now.tv_nsec) * 1e-9;
}

uint64_t peak_resident_kib() {
    rusage usage{};
    if (getrusage(RUSAGE_SELF, &usage) != 0) return 0;
    return static_cast<uint64_t>(usage.ru_maxrss);
}

#endif

}  // namespace workload
