// The replayer for mimalloc's static library (Windows).
#include "mimalloc_heap.h"
#include "replay_main.h"

int main(int argc, char** argv) {
    return trace::replay_main<trace::mimalloc_heap>(argc, argv);
}
