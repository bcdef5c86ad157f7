# Builds the server twice, in two directories, at one SOURCE_DATE_EPOCH, and compares the files byte for byte:
#   cmake -DSOURCE=... -DDIRECTORY=... -DC_COMPILER=... -DCXX_COMPILER=... -P THIS

set(ENV{SOURCE_DATE_EPOCH} 1700000000)
foreach(name IN ITEMS first a_second_longer)
  set(build ${DIRECTORY}/${name})
  file(REMOVE_RECURSE ${build})
  execute_process(
    COMMAND ${CMAKE_COMMAND} -S ${SOURCE} -B ${build} -G Ninja -DVANTOR_BUILD_TESTS=OFF
            -DCMAKE_C_COMPILER=${C_COMPILER} -DCMAKE_CXX_COMPILER=${CXX_COMPILER}
    COMMAND_ERROR_IS_FATAL ANY)
  execute_process(COMMAND ${CMAKE_COMMAND} --build ${build} --target crash_server COMMAND_ERROR_IS_FATAL ANY)
  list(APPEND servers ${build}/crash/crash_server)
endforeach()

execute_process(COMMAND ${CMAKE_COMMAND} -E compare_files ${servers} RESULT_VARIABLE differ)
if(differ)
  message(FATAL_ERROR "The two servers differ; they stay in ${DIRECTORY} to be compared.")
endif()
file(REMOVE_RECURSE ${DIRECTORY})
