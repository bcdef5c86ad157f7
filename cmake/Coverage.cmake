# Counters in our own code, for script/test --coverage. Threads count at the same time, so they are atomic.
add_link_options(--coverage)

# What counts links this, and writes its counters however it ends by itself.
add_library(vantor_coverage STATIC ${PROJECT_SOURCE_DIR}/tests/support/counted_end.cpp)
target_link_options(vantor_coverage INTERFACE
  LINKER:--wrap=_exit,--wrap=syscall
  LINKER:--undefined=__wrap__exit) # wherever it stands among the libraries
target_compile_options(vantor_flags INTERFACE -fprofile-arcs -ftest-coverage -fprofile-update=atomic)
target_link_libraries(vantor_flags INTERFACE vantor_coverage)

# Left out: a process that is killed at each of its system calls would be killed at hundreds that write counters; one
# that may write no file of more than 4 KB spoils them; of two threads that crash, the other one's signal may end the
# process while the first one's counters are written.
set(vantor_test_filter
  -ReportStoreKillTest.*:CrashDoctorTest.SeesASmallFileSize:*/ClientStatesTest.*/*_TwoThreads)
