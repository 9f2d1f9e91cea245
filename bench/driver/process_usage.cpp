// Processor time and peak resident memory: GetProcessTimes and the peak working set on Windows
// (Wine keeps both), the process CPU clock and the resident high-water mark elsewhere.
#include "process_usage.h"

#ifdef _WIN32
#include <windows.h>
// After windows.h, which defines its types.
#include <psapi.h>
#else
#include <fcntl.h>
#include <time.h>
#include <unistd.h>

#include <cstdlib>
#include <cstring>
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

// The kernel's high-water mark of this program's pages (VmHWM), read without allocating. The
// maximum resident set size of getrusage would not do: it starts with the peak of the process
// that forked this one, a Python front-end say.
uint64_t peak_resident_kib() {
    char status[4096];
    int file = open("/proc/self/status", O_RDONLY | O_CLOEXEC);
    ssize_t length = file < 0 ? -1 : read(file, status, sizeof status - 1);
    if (file >= 0) close(file);
    if (length <= 0) return 0;
    status[length] = '\0';
    const char* line = std::strstr(status, "VmHWM:");
    return line == nullptr ? 0 : std::strtoull(line + 6, nullptr, 10);
}

#endif

}  // namespace workload
