/* The Microsoft C runtime's declarations of the heap functions, written as its <stdlib.h>
 * writes them for a program linked against the runtime's DLL. This machine has no Windows SDK;
 * programs compiled the Microsoft way here see these instead. */
#pragma once
#include <stddef.h>

#ifdef __cplusplus
extern "C" {
#endif
__declspec(dllimport) __declspec(allocator) __declspec(restrict) void* __cdecl malloc(size_t size);
__declspec(dllimport) __declspec(allocator) __declspec(restrict) void* __cdecl calloc(size_t count,
                                                                                      size_t size);
__declspec(dllimport) __declspec(allocator) __declspec(restrict) void* __cdecl realloc(void* block,
                                                                                       size_t size);
__declspec(dllimport) void __cdecl free(void* block);
#ifdef __cplusplus
}
#endif
