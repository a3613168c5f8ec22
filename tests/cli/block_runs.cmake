# The hemiray tool end to end on in-memory input: each three-dimensional example is
# computed on two threads from its text, then packed with "hemiray block" and
# computed from the block as a packed and as a direct block. Every run is a fresh
# process, so each thread's generator starts where it started for the text run,
# and the three result files must be identical.
file(REMOVE_RECURSE ${WORK})
file(MAKE_DIRECTORY ${WORK})

function(hemiray)
  execute_process(COMMAND ${CLI} ${ARGN} RESULT_VARIABLE status OUTPUT_QUIET
                  ERROR_VARIABLE errors)
  if(NOT status EQUAL 0)
    message(FATAL_ERROR "hemiray ${ARGN} failed with ${status}: ${errors}")
  endif()
endfunction()

foreach(case plates plates-mirror plates-periodic room-mirror sphere)
  set(base ${WORK}/${case})
  hemiray(gen ${case} --n 2 --res 6 -o ${base}.msh)
  hemiray(run ${base}.msh -o ${base}.text.vf --threads 2)
  hemiray(block ${base}.msh -o ${base}.blk)
  hemiray(run ${base}.blk --block -o ${base}.packed.vf --threads 2)
  hemiray(run ${base}.blk --block --direct -o ${base}.direct.vf --threads 2)
  file(SHA256 ${base}.text.vf text)
  foreach(family packed direct)
    file(SHA256 ${base}.${family}.vf block)
    if(NOT text STREQUAL block)
      message(FATAL_ERROR "${case}: the ${family} block's result differs from the text's")
    endif()
  endforeach()
endforeach()
