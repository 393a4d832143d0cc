# Builds the Debian package of the build tree into OUT (a fresh directory).
file(REMOVE_RECURSE ${OUT})
file(MAKE_DIRECTORY ${OUT})
execute_process(COMMAND ${CPACK} -G DEB --config ${BINARY_DIR}/CPackConfig.cmake -B ${OUT}
                RESULT_VARIABLE rc)
if(NOT rc EQUAL 0)
  message(FATAL_ERROR "cpack -G DEB failed (${rc})")
endif()
file(GLOB debs ${OUT}/*.deb)
list(LENGTH debs n)
if(NOT n EQUAL 1)
  message(FATAL_ERROR "expected one .deb in ${OUT}, found: ${debs}")
endif()
