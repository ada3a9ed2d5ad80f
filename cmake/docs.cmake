# The API reference: "cmake --build <dir> --target docs" renders the public
# headers and the guides with Doxygen into <dir>/doxygen/html, from the same
# settings as "doxygen docs/Doxyfile" (which renders into build-doxygen/).
find_package(Doxygen QUIET)
if(DOXYGEN_FOUND)
  set(ZK_DOXYFILE ${CMAKE_BINARY_DIR}/generated/Doxyfile)
  file(WRITE ${ZK_DOXYFILE}
    "@INCLUDE = ${CMAKE_SOURCE_DIR}/docs/Doxyfile\nOUTPUT_DIRECTORY = ${CMAKE_BINARY_DIR}/doxygen\n")
  add_custom_target(docs
    COMMAND ${CMAKE_COMMAND} -E make_directory ${CMAKE_BINARY_DIR}/doxygen
    COMMAND Doxygen::doxygen ${ZK_DOXYFILE}
    WORKING_DIRECTORY ${CMAKE_SOURCE_DIR}
    COMMENT "Rendering the API reference into ${CMAKE_BINARY_DIR}/doxygen/html"
    VERBATIM)
endif()
