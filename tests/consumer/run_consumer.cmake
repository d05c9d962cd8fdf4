# Installs the build tree into WORK_DIR/prefix and builds and runs the consumer against it.
file(REMOVE_RECURSE ${WORK_DIR})
execute_process(COMMAND ${CMAKE_COMMAND} --install ${BUILD_DIR} --prefix ${WORK_DIR}/prefix
                RESULT_VARIABLE rc OUTPUT_QUIET)
if(rc)
  message(FATAL_ERROR "install failed: ${rc}")
endif()
execute_process(COMMAND ${CMAKE_COMMAND} -S ${SOURCE_DIR} -B ${WORK_DIR}/build
                        -DCMAKE_PREFIX_PATH=${WORK_DIR}/prefix -DCMAKE_BUILD_TYPE=Release
                RESULT_VARIABLE rc)
if(rc)
  message(FATAL_ERROR "configure failed: ${rc}")
endif()
execute_process(COMMAND ${CMAKE_COMMAND} --build ${WORK_DIR}/build RESULT_VARIABLE rc)
if(rc)
  message(FATAL_ERROR "build failed: ${rc}")
endif()
execute_process(COMMAND ${WORK_DIR}/build/consumer RESULT_VARIABLE rc)
if(rc)
  message(FATAL_ERROR "consumer failed: ${rc}")
endif()
# pkg-config files are installed and name both libraries.
if(NOT EXISTS ${WORK_DIR}/prefix/lib/pkgconfig/kv_cv.pc AND NOT EXISTS ${WORK_DIR}/prefix/lib/x86_64-linux-gnu/pkgconfig/kv_cv.pc)
  message(FATAL_ERROR "kv_cv.pc not installed")
endif()
