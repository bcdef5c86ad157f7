# Members of an archive refer to no function but each other's: not the C library's, not a sanitizer's, not a compiler's
# own. cmake -DNM=... -DARCHIVE=... -DSOURCES=NAME;... -P THIS

cmake_minimum_required(VERSION 3.25)

execute_process(COMMAND ${NM} --undefined-only --demangle ${ARCHIVE}
  OUTPUT_VARIABLE listing COMMAND_ERROR_IS_FATAL ANY)
string(REPLACE "\n" ";" lines "${listing}")
set(member "")
set(seen "")
foreach(line IN LISTS lines)
  if(line MATCHES "^(.+)\\.o:$")
    set(member ${CMAKE_MATCH_1})
    list(APPEND seen ${member})
  elseif(member IN_LIST SOURCES AND line MATCHES "U (.+)$")
    set(name ${CMAKE_MATCH_1})
    if(NOT name MATCHES "^vantor::client::|^_GLOBAL_OFFSET_TABLE_$")
      message(SEND_ERROR "${member} calls ${name}, which may use the thread-local data of the application.")
    endif()
  endif()
endforeach()
foreach(source IN LISTS SOURCES)
  if(NOT source IN_LIST seen)
    message(SEND_ERROR "${ARCHIVE} has no ${source}.")
  endif()
endforeach()
