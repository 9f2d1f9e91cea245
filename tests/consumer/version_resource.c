/* What Windows shows in TARNHEAP.dll's properties, read from its version resource: product,
 * file and product version, description. Fails unless both versions are the one given. */
#include <stdio.h>
#include <string.h>
#include <windows.h>

static const char* string_value(void* resource, const char* name) {
    char path[128];
    char* value = NULL;
    UINT length = 0;
    snprintf(path, sizeof path, "\\StringFileInfo\\040904B0\\%s", name);
    return VerQueryValueA(resource, path, (void**)&value, &length) ? value : "";
}

int main(int argc, char** argv) {
    static char resource[8192];
    VS_FIXEDFILEINFO* fixed = NULL;
    UINT length = 0;
    char numeric[64];
    if (argc != 2 || GetFileVersionInfoSizeA("TARNHEAP.dll", NULL) > sizeof resource ||
        !GetFileVersionInfoA("TARNHEAP.dll", 0, sizeof resource, resource) ||
        !VerQueryValueA(resource, "\\", (void**)&fixed, &length)) {
        fprintf(
            stderr,
            "usage: version_resource <version>, beside a TARNHEAP.dll with a version resource\n");
        return 2;
    }
    snprintf(numeric, sizeof numeric, "%lu.%lu.%lu.%lu", fixed->dwFileVersionMS >> 16,
             fixed->dwFileVersionMS & 0xFFFF, fixed->dwFileVersionLS >> 16,
             fixed->dwFileVersionLS & 0xFFFF);
    const char* product = string_value(resource, "ProductName");
    const char* file_version = string_value(resource, "FileVersion");
    const char* product_version = string_value(resource, "ProductVersion");
    const char* description = string_value(resource, "FileDescription");
    printf("product %s, file version %s (%s), product version %s, description %s\n", product,
           file_version, numeric, product_version, description);
    char expected_numeric[64];
    snprintf(expected_numeric, sizeof expected_numeric, "%s.0", argv[1]);
    return strcmp(product, "TarnHeap") == 0 && strcmp(file_version, argv[1]) == 0 &&
                   strcmp(product_version, argv[1]) == 0 &&
                   strcmp(numeric, expected_numeric) == 0 && description[0] != '\0'
               ? 0
               : 1;
}
