/* What Windows shows in TARNHEAP.dll's properties, read from its version resource: product,
 * file and product version, description. Fails unless both versions are the one given. */
#include <stdio.h>
#include <string.h>
#include <windows.h>

int main(int argc, char** argv) {
    static char resource[8192];
    VS_FIXEDFILEINFO* fixed = NULL;
    UINT length = 0;
    if (argc != 2 || GetFileVersionInfoSizeA("TARNHEAP.dll", NULL) > sizeof resource ||
        !GetFileVersionInfoA("TARNHEAP.dll", 0, sizeof resource, resource) ||
        !VerQueryValueA(resource, "\\", (void**)&fixed, &length)) {
        fprintf(stderr, "usage: version_resource VERSION, beside a TARNHEAP.dll with one\n");
        return 2;
    }
    char numeric[64], expected_numeric[64], path[128];
    snprintf(numeric, sizeof numeric, "%lu.%lu.%lu.%lu", fixed->dwFileVersionMS >> 16,
             fixed->dwFileVersionMS & 0xFFFF, fixed->dwFileVersionLS >> 16,
             fixed->dwFileVersionLS & 0xFFFF);
    snprintf(expected_numeric, sizeof expected_numeric, "%s.0", argv[1]);
    int wrong = strcmp(numeric, expected_numeric) != 0;
    printf("file version %s", numeric);
    /* The strings, each expected exactly, or (the description) present. */
    const char* names[] = {"ProductName", "FileVersion", "ProductVersion", "FileDescription"};
    const char* expected[] = {"TarnHeap", argv[1], argv[1], NULL};
    for (int i = 0; i < 4; ++i) {
        const char* value;
        snprintf(path, sizeof path, "\\StringFileInfo\\040904B0\\%s", names[i]);
        if (!VerQueryValueA(resource, path, (void**)&value, &length)) value = "";
        printf(", %s %s", names[i], value);
        wrong += expected[i] != NULL ? strcmp(value, expected[i]) != 0 : value[0] == '\0';
    }
    printf("\n");
    return wrong != 0;
}
