// The main of every test program. On Linux it first makes sure the process runs without
// address-space randomisation, so that the heap's fixed 8 GiB hint is free whatever the
// system's own mappings do; Windows tests get the same from their launcher.
#include <gtest/gtest.h>

#ifdef __linux__
#include <sys/personality.h>
#include <unistd.h>
#endif

int main(int argc, char** argv) {
#ifdef __linux__
    int persona = personality(0xffffffff);
    if (persona != -1 && (persona & ADDR_NO_RANDOMIZE) == 0 &&
        personality(persona | ADDR_NO_RANDOMIZE) != -1)
        execv("/proc/self/exe", argv);
#endif
    testing::InitGoogleTest(&argc, argv);
    return RUN_ALL_TESTS();
}
