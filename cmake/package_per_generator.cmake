# Read by cpack once for each generator: only the archives unpack into a directory of their own;
# a .deb installs below the root.
if(CPACK_GENERATOR STREQUAL "DEB")
  set(CPACK_COMPONENT_INCLUDE_TOPLEVEL_DIRECTORY OFF)
endif()
