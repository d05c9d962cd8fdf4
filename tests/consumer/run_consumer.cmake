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
# The installed tool starts without LD_LIBRARY_PATH (its RPATH points at the
# installed libraries) and does real work with them.
if(EXISTS ${WORK_DIR}/prefix/bin/kvcv)
  file(WRITE ${WORK_DIR}/in.gray "abcdefghijkl")  # a 4x3 gray frame
  execute_process(COMMAND ${CMAKE_COMMAND} -E env --unset=LD_LIBRARY_PATH
                          ${WORK_DIR}/prefix/bin/kvcv resize ${WORK_DIR}/in.gray ${WORK_DIR}/out.gray
                          --in-format gray --in-size 4x3 --size 2x2 --backend fast
                  RESULT_VARIABLE rc OUTPUT_VARIABLE out ERROR_VARIABLE err)
  if(rc)
    message(FATAL_ERROR "installed kvcv failed (${rc}): ${out}${err}")
  endif()
  file(SIZE ${WORK_DIR}/out.gray out_size)
  if(NOT out_size EQUAL 4)
    message(FATAL_ERROR "installed kvcv wrote ${out_size} bytes, expected 4")
  endif()
endif()
