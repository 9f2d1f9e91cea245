# What an installation holds and how other projects find it: the library (on Windows
# TARNHEAP.dll with its import libraries for the GNU and the Microsoft linker; on Linux the
# shared and the embeddable library), the header, the CMake package TarnHeap with the targets
# TarnHeap::tarnheap and TarnHeap::embed, pkg-config files, the README and the licence; and the
# checked build of the library, which users swap in rather than link (bin/checked/TARNHEAP.dll,
# lib/libtarnheap-checked.so), so that neither the CMake package nor pkg-config names it.
# Everything belongs to the component tarnheap, except the debug files of a release build.
include(GNUInstallDirs)
include(CMakePackageConfigHelpers)

set(CMAKE_INSTALL_DEFAULT_COMPONENT_NAME tarnheap)
set(TARNHEAP_CMAKE_DIR ${CMAKE_INSTALL_LIBDIR}/cmake/TarnHeap)
set(TARNHEAP_PKG_CONFIG_DIR ${CMAKE_INSTALL_LIBDIR}/pkgconfig)

if(WIN32)
  set(shared tarnheap_dll)
  set(shipped tarnheap_dll)
  set(shared_dir ${CMAKE_INSTALL_BINDIR})
  set(checked tarnheap_checked_dll)
  set(checked_dir ${CMAKE_INSTALL_BINDIR}/checked)
  set_target_properties(tarnheap_dll PROPERTIES EXPORT_NAME tarnheap)
  install(FILES ${PROJECT_BINARY_DIR}/src/TARNHEAP.lib DESTINATION ${CMAKE_INSTALL_LIBDIR})
  install(FILES README.md LICENSE DESTINATION .)
else()
  set(shared tarnheap)
  set(shipped tarnheap tarnheap_embed)
  set(shared_dir ${CMAKE_INSTALL_LIBDIR})
  set(checked tarnheap_checked)
  set(checked_dir ${CMAKE_INSTALL_LIBDIR})
  set_target_properties(tarnheap_embed PROPERTIES EXPORT_NAME embed)
  # Where a Debian package keeps them, the licence under the name Debian gives it.
  set(doc_dir ${CMAKE_INSTALL_DATAROOTDIR}/doc/tarnheap)
  install(FILES README.md DESTINATION ${doc_dir})
  install(FILES LICENSE DESTINATION ${doc_dir} RENAME copyright)
endif()
install(TARGETS ${shipped} EXPORT TarnHeapTargets
        RUNTIME DESTINATION ${CMAKE_INSTALL_BINDIR}
        LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR}
        ARCHIVE DESTINATION ${CMAKE_INSTALL_LIBDIR}
        INCLUDES DESTINATION ${CMAKE_INSTALL_INCLUDEDIR})
install(FILES include/tarnheap.h DESTINATION ${CMAKE_INSTALL_INCLUDEDIR})
install(FILES $<TARGET_FILE:${checked}> DESTINATION ${checked_dir})
if(TARNHEAP_RELEASE)
  # Beside the library, where a debugger looks for the file the library names.
  install(FILES $<TARGET_FILE:${shared}>.debug DESTINATION ${shared_dir} COMPONENT debug)
  install(FILES $<TARGET_FILE:${checked}>.debug DESTINATION ${checked_dir} COMPONENT debug)
endif()

# The CMake package.
install(EXPORT TarnHeapTargets NAMESPACE TarnHeap:: DESTINATION ${TARNHEAP_CMAKE_DIR})
configure_package_config_file(cmake/TarnHeapConfig.cmake.in TarnHeapConfig.cmake
                              INSTALL_DESTINATION ${TARNHEAP_CMAKE_DIR})
write_basic_package_version_file(TarnHeapConfigVersion.cmake COMPATIBILITY SameMajorVersion)
install(FILES ${PROJECT_BINARY_DIR}/TarnHeapConfig.cmake
              ${PROJECT_BINARY_DIR}/TarnHeapConfigVersion.cmake
        DESTINATION ${TARNHEAP_CMAKE_DIR})

# pkg-config files, which find the installation from their own place, so that an unpacked
# archive works wherever it lies.
string(REGEX REPLACE "[^/]+" ".." pc_prefix ${TARNHEAP_PKG_CONFIG_DIR})
function(tarnheap_install_pkg_config file name description libs cflags)
  set(pc_name ${name})
  set(pc_description ${description})
  set(pc_libs ${libs})
  if(cflags)
    set(pc_cflags " ${cflags}")
  endif()
  configure_file(${PROJECT_SOURCE_DIR}/cmake/tarnheap.pc.in ${file} @ONLY)
  install(FILES ${PROJECT_BINARY_DIR}/${file} DESTINATION ${TARNHEAP_PKG_CONFIG_DIR})
endfunction()
if(WIN32)
  # The import library named in full: a -static link looks for libtarnheap.a only.
  get_target_property(dll_link_options tarnheap_dll INTERFACE_LINK_OPTIONS)
  list(JOIN dll_link_options " " dll_link_options)
  tarnheap_install_pkg_config(tarnheap.pc TarnHeap "${PROJECT_DESCRIPTION}: TARNHEAP.dll"
                              "${dll_link_options} -l:libtarnheap.dll.a" "")
else()
  tarnheap_install_pkg_config(tarnheap.pc TarnHeap "${PROJECT_DESCRIPTION}: libtarnheap.so"
                              "-ltarnheap" "")
  tarnheap_install_pkg_config(
      tarnheap-embed.pc TarnHeap-embed
      "${PROJECT_DESCRIPTION}, embeddable: tarnheap_malloc and the other prefixed names"
      "-ltarnheap_embed" "-DTARNHEAP_EMBED")
endif()
