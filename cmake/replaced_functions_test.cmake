# Functions of Breakpad's come from sources of ours in a program. cmake -DNM=... -DADDR2LINE=... -DPROGRAM=...
# -DREPLACED="FUNCTION;SOURCE;..." -P THIS

cmake_minimum_required(VERSION 3.25)

execute_process(COMMAND ${NM} ${PROGRAM} OUTPUT_VARIABLE listing COMMAND_ERROR_IS_FATAL ANY)
if(NOT REPLACED)
  message(FATAL_ERROR "Nothing to look for.")
endif()
while(REPLACED)
  list(POP_FRONT REPLACED function source)
  if(NOT listing MATCHES "(^|\n)([0-9a-f]+) [A-Za-z] ${function}\n")
    message(FATAL_ERROR "${PROGRAM} has no ${function}.")
  endif()
  execute_process(COMMAND ${ADDR2LINE} -e ${PROGRAM} ${CMAKE_MATCH_2} OUTPUT_VARIABLE line COMMAND_ERROR_IS_FATAL ANY)
  if(NOT line MATCHES "/${source}:[0-9]+")
    message(FATAL_ERROR "${PROGRAM} has ${function} from ${line}")
  endif()
endwhile()
