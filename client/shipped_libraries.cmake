# The client library as applications get it: libvantor_crash_client.so.0 and libvantor_crash_client.a. Both hold what
# they need of Breakpad, and show the calls of vantor/crash_client_c.h and nothing else, so that an application may have
# a Breakpad of its own, of whatever version.
set(shipped_calls vantor_crash_*)

# It stays loaded, since its signal handlers may be called at any time. It finds all functions when it is loaded: a
# process that crashes, or one that shares its memory, looks up no names.
add_library(vantor_crash_client_shared SHARED $<TARGET_OBJECTS:vantor_crash_client_objects>)
set(version_script ${CMAKE_CURRENT_BINARY_DIR}/exported_calls.map)
file(CONFIGURE OUTPUT ${version_script} CONTENT "{ global: @shipped_calls@; local: *; };\n" @ONLY)
target_link_libraries(vantor_crash_client_shared PRIVATE vantor_flags Breakpad::client)
target_link_options(vantor_crash_client_shared PRIVATE
  LINKER:--version-script=${version_script} LINKER:-z,nodelete ${vantor_hardened_link})
set_target_properties(vantor_crash_client_shared PROPERTIES
  OUTPUT_NAME vantor_crash_client SOVERSION 0 EXPORT_NAME client_shared LINK_DEPENDS ${version_script})

# One object in an archive. Functions that the compiler put into groups, to be had once in a program, become the
# object's own: a group that a linker leaves out in favour of an application's would leave calls without a target. GNU's
# linker can do that, whichever one links the rest.
find_program(GNU_LD ld.bfd REQUIRED)
find_program(GNU_OBJCOPY objcopy REQUIRED)
set(relocatable ${CMAKE_CURRENT_BINARY_DIR}/crash_client.o)
add_custom_command(
  OUTPUT ${relocatable}
  COMMAND ${GNU_LD} -r --force-group-allocation -o ${relocatable}
          $<TARGET_OBJECTS:vantor_crash_client_objects> $<TARGET_FILE:Breakpad::client>
  COMMAND ${GNU_OBJCOPY} --wildcard --keep-global-symbol=${shipped_calls} ${relocatable}
  DEPENDS $<TARGET_OBJECTS:vantor_crash_client_objects> $<TARGET_FILE:Breakpad::client>
  COMMAND_EXPAND_LISTS VERBATIM)
set_source_files_properties(${relocatable} PROPERTIES EXTERNAL_OBJECT ON GENERATED ON)
add_library(vantor_crash_client_static STATIC ${relocatable})
set_target_properties(vantor_crash_client_static PROPERTIES
  OUTPUT_NAME vantor_crash_client
  ARCHIVE_OUTPUT_DIRECTORY ${CMAKE_CURRENT_BINARY_DIR}/shipped # beside the one that tests link
  LINKER_LANGUAGE C # so that an application in C can link it
  EXPORT_NAME client_static)
target_link_libraries(vantor_crash_client_static INTERFACE stdc++)
