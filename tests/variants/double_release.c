/* Releases a block once, or twice when its argument says "twice". With the checked heap swapped
 * in (the checked TARNHEAP.dll beside it, or libtarnheap-checked.so preloaded), the second
 * release stops the program with its message before it goes on. */
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

int main(int argc, char** argv) {
    char* volatile block = malloc(24);
    strcpy(block, "released");
    free(block);
    if (argc > 1 && strcmp(argv[1], "twice") == 0) free(block);
    puts("went on");
    return 0;
}
