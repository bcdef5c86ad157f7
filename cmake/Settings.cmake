# What a builder may choose. Each is a cache variable: cmake -DVANTOR_...=...

set(VANTOR_CRASH_COLLECTION_URL "https://localhost:8443" CACHE STRING
    "Base URL of the crash collection server: https, no slash at the end")
set(VANTOR_STORAGE_NAME "vantor" CACHE STRING
    "Name of the local storage directory; products of different makers must not share it")
set(VANTOR_VERSION "0.1.0" CACHE STRING "Software version in the build record: three numbers")
set(VANTOR_CHANNEL "dev" CACHE STRING "Release channel in the build record")
set(VANTOR_BUILD_TYPE "Development" CACHE STRING "Kind of build in the build record: one word")
set(VANTOR_BUILT_BY "" CACHE STRING "Who builds, in the build record; empty: the user who runs the build")
set(VANTOR_BUILT_ON "" CACHE STRING "Build machine in the build record; empty: this host's name")

set(VANTOR_BREAKPAD_DIR "" CACHE PATH
    "A folder with Breakpad's sources (breakpad/ and third_party/lss/ below it); empty: the pinned npm package")
set(VANTOR_SANITIZE "" CACHE STRING "Sanitizers for our own code, for instance address,undefined or thread")
option(VANTOR_COVERAGE "Count the lines and branches of our own code that are reached; needs GCC" OFF)
option(VANTOR_FAST_DUMPS "Replace the functions of Breakpad's dumper that read and write word by word" ON)
option(VANTOR_BUILD_TESTS "Build the tests and what they run" ON)
option(VANTOR_BUILD_FUZZERS "Build the fuzz targets: with Clang, and fuzzer-no-link among VANTOR_SANITIZE" OFF)
option(VANTOR_BUILD_BENCHMARKS "Build the benchmarks and their yardsticks" OFF)

# Tests of the very programs that ship have nothing to show in other builds.
set(vantor_is_as_shipped ON)
if(VANTOR_SANITIZE OR VANTOR_COVERAGE)
  set(vantor_is_as_shipped OFF)
endif()

if(NOT CMAKE_BUILD_TYPE)
  set(CMAKE_BUILD_TYPE RelWithDebInfo CACHE STRING "Kind of build" FORCE)
endif()

if(NOT VANTOR_CRASH_COLLECTION_URL MATCHES "^https://[^/]+(/.*[^/])?$")
  message(FATAL_ERROR "VANTOR_CRASH_COLLECTION_URL must be an https URL without a slash at its end, "
                      "such as https://crash.example.com; it is '${VANTOR_CRASH_COLLECTION_URL}'.")
endif()
if(NOT VANTOR_STORAGE_NAME MATCHES "^[A-Za-z0-9_][A-Za-z0-9._-]*$")
  message(FATAL_ERROR "VANTOR_STORAGE_NAME must be one plain directory name; it is '${VANTOR_STORAGE_NAME}'.")
endif()
if(NOT VANTOR_VERSION MATCHES "^[0-9]+\\.[0-9]+\\.[0-9]+$")
  message(FATAL_ERROR "VANTOR_VERSION must be three numbers with dots between them; it is '${VANTOR_VERSION}'.")
endif()
if(NOT VANTOR_BUILD_TYPE MATCHES "^[A-Za-z]+$")
  message(FATAL_ERROR "VANTOR_BUILD_TYPE must be one word; it is '${VANTOR_BUILD_TYPE}'.")
endif()
