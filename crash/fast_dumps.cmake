# Breakpad's ptrace dumper with one function replaced: the object out of its archive, in which that function is made
# weak, and ours. As objects, not as an archive: they are linked whoever asks for what, and the archive's own copy of
# the dumper is then asked for by nobody. Without the weak symbol, as with a Breakpad that has no such function, the
# linker or the compiler complains.
find_program(GNU_OBJCOPY objcopy REQUIRED)
set(replaced_function _ZN15google_breakpad17LinuxPtraceDumper15CopyFromProcessEPviPKvm)
set(dumper linux_ptrace_dumper.cc.o)
set(weak_dumper ${CMAKE_CURRENT_BINARY_DIR}/weak_ptrace_dumper.o)
add_custom_command(
  OUTPUT ${weak_dumper}
  COMMAND ${CMAKE_AR} x $<TARGET_FILE:Breakpad::client> ${dumper}
  COMMAND ${GNU_OBJCOPY} --weaken-symbol=${replaced_function} ${dumper} ${weak_dumper}
  DEPENDS $<TARGET_FILE:Breakpad::client>
  BYPRODUCTS ${dumper}
  WORKING_DIRECTORY ${CMAKE_CURRENT_BINARY_DIR}
  VERBATIM)
add_custom_target(vantor_weak_dumper DEPENDS ${weak_dumper})

add_library(vantor_dumper_memory OBJECT dumper_memory.cpp)
target_link_libraries(vantor_dumper_memory PRIVATE vantor_flags Breakpad::client)

# To be linked into a program that shall dump fast.
add_library(vantor_fast_dumps INTERFACE)
add_dependencies(vantor_fast_dumps vantor_weak_dumper)
target_link_libraries(vantor_fast_dumps INTERFACE
  $<TARGET_OBJECTS:vantor_dumper_memory> ${weak_dumper} Breakpad::client)
