# tarnheap_heap_caller(<target>): a program whose allocation calls are the thing it measures or
# records. The compiler may neither fold a pair away nor turn malloc and memset into calloc, and
# on Windows the runtimes are linked statically, so that the program needs no DLL beyond the
# system's (and TARNHEAP.dll).
function(tarnheap_heap_caller target)
  target_compile_options(${target} PRIVATE -fno-builtin-malloc -fno-builtin-calloc
                         -fno-builtin-realloc -fno-builtin-free)
  if(WIN32)
    target_link_options(${target} PRIVATE -static)
  endif()
endfunction()

# tarnheap_mimalloc_caller(<target>): on Windows, the program's own malloc, calloc, realloc and
# free forward to the static mingw build of mimalloc that TARNHEAP_WINDOWS_MIMALLOC names (a
# folder with include/ and libmimalloc.a), so that TARNHEAP.dll can be measured against a strong
# allocator on Windows as on Linux.
set(TARNHEAP_WINDOWS_MIMALLOC "" CACHE PATH "mingw static build of mimalloc for peer programs")
if(TARNHEAP_WINDOWS_MIMALLOC AND (NOT EXISTS ${TARNHEAP_WINDOWS_MIMALLOC}/include/mimalloc.h OR
                                  NOT EXISTS ${TARNHEAP_WINDOWS_MIMALLOC}/libmimalloc.a))
  message(FATAL_ERROR "TARNHEAP_WINDOWS_MIMALLOC=${TARNHEAP_WINDOWS_MIMALLOC} holds no "
                      "include/mimalloc.h and libmimalloc.a")
endif()
function(tarnheap_mimalloc_caller target)
  target_sources(${target} PRIVATE ${PROJECT_SOURCE_DIR}/bench/windows_peer/mimalloc_entries.c)
  target_include_directories(${target} PRIVATE ${TARNHEAP_WINDOWS_MIMALLOC}/include)
  target_link_libraries(${target} PRIVATE ${TARNHEAP_WINDOWS_MIMALLOC}/libmimalloc.a bcrypt
                        advapi32 psapi)
endfunction()
