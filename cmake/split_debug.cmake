# Release artefacts ship without their debug information.
#
# tarnheap_split_debug(<target>): after each link, the target's debug information moves to
# <file>.debug beside it, and the stripped file names that file, where debuggers look for it.
# tarnheap_strip_debug(<target>): a static library's debug information is dropped, as Debian
# ships static libraries; a program linking it has no place to name a separate file.
function(tarnheap_split_debug target)
  set(file $<TARGET_FILE_NAME:${target}>)
  add_custom_command(TARGET ${target} POST_BUILD
                     COMMAND ${CMAKE_OBJCOPY} --only-keep-debug ${file} ${file}.debug
                     COMMAND ${CMAKE_OBJCOPY} --strip-debug --add-gnu-debuglink=${file}.debug ${file}
                     WORKING_DIRECTORY $<TARGET_FILE_DIR:${target}> VERBATIM)
endfunction()

function(tarnheap_strip_debug target)
  add_custom_command(TARGET ${target} POST_BUILD
                     COMMAND ${CMAKE_OBJCOPY} --strip-debug $<TARGET_FILE:${target}> VERBATIM)
endfunction()
