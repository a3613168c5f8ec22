# Installs the build tree into a scratch prefix, builds the host project against the
# installed package alone, and runs it on a model.
file(REMOVE_RECURSE ${WORK})
file(MAKE_DIRECTORY ${WORK})

function(run)
  execute_process(COMMAND ${ARGN} RESULT_VARIABLE status OUTPUT_VARIABLE out ERROR_VARIABLE err)
  if(NOT status EQUAL 0)
    message(FATAL_ERROR "${ARGN} failed with ${status}:\n${out}\n${err}")
  endif()
endfunction()

run(${CMAKE_COMMAND} --install ${BUILD} --prefix ${WORK}/prefix)
foreach(installed include/hemiray/raytracing.h bin/hemiray lib/cmake/hemiray/hemirayConfig.cmake)
  if(NOT EXISTS ${WORK}/prefix/${installed})
    message(FATAL_ERROR "not installed: ${installed}")
  endif()
endforeach()
run(${CMAKE_COMMAND} -S ${HOST_PROJECT} -B ${WORK}/host -DCMAKE_PREFIX_PATH=${WORK}/prefix
    -DHOST_SOURCE=${HOST_SOURCE} -DCMAKE_BUILD_TYPE=Release)
run(${CMAKE_COMMAND} --build ${WORK}/host)
file(COPY ${MODEL} DESTINATION ${WORK})
get_filename_component(name ${MODEL} NAME)
run(${WORK}/host/host ${WORK}/${name})
# The installed tool runs too.
run(${WORK}/prefix/bin/hemiray check ${WORK}/${name})
