# Where everything is installed, and how an application finds it: find_package(VantorCrash) or pkg-config.
include(GNUInstallDirs)
include(CMakePackageConfigHelpers)

# The crash server is no command: the client library starts it. It looks from its own place first, so that an
# installation may be moved; an application that linked it statically has the place that was built in.
set(server_directory ${CMAKE_INSTALL_LIBEXECDIR}/vantor)
set(VANTOR_INSTALLED_SERVER ${CMAKE_INSTALL_FULL_LIBEXECDIR}/vantor/crash_server)
file(RELATIVE_PATH VANTOR_SERVER_FROM_LIBRARY
  ${CMAKE_INSTALL_FULL_LIBDIR} ${VANTOR_INSTALLED_SERVER})
set(package_directory ${CMAKE_INSTALL_LIBDIR}/cmake/VantorCrash)

# To be called when the targets are there.
function(vantor_install)
  install(TARGETS crash_server RUNTIME DESTINATION ${server_directory})
  install(TARGETS crash_collector crash_walker) # the first finds the second beside itself
  install(TARGETS crash_doctor)
  install(TARGETS vantor_crash_client_shared vantor_crash_client_static
    EXPORT VantorCrashTargets
    INCLUDES DESTINATION ${CMAKE_INSTALL_INCLUDEDIR})
  install(DIRECTORY ${PROJECT_SOURCE_DIR}/client/include/vantor DESTINATION ${CMAKE_INSTALL_INCLUDEDIR})

  set(description ${PROJECT_BINARY_DIR}/package)
  install(EXPORT VantorCrashTargets NAMESPACE VantorCrash:: DESTINATION ${package_directory})
  configure_package_config_file(${PROJECT_SOURCE_DIR}/cmake/VantorCrashConfig.cmake.in
    ${description}/VantorCrashConfig.cmake
    INSTALL_DESTINATION ${package_directory}
    PATH_VARS server_directory)
  write_basic_package_version_file(${description}/VantorCrashConfigVersion.cmake
    VERSION ${VANTOR_VERSION} COMPATIBILITY SameMajorVersion)
  install(FILES ${description}/VantorCrashConfig.cmake ${description}/VantorCrashConfigVersion.cmake
    DESTINATION ${package_directory})

  file(RELATIVE_PATH prefix_from_pkgconfig ${CMAKE_INSTALL_FULL_LIBDIR}/pkgconfig ${CMAKE_INSTALL_PREFIX})
  string(REGEX REPLACE "/$" "" prefix_from_pkgconfig ${prefix_from_pkgconfig})
  configure_file(${PROJECT_SOURCE_DIR}/cmake/vantor-crash.pc.in ${description}/vantor-crash.pc @ONLY)
  install(FILES ${description}/vantor-crash.pc DESTINATION ${CMAKE_INSTALL_LIBDIR}/pkgconfig)
endfunction()
