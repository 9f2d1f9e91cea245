# Windows executables run under Wine, with a prefix of their own inside the build tree, without
# address-space randomisation (the heap's fixed 8 GiB hint must not collide with Wine's own
# mappings) and without Wine's diagnostics.
set(TARNHEAP_WINEPREFIX ${CMAKE_BINARY_DIR}/wineprefix)
configure_file(${CMAKE_CURRENT_LIST_DIR}/wine-run.in ${CMAKE_BINARY_DIR}/wine-run @ONLY
               FILE_PERMISSIONS OWNER_READ OWNER_WRITE OWNER_EXECUTE GROUP_READ GROUP_EXECUTE
                                WORLD_READ WORLD_EXECUTE)
set(CMAKE_CROSSCOMPILING_EMULATOR ${CMAKE_BINARY_DIR}/wine-run)
