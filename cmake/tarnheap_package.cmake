# The release packages, all named with the project's version: for Windows a ZIP, for Linux a
# .tar.gz and a .deb. Each holds the component tarnheap; the debug files of the libraries go to
# a package of their own beside it (-debug archives, the tarnheap-dbg .deb).
set(CPACK_PACKAGE_NAME TarnHeap)
set(CPACK_PACKAGE_VENDOR "The TarnHeap developers")
set(CPACK_PACKAGE_DESCRIPTION_SUMMARY ${PROJECT_DESCRIPTION})
set(CPACK_PACKAGE_CHECKSUM SHA256)
if(WIN32)
  set(CPACK_GENERATOR ZIP)
  set(CPACK_SYSTEM_NAME win64)
else()
  set(CPACK_GENERATOR TGZ DEB)
  set(CPACK_SYSTEM_NAME ${CMAKE_SYSTEM_NAME})
endif()
set(CPACK_PACKAGE_FILE_NAME ${CPACK_PACKAGE_NAME}-${PROJECT_VERSION}-${CPACK_SYSTEM_NAME})

set(CPACK_ARCHIVE_COMPONENT_INSTALL ON)
set(CPACK_COMPONENT_INCLUDE_TOPLEVEL_DIRECTORY ON)
set(CPACK_PROJECT_CONFIG_FILE ${CMAKE_CURRENT_LIST_DIR}/package_per_generator.cmake)
set(CPACK_ARCHIVE_TARNHEAP_FILE_NAME ${CPACK_PACKAGE_FILE_NAME})
set(CPACK_ARCHIVE_DEBUG_FILE_NAME ${CPACK_PACKAGE_FILE_NAME}-debug)

set(CPACK_DEB_COMPONENT_INSTALL ON)
set(CPACK_DEBIAN_FILE_NAME DEB-DEFAULT)
set(CPACK_DEBIAN_PACKAGE_MAINTAINER ${CPACK_PACKAGE_VENDOR})
set(CPACK_DEBIAN_PACKAGE_SECTION libdevel)
set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS ON)
set(CPACK_DEBIAN_TARNHEAP_PACKAGE_NAME tarnheap)
# What tarnheap-trace draws and tabulates with, and counts instructions with; the library
# itself needs none of them.
set(CPACK_DEBIAN_TARNHEAP_PACKAGE_RECOMMENDS "python3, python3-matplotlib, python3-tabulate, valgrind")
set(CPACK_DEBIAN_DEBUG_PACKAGE_NAME tarnheap-dbg)
set(CPACK_DEBIAN_DEBUG_PACKAGE_SECTION debug)
set(CPACK_DEBIAN_ENABLE_COMPONENT_DEPENDS ON)
set(CPACK_COMPONENT_DEBUG_DEPENDS tarnheap)
set(CPACK_COMPONENT_DEBUG_DESCRIPTION "Debug information of the TarnHeap library")

include(CPack)
