# Installs the build into TREE/prefix, which is not the prefix that it was configured with, and builds the examples in
# TREE in every way that a user may choose.
cmake_minimum_required(VERSION 3.25)

set(prefix ${TREE}/prefix)
file(REMOVE_RECURSE ${TREE})

function(run)
  execute_process(COMMAND ${ARGN} OUTPUT_QUIET COMMAND_ERROR_IS_FATAL ANY)
endfunction()

# build(SOURCE NAME OPTION...): a project that finds the package, in TREE/NAME.
function(build source name)
  run(${CMAKE_COMMAND} -G Ninja -S ${source} -B ${TREE}/${name} -DCMAKE_PREFIX_PATH=${prefix}
      -DCMAKE_C_COMPILER=${C_COMPILER} -DCMAKE_CXX_COMPILER=${CXX_COMPILER} ${ARGN})
  run(${CMAKE_COMMAND} --build ${TREE}/${name} --parallel 2)
endfunction()

# ship_server(NAME): as an application does whose executables are in TREE/NAME.
function(ship_server name)
  file(COPY ${prefix}/libexec/vantor/crash_server DESTINATION ${TREE}/${name})
endfunction()

run(${CMAKE_COMMAND} --install ${BUILD} --prefix ${prefix})
file(GLOB_RECURSE installed RELATIVE ${prefix} ${prefix}/*)
list(FILTER installed EXCLUDE REGEX "VantorCrashTargets-[a-z]+\\.cmake$") # named after the kind of build
list(SORT installed)
set(expected
  bin/crash_collector bin/crash_doctor bin/crash_walker
  include/vantor/crash_client.h include/vantor/crash_client_c.h
  lib/cmake/VantorCrash/VantorCrashConfig.cmake lib/cmake/VantorCrash/VantorCrashConfigVersion.cmake
  lib/cmake/VantorCrash/VantorCrashTargets.cmake
  lib/libvantor_crash_client.a lib/libvantor_crash_client.so lib/libvantor_crash_client.so.0
  lib/pkgconfig/vantor-crash.pc
  libexec/vantor/crash_server)
if(NOT installed STREQUAL expected)
  message(FATAL_ERROR "Installed are\n${installed}\nand not\n${expected}")
endif()

# The examples by CMake.
set(examples ${SOURCE}/examples)
set(static -DVantorCrash_USE_STATIC_LIBS=ON)
build(${examples} shared)
build(${examples} static ${static})
ship_server(static)
build(${examples} plain ${static} "-DCMAKE_CXX_FLAGS=-fno-exceptions -fno-rtti")
ship_server(plain)
build(${examples} address -DCMAKE_CXX_FLAGS=-fsanitize=address -DCMAKE_C_FLAGS=-fsanitize=address)
build(${examples} thread -DCMAKE_CXX_FLAGS=-fsanitize=thread -DCMAKE_C_FLAGS=-fsanitize=thread)

# The one in C by pkg-config: shared, by the archive, and all of it static.
set(ENV{PKG_CONFIG_PATH} ${prefix}/lib/pkgconfig)
function(ask_pkg_config variable)
  execute_process(COMMAND ${PKG_CONFIG} ${ARGN} vantor-crash
    OUTPUT_VARIABLE answer OUTPUT_STRIP_TRAILING_WHITESPACE COMMAND_ERROR_IS_FATAL ANY)
  separate_arguments(answer)
  set(${variable} ${answer} PARENT_SCOPE)
endfunction()
function(compile name)
  run(${C_COMPILER} -std=c99 -Wall -Wextra -Wpedantic -Werror ${examples}/hello_crash.c -o ${TREE}/${name}/hello_crash_c
      ${ARGN})
endfunction()
ask_pkg_config(compile_options --cflags)
ask_pkg_config(link_options --libs)
ask_pkg_config(all_link_options --libs --static)
ask_pkg_config(library_directory --variable=libdir)
ask_pkg_config(server --variable=server)
foreach(name IN ITEMS c_shared c_archive c_static)
  file(MAKE_DIRECTORY ${TREE}/${name})
endforeach()
compile(c_shared ${compile_options} ${link_options} -Wl,-rpath,${library_directory})
compile(c_archive ${compile_options} ${library_directory}/libvantor_crash_client.a -lstdc++)
file(COPY ${server} DESTINATION ${TREE}/c_archive)
compile(c_static -static ${compile_options} ${all_link_options})
file(COPY ${server} DESTINATION ${TREE}/c_static)

# An application that was linked statically and is installed below the same prefix ships no server.
file(COPY ${TREE}/static/hello_crash DESTINATION ${prefix}/bin)

build(${CMAKE_CURRENT_LIST_DIR}/plugin plugin_shared)
build(${CMAKE_CURRENT_LIST_DIR}/plugin plugin_static ${static})
ship_server(plugin_static)
build(${CMAKE_CURRENT_LIST_DIR}/own_breakpad own_breakpad ${static}
  -DBREAKPAD_ARCHIVE=${BREAKPAD_ARCHIVE} -DBREAKPAD_SOURCE_DIR=${BREAKPAD_SOURCE_DIR})
ship_server(own_breakpad)
