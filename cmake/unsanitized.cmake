# tarnheap_unsanitized(<target>): built without a sanitizer in every preset. For what stands for a
# user's program or goes inside one (the trace recorder): a sanitizer's runtime would allocate
# beside the program, and its calls would be recorded as the program's.
function(tarnheap_unsanitized target)
  target_compile_options(${target} PRIVATE -fno-sanitize=all)
  target_link_options(${target} PRIVATE -fno-sanitize=all)
endfunction()
