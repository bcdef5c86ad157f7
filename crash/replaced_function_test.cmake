# A program has our definition of a function of which Breakpad's is weak. cmake -DNM=... -DPROGRAM=... -DFUNCTION=... -P
# THIS

cmake_minimum_required(VERSION 3.25)

execute_process(COMMAND ${NM} ${PROGRAM} OUTPUT_VARIABLE listing COMMAND_ERROR_IS_FATAL ANY)
string(REGEX MATCH "[^\n]* [A-Za-z] ${FUNCTION}\n" line "${listing}")
if(NOT line MATCHES " T ")
  message(SEND_ERROR "${PROGRAM} runs Breakpad's own ${FUNCTION}: '${line}'.")
endif()
