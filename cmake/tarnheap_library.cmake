# tarnheap_add_library(<name> KIND <STATIC|SHARED|DLL> [PREFIXED] [SEAMS] [DROP_IN] [CHECKED]
#                      [VENDOR <string>])
#
# Every artefact of the heap is compiled from the same sources; variants differ only in the
# constants of src/state/build_config.h (entry names, test seams, simulated vendor, the Linux
# drop-in, the checked build) and in the platform layer, which the target platform chooses.
# The checked build adds the sources of src/checked and the platform's stack trace.
file(GLOB TARNHEAP_PORTABLE_SOURCES CONFIGURE_DEPENDS
     ${PROJECT_SOURCE_DIR}/src/state/*.cpp ${PROJECT_SOURCE_DIR}/src/api/*.cpp
     ${PROJECT_SOURCE_DIR}/src/small/*.cpp ${PROJECT_SOURCE_DIR}/src/bucket/*.cpp
     ${PROJECT_SOURCE_DIR}/src/runs/*.cpp)
file(GLOB TARNHEAP_CHECKED_SOURCES CONFIGURE_DEPENDS ${PROJECT_SOURCE_DIR}/src/checked/*.cpp)
set(TARNHEAP_PLATFORM_SOURCES
    ${PROJECT_SOURCE_DIR}/src/platform/commit.cpp
    ${PROJECT_SOURCE_DIR}/src/platform/os_memory_ops.cpp
    ${PROJECT_SOURCE_DIR}/src/platform/seams.cpp)
if(WIN32)
  list(APPEND TARNHEAP_PLATFORM_SOURCES ${PROJECT_SOURCE_DIR}/src/platform/windows.cpp)
  list(APPEND TARNHEAP_CHECKED_SOURCES ${PROJECT_SOURCE_DIR}/src/platform/windows_stack_trace.cpp)
  # Every DLL carries the project's version, product and description in its version resource;
  # the checked DLL says that it is one. The resource compiler takes none of the C and C++
  # options.
  enable_language(RC)
  foreach(variant "" _checked)
    if(variant)
      set(rc_description "${PROJECT_DESCRIPTION}, checked build")
    else()
      set(rc_description "${PROJECT_DESCRIPTION}")
    endif()
    configure_file(${PROJECT_SOURCE_DIR}/src/tarnheap.rc.in
                   ${PROJECT_BINARY_DIR}/tarnheap${variant}.rc @ONLY)
    add_library(tarnheap${variant}_version_resource OBJECT
                ${PROJECT_BINARY_DIR}/tarnheap${variant}.rc)
    set_target_properties(tarnheap${variant}_version_resource PROPERTIES COMPILE_OPTIONS "")
  endforeach()
else()
  list(APPEND TARNHEAP_PLATFORM_SOURCES ${PROJECT_SOURCE_DIR}/src/platform/linux.cpp)
  list(APPEND TARNHEAP_CHECKED_SOURCES ${PROJECT_SOURCE_DIR}/src/platform/linux_stack_trace.cpp)
endif()

# The heap runs inside other programs' allocations: no exceptions, no RTTI, nothing exported
# but the entry points, and calls among its own functions bound at link time.
set(TARNHEAP_LIBRARY_OPTIONS -fno-exceptions -fno-rtti -fno-stack-protector -fvisibility=hidden)

function(tarnheap_add_library name)
  cmake_parse_arguments(arg "PREFIXED;SEAMS;DROP_IN;CHECKED" "KIND;VENDOR" "" ${ARGN})
  set(sources ${TARNHEAP_PORTABLE_SOURCES} ${TARNHEAP_PLATFORM_SOURCES})
  if(arg_CHECKED)
    list(APPEND sources ${TARNHEAP_CHECKED_SOURCES})
  endif()
  if(NOT arg_DROP_IN)
    # The C library's further allocation functions, for LD_PRELOAD into Linux programs only.
    list(FILTER sources EXCLUDE REGEX "/api/drop_in_entries\\.cpp$")
  endif()
  if(NOT arg_PREFIXED)
    # The self-check serves tests and investigations, which link the embeddable library; the
    # shared libraries would only carry it.
    list(FILTER sources EXCLUDE REGEX "/state/heap_audit\\.cpp$")
  endif()
  if(arg_KIND STREQUAL "DLL")
    if(arg_CHECKED)
      set(resource tarnheap_checked_version_resource)
    else()
      set(resource tarnheap_version_resource)
    endif()
    add_library(${name} SHARED ${sources} ${PROJECT_SOURCE_DIR}/src/platform/dll_entry.cpp
                                          ${PROJECT_SOURCE_DIR}/src/tarnheap.def
                                          $<TARGET_OBJECTS:${resource}>)
    set_target_properties(${name} PROPERTIES OUTPUT_NAME TARNHEAP PREFIX "" SUFFIX ".dll")
    # The load-time entry is the heap's own: the C runtime's DLL start-up code would run
    # constructors and allocate, and the heap has neither. The compiler's runtime is linked in
    # statically, so the DLL imports KERNEL32.dll and msvcrt.dll only.
    target_link_options(${name} PRIVATE -nostartfiles -Wl,--entry,tarnheap_dll_entry
                        -static-libgcc -static-libstdc++)
  else()
    add_library(${name} ${arg_KIND} ${sources})
  endif()
  if(NOT WIN32)
    target_compile_options(${name} PRIVATE -fno-semantic-interposition)
    target_link_libraries(${name} PRIVATE ${CMAKE_DL_LIBS})
  endif()
  set_target_properties(${name} PROPERTIES POSITION_INDEPENDENT_CODE ON)
  target_compile_options(${name} PRIVATE ${TARNHEAP_LIBRARY_OPTIONS})
  target_include_directories(${name} PUBLIC $<BUILD_INTERFACE:${PROJECT_SOURCE_DIR}/include>
                             PRIVATE ${PROJECT_SOURCE_DIR}/src)
  target_compile_definitions(${name} PRIVATE
                             TARNHEAP_SIMULATED_VENDOR="${arg_VENDOR}"
                             TARNHEAP_TEST_SEAMS=$<BOOL:${arg_SEAMS}>
                             TARNHEAP_PREFIXED=$<BOOL:${arg_PREFIXED}>
                             TARNHEAP_LINUX_DROP_IN=$<BOOL:${arg_DROP_IN}>
                             TARNHEAP_CHECKED=$<BOOL:${arg_CHECKED}>)
  if(arg_PREFIXED)
    target_compile_definitions(${name} INTERFACE TARNHEAP_EMBED)
  endif()
endfunction()
