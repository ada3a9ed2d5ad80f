# Installation: the library, its headers, a CMake package and a pkg-config file.
#
#   <prefix>/include/zk.h, include/zk/*.h
#   <prefix>/lib/libqaxkrnl.so*            (Linux, versioned soname)
#   <prefix>/bin/qaxkrnl.dll               (Windows) with lib/libqaxkrnl.dll.a and
#   <prefix>/lib/qaxkrnl.def               for Microsoft's lib /def:qaxkrnl.def
#   <prefix>/lib/cmake/qaxkrnl/            find_package(qaxkrnl 1.0 CONFIG) -> qaxkrnl::qaxkrnl
#   <prefix>/lib/pkgconfig/qaxkrnl.pc
include(GNUInstallDirs)
include(CMakePackageConfigHelpers)

set(ZK_CMAKE_DIR ${CMAKE_INSTALL_LIBDIR}/cmake/qaxkrnl)

install(TARGETS qaxkrnl EXPORT qaxkrnlTargets
  RUNTIME DESTINATION ${CMAKE_INSTALL_BINDIR}
  LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR}
  ARCHIVE DESTINATION ${CMAKE_INSTALL_LIBDIR}
  # The installed headers' folder, relative to the prefix or absolute.
  INCLUDES DESTINATION ${CMAKE_INSTALL_INCLUDEDIR})
install(DIRECTORY ${CMAKE_SOURCE_DIR}/include/ DESTINATION ${CMAKE_INSTALL_INCLUDEDIR}
  FILES_MATCHING PATTERN "*.h")
if(WIN32)
  install(FILES ${CMAKE_SOURCE_DIR}/platform/win32/qaxkrnl.def
    DESTINATION ${CMAKE_INSTALL_LIBDIR})
endif()

install(EXPORT qaxkrnlTargets NAMESPACE qaxkrnl:: DESTINATION ${ZK_CMAKE_DIR})
configure_package_config_file(${CMAKE_SOURCE_DIR}/cmake/qaxkrnlConfig.cmake.in
  ${CMAKE_BINARY_DIR}/generated/qaxkrnlConfig.cmake INSTALL_DESTINATION ${ZK_CMAKE_DIR})
# Any 1.x satisfies find_package(qaxkrnl 1.0).
write_basic_package_version_file(${CMAKE_BINARY_DIR}/generated/qaxkrnlConfigVersion.cmake
  VERSION ${PROJECT_VERSION} COMPATIBILITY SameMajorVersion)
install(FILES ${CMAKE_BINARY_DIR}/generated/qaxkrnlConfig.cmake
  ${CMAKE_BINARY_DIR}/generated/qaxkrnlConfigVersion.cmake DESTINATION ${ZK_CMAKE_DIR})

# pkg-config. With a relative library folder the prefix is worked out from
# the .pc file's own place, so an installed tree can be moved. An absolute
# library folder (such as /usr/local/lib64) fixes the .pc file's place, so
# the prefix is then written as installed: the file is made at install time,
# when the prefix given to cmake --install is known. Each of libdir and
# includedir is used as it is when absolute, else placed under the prefix.
if(IS_ABSOLUTE "${CMAKE_INSTALL_LIBDIR}")
  set(ZK_PC_PREFIX "@ZK_INSTALL_PREFIX@")
  set(ZK_PC_LIBDIR "${CMAKE_INSTALL_LIBDIR}")
else()
  file(RELATIVE_PATH ZK_PC_TO_PREFIX /prefix/${CMAKE_INSTALL_LIBDIR}/pkgconfig /prefix)
  string(REGEX REPLACE "/$" "" ZK_PC_TO_PREFIX "${ZK_PC_TO_PREFIX}")
  set(ZK_PC_PREFIX "\${pcfiledir}/${ZK_PC_TO_PREFIX}")
  set(ZK_PC_LIBDIR "\${prefix}/${CMAKE_INSTALL_LIBDIR}")
endif()
if(IS_ABSOLUTE "${CMAKE_INSTALL_INCLUDEDIR}")
  set(ZK_PC_INCLUDEDIR "${CMAKE_INSTALL_INCLUDEDIR}")
else()
  set(ZK_PC_INCLUDEDIR "\${prefix}/${CMAKE_INSTALL_INCLUDEDIR}")
endif()
configure_file(${CMAKE_SOURCE_DIR}/cmake/qaxkrnl.pc.in ${CMAKE_BINARY_DIR}/generated/qaxkrnl.pc.in
  @ONLY)
# The install-time step: fills in the prefix where the file names it (and
# leaves a relocatable file as it is).
install(CODE "
  set(ZK_INSTALL_PREFIX \"\${CMAKE_INSTALL_PREFIX}\")
  configure_file(\"${CMAKE_BINARY_DIR}/generated/qaxkrnl.pc.in\"
    \"${CMAKE_BINARY_DIR}/generated/qaxkrnl.pc\" @ONLY)")
install(FILES ${CMAKE_BINARY_DIR}/generated/qaxkrnl.pc
  DESTINATION ${CMAKE_INSTALL_LIBDIR}/pkgconfig)
