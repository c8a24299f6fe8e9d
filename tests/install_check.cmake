# Installs the build into a scratch prefix, then configures, builds and runs
# examples/host against it the way a user's project would.
file(REMOVE_RECURSE ${WORK_DIR})
function(run)
  execute_process(COMMAND ${ARGN} RESULT_VARIABLE rc OUTPUT_VARIABLE out ERROR_VARIABLE err)
  if(NOT rc EQUAL 0)
    message(FATAL_ERROR "failed: ${ARGN}\n${out}\n${err}")
  endif()
  set(last_output "${out}" PARENT_SCOPE)
endfunction()
run(${CMAKE_COMMAND} --install ${BINARY_DIR} --prefix ${WORK_DIR}/prefix)
foreach(f lib/libcorvane.so include/corvane/corvane.h lib/cmake/corvane/corvane-config.cmake
          lib/pkgconfig/corvane.pc)
  if(NOT EXISTS ${WORK_DIR}/prefix/${f})
    message(FATAL_ERROR "not installed: ${f}")
  endif()
endforeach()
run(${CMAKE_COMMAND} -S ${SOURCE_DIR}/examples/host -B ${WORK_DIR}/build -G Ninja
    -DCMAKE_PREFIX_PATH=${WORK_DIR}/prefix)
run(${CMAKE_COMMAND} --build ${WORK_DIR}/build)
run(${WORK_DIR}/build/host)
message(STATUS "host printed: ${last_output}")
