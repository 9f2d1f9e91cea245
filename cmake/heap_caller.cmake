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
