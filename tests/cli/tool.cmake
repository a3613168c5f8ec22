# The hemiray tool as an engineer uses it: gen, run, check and demo on small models,
# and every bad argument answered by one "hemiray: " line, a non-zero status and
# no change to any file of the user's.
file(REMOVE_RECURSE ${WORK})
file(MAKE_DIRECTORY ${WORK})

function(expect_success)
  execute_process(COMMAND ${CLI} ${ARGN} WORKING_DIRECTORY ${WORK} RESULT_VARIABLE status
                  OUTPUT_VARIABLE out ERROR_VARIABLE err)
  if(NOT status EQUAL 0)
    message(FATAL_ERROR "hemiray ${ARGN} failed with ${status}: ${err}")
  endif()
  set(out "${out}" PARENT_SCOPE)
endfunction()

function(expect_refusal expected)
  execute_process(COMMAND ${CLI} ${ARGN} WORKING_DIRECTORY ${WORK} RESULT_VARIABLE status
                  OUTPUT_VARIABLE out ERROR_VARIABLE err)
  if(status EQUAL 0)
    message(FATAL_ERROR "hemiray ${ARGN} succeeded; it should have failed")
  endif()
  if(NOT err MATCHES "^hemiray: [^\n]*${expected}[^\n]*\n$")
    message(FATAL_ERROR "hemiray ${ARGN}: expected one line about '${expected}', got:\n${err}")
  endif()
endfunction()

function(expect_unchanged path hash)
  file(SHA256 ${path} now)
  if(NOT now STREQUAL hash)
    message(FATAL_ERROR "${path} was changed")
  endif()
endfunction()

# gen, run, check: a closed room's rows sum to one, up to the 6 decimals of each
# printed factor (at most about 50 factors a row here).
expect_success(gen --list)
if(NOT out MATCHES "room" OR NOT out MATCHES "cylinder" OR NOT out MATCHES "ring-periodic")
  message(FATAL_ERROR "gen --list lacks cases:\n${out}")
endif()
expect_success(gen room -o room.msh --n 2 --res 8)
file(SHA256 ${WORK}/room.msh roomHash)
expect_success(run room.msh --threads 2)
expect_unchanged(${WORK}/room.msh ${roomHash})
if(NOT EXISTS ${WORK}/room.msh.vf)
  message(FATAL_ERROR "run wrote no room.msh.vf")
endif()
expect_success(check room.msh.vf --json)
string(JSON minSum GET "${out}" rowSum min)
string(JSON maxSum GET "${out}" rowSum max)
if(minSum LESS 0.99997 OR maxSum GREATER 1.00003)
  message(FATAL_ERROR "closed room rows sum to ${minSum} .. ${maxSum}")
endif()

# Compressed input gives compressed output under the default name.
expect_success(gen cylinder -o cyl.msh.gz --n 2 --res 8)
expect_success(run cyl.msh.gz --binary)
expect_success(check cyl.msh.vf.gz)

# Refusals: nothing of the user's is touched.
expect_refusal("no such file" run missing.msh)
expect_refusal("no such folder" run room.msh -o no/such/folder/out.vf)
expect_refusal("no such folder" gen room -o no/such/folder/room.msh)
expect_refusal("unknown case" gen nosuch -o x.msh)
expect_refusal("--threads must be at least 1" run room.msh --threads -2)
expect_refusal("--threads must be at least 1" run room.msh --threads 0)
expect_refusal("--res must be at least 1" gen room -o x.msh --res 0)
expect_refusal("--n must be at least 1" gen room -o x.msh --n 0)
expect_refusal("exists" gen room -o room.msh)
file(SHA256 ${WORK}/room.msh.vf resultHash)
expect_refusal("exists" run room.msh)
expect_unchanged(${WORK}/room.msh.vf ${resultHash})
expect_unchanged(${WORK}/room.msh ${roomHash})
expect_refusal("no view-factor rows" check room.msh)
expect_refusal("" run)
if(EXISTS ${WORK}/x.msh)
  message(FATAL_ERROR "a refused gen wrote x.msh")
endif()

# The demo needs no file of the user's and says where its result is.
expect_success(demo --n 1 --res 4)
if(NOT out MATCHES "result file: [^\n]*hemiray-demo/room.vf" OR NOT out MATCHES "rays/second")
  message(FATAL_ERROR "demo summary incomplete:\n${out}")
endif()
