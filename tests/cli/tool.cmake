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
expect_refusal("" run)
if(EXISTS ${WORK}/x.msh)
  message(FATAL_ERROR "a refused gen wrote x.msh")
endif()

# The demo needs no file of the user's and says where its result is.
expect_success(demo --n 1 --res 4)
if(NOT out MATCHES "result file: [^\n]*hemiray-demo/room.vf" OR NOT out MATCHES "rays/second")
  message(FATAL_ERROR "demo summary incomplete:\n${out}")
endif()

# repair: the closed room comes back in the input's kind with its model head as it
# was, closed and reciprocal up to what its rows' 6 decimals hold; an HDF5 result to
# rounding. Bad results are refused with one line and write nothing.
expect_success(repair room.msh.vf -o repaired.vf)
file(READ ${WORK}/room.msh.vf original)
file(READ ${WORK}/repaired.vf repaired)
string(FIND "${original}" "(308" originalRows)
string(FIND "${repaired}" "(308" repairedRows)
string(SUBSTRING "${original}" 0 ${originalRows} originalHead)
string(SUBSTRING "${repaired}" 0 ${repairedRows} repairedHead)
if(NOT originalHead STREQUAL repairedHead)
  message(FATAL_ERROR "repair changed the model head")
endif()
expect_success(check repaired.vf --json)
string(JSON weighted GET "${out}" weightedReciprocity)
if(weighted GREATER 1e-4)
  message(FATAL_ERROR "repaired text rows keep ${weighted} of the energy unbalanced")
endif()
expect_success(run room.msh -o room.h5)
expect_success(repair room.h5 -o repaired.h5 --enclosure open)
expect_success(check repaired.h5 --json)
string(JSON weighted GET "${out}" weightedReciprocity)
string(JSON maxSum GET "${out}" rowSum max)
if(weighted GREATER 1e-12 OR maxSum GREATER 1.000000000001)
  message(FATAL_ERROR "repaired HDF5 rows: reciprocity ${weighted}, largest row sum ${maxSum}")
endif()
file(WRITE ${WORK}/junk.vf "hello")
file(READ ${WORK}/room.msh.vf head LIMIT 9000)
file(WRITE ${WORK}/cut.vf "${head}")
expect_refusal("no such file" repair missing.vf -o x.vf)
expect_refusal("malformed size section" repair junk.vf -o x.vf)
expect_refusal("no view-factor rows" repair room.msh -o x.vf)
expect_refusal("junk.vf" repair junk.vf -o x.vf)
expect_refusal("cut.vf" repair cut.vf -o x.vf)
expect_refusal("does not name the kind" repair room.h5 -o x.vf)
expect_refusal("--enclosure must be closed or open" repair room.msh.vf -o x.vf --enclosure half)
expect_refusal("--average must be equal or weighted" repair room.msh.vf -o x.vf --average mean)
expect_refusal("exists" repair room.msh.vf -o repaired.vf)
if(EXISTS ${WORK}/x.vf)
  message(FATAL_ERROR "a refused repair wrote x.vf")
endif()

# Inputs refused before anything is written: each named, in one line. After every
# refusal and every failed or stopped run, the earlier result is as it was and no
# work file is left beside it.
function(expect_clean)
  expect_unchanged(${WORK}/room.msh.vf ${resultHash})
  expect_unchanged(${WORK}/room.msh ${roomHash})
  file(GLOB left ${WORK}/.hemiray-*)
  if(left)
    message(FATAL_ERROR "left behind: ${left}")
  endif()
endfunction()
file(MAKE_DIRECTORY ${WORK}/folder)
file(WRITE ${WORK}/empty "")
execute_process(COMMAND mkfifo ${WORK}/fifo)
file(WRITE ${WORK}/gmsh.msh "$MeshFormat\n4.1 0 8\n$EndMeshFormat\n")
file(WRITE ${WORK}/part.stl "solid part\nendsolid part\n")
file(WRITE ${WORK}/part.obj "# part\nv 0 0 0\nv 1 0 0\nv 0 1 0\nf 1 2 3\n")
expect_success(gen plates-periodic -o periodic.msh --n 2 --res 4)
expect_success(block room.msh -o room.blk)
expect_success(run room.msh -o binary.vf --binary)
expect_success(run room.msh -o room.vf.h5)
file(READ ${WORK}/periodic.msh periodic)
string(REPLACE "(0 0 4 8 3)" "(0 0 4 6 3)" text "${periodic}")
file(WRITE ${WORK}/globs.msh "${text}")
string(REPLACE "(18 (3 4)" "(18 (3 3)" text "${periodic}")
file(WRITE ${WORK}/self.msh "${text}")
string(REGEX REPLACE "\\(18 .*" "" text "${periodic}")
file(WRITE ${WORK}/alone.msh "${text}")
string(REGEX REPLACE "\n 1 2 3 4\n" "\n 1 2 3 99\n" text "${periodic}")
file(WRITE ${WORK}/node.msh "${text}")
string(REGEX REPLACE "\\(309 \\(1 ([^)]*)\\)\\(\n0" "(309 (1 \\1)(\n-1" text "${periodic}")
file(WRITE ${WORK}/noglob.msh "${text}")
string(REGEX REPLACE "\\(1 ([0-9]+) 0 " "(1 4000 0 " text "${periodic}")
file(WRITE ${WORK}/res.msh "${text}")
foreach(refusal
    "folder is a folder|folder" "empty is empty|empty" "fifo is a pipe|fifo" "device|/dev/zero"
    "is the input itself|room.msh.vf" "Gmsh mesh[^\n]*hemiray import gmsh.msh|gmsh.msh"
    "STL file[^\n]*hemiray import|part.stl" "OBJ file[^\n]*hemiray import|part.obj"
    "HDF5 file|room.vf.h5" "packed block[^\n]*--block|room.blk" "binary view-factor rows|binary.vf"
    "zone 2 face 7 is in glob 6, at or above the glob count 6|globs.msh"
    "zone 3 is a periodic zone paired with itself|self.msh"
    "zone 3 is a periodic zone without a partner|alone.msh"
    "zone 1 face 1 names node 99, outside the 48 nodes|node.msh"
    "zone 1 face 1 is a wall in no glob|noglob.msh"
    "hemisphere resolution 4000 is outside 0 to 2048|res.msh")
  string(REPLACE "|" ";" fields "${refusal}")
  list(POP_FRONT fields expected)
  expect_refusal("${expected}" run ${fields} -o room.msh.vf --force)
  expect_clean()
endforeach()
expect_refusal("unknown command 'foo'" foo)
expect_refusal("fifo is a pipe" check fifo)
expect_refusal("fifo is a pipe" block fifo -o fifo.blk)
expect_refusal("empty is empty" check empty)
# A model is checked as a run would check it.
expect_refusal("zone 3 is a periodic zone paired with itself" check self.msh)
expect_success(check room.msh)

# Stopped runs: a signal to the tool reaches the child; one to the child alone,
# or its death, is told. The status says which.
expect_success(gen room -o long.msh --n 6 --res 600)
foreach(case "TERM|$p|143|stopped by SIGTERM" "INT|$(pgrep -P $p)|130|stopped by SIGINT"
             "KILL|$(pgrep -P $p)|1|the run ended by SIGKILL")
  string(REPLACE "|" ";" fields "${case}")
  list(GET fields 0 signal)
  list(GET fields 1 target)
  list(GET fields 2 status)
  list(GET fields 3 line)
  execute_process(COMMAND sh -c "\"$0\" run long.msh -o room.msh.vf --force >/dev/null 2>err & p=$!
      i=0; while [ -z \"$(pgrep -P $p)\" ] && [ $i -lt 100 ]; do sleep 0.1; i=$((i+1)); done; kill -${signal} ${target}; wait $p; echo $?"
    ${CLI} WORKING_DIRECTORY ${WORK} OUTPUT_VARIABLE got OUTPUT_STRIP_TRAILING_WHITESPACE)
  file(READ ${WORK}/err err)
  if(NOT got EQUAL status OR NOT err MATCHES "^hemiray: ${line}; room.msh.vf is as it was\n$")
    message(FATAL_ERROR "SIG${signal}: status ${got}, ${err}")
  endif()
  expect_clean()
endforeach()
# A closed standard output costs the console lines, not the result.
execute_process(COMMAND sh -c "\"$0\" run room.msh -o piped.vf | head -1" ${CLI}
  WORKING_DIRECTORY ${WORK} OUTPUT_QUIET ERROR_VARIABLE err)
expect_success(check piped.vf)
# A file size limit (ulimit -f) fails the write; it does not kill the run.
expect_success(gen room -o mid.msh --n 4 --res 4)
execute_process(COMMAND bash -c "ulimit -f 100; \"$0\" run mid.msh -o limited.vf" ${CLI}
  WORKING_DIRECTORY ${WORK} RESULT_VARIABLE status OUTPUT_QUIET ERROR_VARIABLE err)
if(NOT status EQUAL 1 OR NOT err MATCHES "\nhemiray: the run failed. no result was written\n$"
   OR EXISTS ${WORK}/limited.vf)
  message(FATAL_ERROR "under ulimit -f: status ${status}, ${err}")
endif()
expect_clean()
