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
foreach(installed include/hemiray/raytracing.h include/hemiray/version.h bin/hemiray
                  lib/cmake/hemiray/hemirayConfig.cmake lib/pkgconfig/hemiray.pc)
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

# The tool, the version header and the pkg-config file name one version, and a host
# built from pkg-config's flags alone links.
execute_process(COMMAND ${WORK}/prefix/bin/hemiray --version OUTPUT_VARIABLE tool_version)
file(STRINGS ${WORK}/prefix/lib/pkgconfig/hemiray.pc pc_version REGEX "^Version: ")
string(REPLACE "Version: " "hemiray " pc_version "${pc_version}")
string(STRIP "${tool_version}" tool_version)
if(NOT tool_version STREQUAL pc_version)
  message(FATAL_ERROR "hemiray --version says '${tool_version}', hemiray.pc '${pc_version}'")
endif()
find_program(PKG_CONFIG pkg-config REQUIRED)
set(ENV{PKG_CONFIG_PATH} ${WORK}/prefix/lib/pkgconfig)
execute_process(COMMAND ${PKG_CONFIG} --cflags --libs hemiray OUTPUT_VARIABLE pc_flags
                OUTPUT_STRIP_TRAILING_WHITESPACE)
separate_arguments(pc_flags UNIX_COMMAND "${pc_flags}")
run(cc -std=c99 ${HOST_SOURCE} ${pc_flags} -o ${WORK}/host-pkg-config)
