# Includes run one way: common/ knows nobody, crash/ and collector/ know common/, buildinfo/ knows nobody, client/ knows
# the layout of annotations alone, tools/ knows common/ and the public headers; and libcurl's headers are included where
# it is wrapped. cmake -DSOURCE=... -P THIS

# expect_no_include(FOLDER PATTERN WHY): no file of the product in FOLDER includes what PATTERN matches.
function(expect_no_include folder pattern why)
  file(GLOB files ${SOURCE}/${folder}/*.h ${SOURCE}/${folder}/*.cpp)
  list(FILTER files EXCLUDE REGEX "_test\\.cpp$")
  list(LENGTH files count)
  if(count EQUAL 0)
    message(FATAL_ERROR "There are no sources in ${folder}.")
  endif()
  foreach(file IN LISTS files)
    file(STRINGS ${file} offending REGEX "#include [<\"](${pattern})")
    if(offending)
      message(SEND_ERROR "${file}: ${offending}\n${why}")
    endif()
  endforeach()
endfunction()

expect_no_include(common "crash/|buildinfo/|client/|collector/|tools/|tests/" "common/ stands at the bottom.")
expect_no_include(crash "buildinfo/|collector/|tools/|tests/|curl/" "crash/ includes common/ and Breakpad's dump server.")
expect_no_include(collector "crash/|buildinfo/|client/|tools/|tests/|curl/" "collector/ includes common/ and Breakpad's processor.")
expect_no_include(client "common/|buildinfo/|collector/|tools/|tests/|curl/|iostream|fstream|sstream"
  "client/ includes Breakpad's client and no streams: applications link it.")
expect_no_include(client "crash/[^c]|crash/c[^u]|crash/cu[^s]|crash/custom_data\\." "client/ takes the memory layout from crash/, nothing else.")
expect_no_include(tools/crash_doctor "crash/|client/|buildinfo/|collector/|tests/|curl/"
  "tools/ includes common/ and what applications include.")
expect_no_include(buildinfo "common/|crash/|collector/|tools/|tests/" "buildinfo/ knows nobody.")

file(GLOB files ${SOURCE}/common/*.h ${SOURCE}/common/*.cpp)
foreach(file IN LISTS files)
  file(STRINGS ${file} includes REGEX "#include [<\"](curl/curl\\.h|common/curl_library\\.h)")
  if(includes AND NOT file MATCHES "/(curl_library\\.h|curl_library\\.cpp|http_transfers\\.cpp)$")
    message(SEND_ERROR "${file}: ${includes}\nlibcurl shows in its wrapper and in the transfers alone.")
  endif()
endforeach()

file(GLOB files ${SOURCE}/client/*.h ${SOURCE}/client/*.cpp)
list(FILTER files EXCLUDE REGEX "_test\\.cpp$")
foreach(file IN LISTS files)
  file(STRINGS ${file} includes REGEX "#include \"crash/")
  list(FILTER includes EXCLUDE REGEX "crash/custom_data_entry\\.h")
  if(includes)
    message(SEND_ERROR "${file}: ${includes}\nOf crash/, client/ knows the layout of annotations alone.")
  endif()
endforeach()
