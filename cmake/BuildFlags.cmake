# How our own code is compiled. Third-party code links none of this.

set(CMAKE_CXX_STANDARD 20)
set(CMAKE_CXX_STANDARD_REQUIRED ON)
set(CMAKE_CXX_EXTENSIONS OFF)
set(CMAKE_VISIBILITY_INLINES_HIDDEN ON) # the crash server exports its functions; copies of inline ones are no use
set(CMAKE_EXPORT_COMPILE_COMMANDS ON)
find_package(Threads REQUIRED)

# Everything of ours links this: warnings are errors, Clang checks the lock annotations, and no path of the
# building machine gets into a file.
add_library(vantor_flags INTERFACE)
target_include_directories(vantor_flags INTERFACE ${PROJECT_SOURCE_DIR})
target_compile_options(vantor_flags INTERFACE
  -Wall -Wextra -Wpedantic -Wshadow -Wconversion -Wnon-virtual-dtor -Woverloaded-virtual -Werror
  $<$<CXX_COMPILER_ID:Clang>:-Wthread-safety>
  -gdwarf-4 # in DWARF 5, dump_syms finds no lines for the functions that GCC splits in two
  -ffile-prefix-map=${PROJECT_SOURCE_DIR}/=
  -ffile-prefix-map=${PROJECT_BINARY_DIR}=.)
target_link_libraries(vantor_flags INTERFACE Threads::Threads)

# Hardening; what each is good for, and what is left out, is in docs/security.md. The checks of the C library need an
# optimiser, and where a sanitizer checks, they would be in its way.
target_compile_options(vantor_flags INTERFACE
  -fstack-protector-strong -fstack-clash-protection
  $<$<NOT:$<BOOL:$<TARGET_PROPERTY:POSITION_INDEPENDENT_CODE>>>:-fPIE>)
if(NOT VANTOR_SANITIZE)
  target_compile_options(vantor_flags INTERFACE
    $<$<NOT:$<CONFIG:Debug>>:-U_FORTIFY_SOURCE> $<$<NOT:$<CONFIG:Debug>>:-D_FORTIFY_SOURCE=3>)
endif()

# What ships is linked with these: no table that decides where a call goes can be written once it runs, no stack can be
# executed, and no code is changed while it is loaded.
set(vantor_hardened_link LINKER:-z,relro LINKER:-z,now LINKER:-z,noexecstack LINKER:-z,text)
add_library(vantor_program_flags INTERFACE)
target_link_libraries(vantor_program_flags INTERFACE vantor_flags)
target_link_options(vantor_program_flags INTERFACE -pie ${vantor_hardened_link})

if(VANTOR_SANITIZE)
  target_compile_options(vantor_flags INTERFACE
    -fsanitize=${VANTOR_SANITIZE} -fno-sanitize-recover=all -fno-omit-frame-pointer)
  target_link_options(vantor_flags INTERFACE -fsanitize=${VANTOR_SANITIZE})
endif()
set(vantor_test_filter *)
if(VANTOR_COVERAGE)
  include(Coverage) # which leaves some out
endif()

if(VANTOR_BUILD_TESTS)
  enable_testing()
  find_package(GTest REQUIRED)
  include(GoogleTest)
endif()

# vantor_add_test(NAME SOURCE... LIBRARIES LIBRARY... [TIMEOUT SECONDS])
# One executable of unit tests; every test in it is a test of CTest's, with a time limit.
function(vantor_add_test name)
  if(NOT VANTOR_BUILD_TESTS)
    return()
  endif()
  cmake_parse_arguments(PARSE_ARGV 1 arg "" "TIMEOUT" "LIBRARIES")
  if(NOT arg_TIMEOUT)
    set(arg_TIMEOUT 60)
  endif()
  add_executable(${name} ${arg_UNPARSED_ARGUMENTS})
  target_link_libraries(${name} PRIVATE vantor_flags ${arg_LIBRARIES} GTest::gmock GTest::gtest_main)
  gtest_discover_tests(${name} TEST_PREFIX ${name}. TEST_FILTER ${vantor_test_filter}
    PROPERTIES TIMEOUT ${arg_TIMEOUT} DISCOVERY_TIMEOUT 60)
endfunction()
