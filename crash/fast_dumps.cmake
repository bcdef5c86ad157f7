# Breakpad's dumper with some functions replaced. Its archive has them as weak symbols (third_party/breakpad), and our
# objects, which are linked whoever asks for what, have them as strong ones. With a Breakpad that has no such function
# the compiler complains.
set(write_minidump _ZN15google_breakpad13WriteMinidumpEPKciPKvmbmb)

# Symbol and source of what is replaced; crash_server's are looked at in a test.
set(replaced_functions
  _ZN15google_breakpad17LinuxPtraceDumper15CopyFromProcessEPviPKvm crash/dumper_memory.cpp
  _ZN15google_breakpad18MinidumpFileWriter4CopyEjPKvl crash/dumper_file.cpp
  _ZN15google_breakpad18MinidumpFileWriter5CloseEv crash/dumper_file.cpp
  _ZN15google_breakpad16MemoryMappedFile3MapEPKcm crash/dumper_modules.cpp
  _ZN15google_breakpad16MemoryMappedFile5UnmapEv crash/dumper_modules.cpp
  ${write_minidump} crash/dump_in_progress.cpp)

# This one ours calls, by another name: in a copy of the object that has it.
find_program(GNU_OBJCOPY objcopy REQUIRED)
set(renamed_object ${CMAKE_CURRENT_BINARY_DIR}/renamed_minidump_writer.cc.o)
add_custom_command(
  OUTPUT ${renamed_object}
  COMMAND ${CMAKE_AR} x $<TARGET_FILE:Breakpad::client> minidump_writer.cc.o
  COMMAND ${GNU_OBJCOPY}
          --redefine-sym ${write_minidump}=_ZN15google_breakpad21writeMinidumpInPiecesEPKciPKvmbmb
          minidump_writer.cc.o ${renamed_object}
  DEPENDS $<TARGET_FILE:Breakpad::client>
  BYPRODUCTS minidump_writer.cc.o
  WORKING_DIRECTORY ${CMAKE_CURRENT_BINARY_DIR}
  VERBATIM)
add_custom_target(vantor_renamed_object DEPENDS ${renamed_object})

add_library(vantor_dumper OBJECT
  dump_in_progress.cpp
  dumper_file.cpp
  dumper_memory.cpp
  dumper_modules.cpp)
target_link_libraries(vantor_dumper PRIVATE vantor_flags Breakpad::client)

# To be linked into a program that shall dump fast.
add_library(vantor_fast_dumps INTERFACE)
add_dependencies(vantor_fast_dumps vantor_renamed_object)
target_link_libraries(vantor_fast_dumps INTERFACE
  $<TARGET_OBJECTS:vantor_dumper> ${renamed_object} Breakpad::client)
