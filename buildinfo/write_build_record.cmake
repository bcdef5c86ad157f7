# Writes build_record.inc, the build record as a C++ string literal. Runs in the build, whenever what is linked has changed:
#   cmake -DOUTPUT=FILE -DBUILD_TYPE=... -DBUILT_BY=... -DBUILT_ON=... -DVERSION=... -DCHANNEL=... -P THIS
# The time is now, or what the environment variable SOURCE_DATE_EPOCH says (in seconds), for builds that are repeated.

string(TIMESTAMP now "%s %f %Y-%m-%d %H:%M:%S" UTC)
if(NOT now MATCHES "^([0-9]+) ([0-9]+) (.*)$")
  message(FATAL_ERROR "Cannot tell the time: '${now}'.")
endif()
set(seconds ${CMAKE_MATCH_1})
set(microseconds ${CMAKE_MATCH_2})
set(built_at ${CMAKE_MATCH_3})
if(DEFINED ENV{SOURCE_DATE_EPOCH})
  set(microseconds "000000")
endif()

if(BUILT_BY STREQUAL "")
  execute_process(COMMAND id -un OUTPUT_VARIABLE BUILT_BY OUTPUT_STRIP_TRAILING_WHITESPACE COMMAND_ERROR_IS_FATAL ANY)
endif()
if(BUILT_ON STREQUAL "")
  cmake_host_system_information(RESULT BUILT_ON QUERY HOSTNAME)
endif()

# A quoted string of the text format.
function(quote value result)
  if(NOT value MATCHES "^[ -~]+$")
    message(FATAL_ERROR "The build record takes printable ASCII alone, not '${value}'. "
                        "Set VANTOR_BUILT_BY, VANTOR_BUILT_ON or VANTOR_CHANNEL.")
  endif()
  string(REPLACE "\\" "\\\\" value "${value}")
  string(REPLACE "\"" "\\\"" value "${value}")
  set(${result} "\"${value}\"" PARENT_SCOPE)
endfunction()

quote("${BUILD_TYPE}" build_type)
quote("${BUILT_BY}" built_by)
quote("${BUILT_ON}" built_on)
quote("${VERSION}" version)
quote("${CHANNEL}" channel)

set(record "metadata {
build_type: ${build_type}
built_at: \"${built_at}\"
build_timestamp: ${seconds}.${microseconds}
built_by: ${built_by}
built_on: ${built_on}
}
version_metadata {
software_version: ${version}
software_channel: ${channel}
}
")
file(WRITE ${OUTPUT} "R\"record(${record})record\"\n")
