// The replayer for the heap the process has: the C library's, a preloaded one, or the DLL it
// is linked with.
#include "c_library_heap.h"
#include "replay_main.h"

int main(int argc, char** argv) {
    return trace::replay_main<trace::c_library_heap>(argc, argv);
}
