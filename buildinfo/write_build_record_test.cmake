# Runs write_build_record.cmake with given values: cmake -DSCRIPT=... -DDIRECTORY=... -P THIS

set(output ${DIRECTORY}/record_of_the_test.inc)

# write_record(RESULT ARGUMENT...): what the script writes, or "" when it refuses.
function(write_record result)
  file(REMOVE ${output})
  execute_process(
    COMMAND ${CMAKE_COMMAND} -DOUTPUT=${output} -DBUILD_TYPE=Final -DVERSION=1.2.3 ${ARGN} -P ${SCRIPT}
    ERROR_QUIET)
  set(text "")
  if(EXISTS ${output})
    file(READ ${output} text)
    file(REMOVE ${output})
  endif()
  set(${result} "${text}" PARENT_SCOPE)
endfunction()

set(ENV{SOURCE_DATE_EPOCH} 1700000000)
write_record(fixed "-DBUILT_BY=a\"b\\c" -DBUILT_ON=host -DCHANNEL=beta)
set(expected "R\"record(metadata {
build_type: \"Final\"
built_at: \"2023-11-14 22:13:20\"
build_timestamp: 1700000000.000000
built_by: \"a\\\"b\\\\c\"
built_on: \"host\"
}
version_metadata {
software_version: \"1.2.3\"
software_channel: \"beta\"
}
)record\"
")
if(NOT fixed STREQUAL expected)
  message(FATAL_ERROR "Given values give\n${fixed}\nand not\n${expected}")
endif()

unset(ENV{SOURCE_DATE_EPOCH})
string(TIMESTAMP before "%s" UTC)
write_record(now -DBUILT_BY= -DBUILT_ON= -DCHANNEL=beta)
string(TIMESTAMP after "%s" UTC)
if(NOT now MATCHES "build_timestamp: ([0-9]+)\\.[0-9][0-9][0-9][0-9][0-9][0-9]\n"
   OR CMAKE_MATCH_1 LESS before OR CMAKE_MATCH_1 GREATER after)
  message(FATAL_ERROR "Between ${before} and ${after} the record says\n${now}")
endif()
execute_process(COMMAND id -un OUTPUT_VARIABLE user OUTPUT_STRIP_TRAILING_WHITESPACE)
cmake_host_system_information(RESULT host QUERY HOSTNAME)
if(NOT now MATCHES "built_by: \"${user}\"\nbuilt_on: \"${host}\"\n")
  message(FATAL_ERROR "On ${host}, ${user} gets\n${now}")
endif()

write_record(refused "-DBUILT_BY=a\nb" -DBUILT_ON=host -DCHANNEL=beta)
if(NOT refused STREQUAL "")
  message(FATAL_ERROR "A name with a line feed is accepted:\n${refused}")
endif()
