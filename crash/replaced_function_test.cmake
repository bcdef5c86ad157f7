# A function of Breakpad's comes from a source of ours in a program. cmake -DNM=... -DADDR2LINE=... -DPROGRAM=...
# -DFUNCTION=... -DSOURCE=... -P THIS

cmake_minimum_required(VERSION 3.25)

execute_process(COMMAND ${NM} ${PROGRAM} OUTPUT_VARIABLE listing COMMAND_ERROR_IS_FATAL ANY)
if(NOT listing MATCHES "(^|\n)([0-9a-f]+) [A-Za-z] ${FUNCTION}\n")
  message(FATAL_ERROR "${PROGRAM} has no ${FUNCTION}.")
endif()
execute_process(COMMAND ${ADDR2LINE} -e ${PROGRAM} ${CMAKE_MATCH_2} OUTPUT_VARIABLE line COMMAND_ERROR_IS_FATAL ANY)
if(NOT line MATCHES "/${SOURCE}:[0-9]+")
  message(FATAL_ERROR "${PROGRAM} has ${FUNCTION} from ${line}")
endif()
