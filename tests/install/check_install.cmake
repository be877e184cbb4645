# Installs the built library into a scratch prefix, then configures, builds and runs a tiny host
# project that only knows find_package(mvda): the program the reference guide quotes.
file(REMOVE_RECURSE ${WORK_DIR})
execute_process(COMMAND ${CMAKE_COMMAND} --install ${BUILD_DIR} --prefix ${WORK_DIR}/prefix
                RESULT_VARIABLE rc OUTPUT_QUIET)
if(rc)
  message(FATAL_ERROR "install failed: ${rc}")
endif()
execute_process(COMMAND ${CMAKE_COMMAND} -S ${SOURCE_DIR}/tests/install/consumer -B ${WORK_DIR}/build
                        -G ${GENERATOR} -DCMAKE_PREFIX_PATH=${WORK_DIR}/prefix
                RESULT_VARIABLE rc)
if(rc)
  message(FATAL_ERROR "consumer configure failed: ${rc}")
endif()
execute_process(COMMAND ${CMAKE_COMMAND} --build ${WORK_DIR}/build RESULT_VARIABLE rc)
if(rc)
  message(FATAL_ERROR "consumer build failed: ${rc}")
endif()
execute_process(COMMAND ${WORK_DIR}/build/consumer RESULT_VARIABLE rc OUTPUT_VARIABLE out)
# Two hidden factors: two components kept, the progress reporter driven, the streamed model equal.
if(NOT rc EQUAL 0 OR NOT out MATCHES "kept 2, progress updates seen, streamed model identical")
  message(FATAL_ERROR "consumer run failed (${rc}): ${out}")
endif()
