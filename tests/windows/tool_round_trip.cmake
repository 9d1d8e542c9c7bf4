# The velfs tool's round trip on Windows (cmake -P; run by ctest): a host tree with nested
# folders, binary bytes, an empty file and a name outside ASCII is imported into a database root,
# listed, read back with cat, exported to a new folder and compared file by file with the source.
#
#   cmake -DEMULATOR=<wine> -DTOOL=<velfs.exe> -DWORK=<scratch folder> -P tool_round_trip.cmake
cmake_minimum_required(VERSION 3.25)
foreach(input EMULATOR TOOL WORK)
  if(NOT DEFINED ${input})
    message(FATAL_ERROR "tool_round_trip: ${input} is not set")
  endif()
endforeach()

file(REMOVE_RECURSE ${WORK})
file(MAKE_DIRECTORY ${WORK}/tree/docs/deep ${WORK}/tree/empty-folder-is-not-a-file)
file(WRITE ${WORK}/tree/readme.txt "hello, world\n")
file(WRITE ${WORK}/tree/docs/a.txt "0123456789")
file(WRITE ${WORK}/tree/docs/deep/empty.bin "")
file(WRITE "${WORK}/tree/docs/résumé.txt" "accents\n")
string(ASCII 1 2 3 127 200 255 binary)
file(WRITE ${WORK}/tree/docs/deep/c.bin "${binary}\r\n\n\r")
set(files readme.txt docs/a.txt docs/deep/empty.bin "docs/résumé.txt" docs/deep/c.bin)

# Runs the tool in WORK; its standard output lands in `out`, and a failure ends the test.
function(run_tool out)
  execute_process(COMMAND ${EMULATOR} ${TOOL} ${ARGN}
    WORKING_DIRECTORY ${WORK}
    OUTPUT_VARIABLE output ERROR_VARIABLE errors RESULT_VARIABLE status)
  if(NOT status EQUAL 0)
    message(FATAL_ERROR "velfs ${ARGN}: exit ${status}\n${output}${errors}")
  endif()
  set(${out} "${output}" PARENT_SCOPE)
endfunction()

run_tool(imported import tree store.db:)
if(NOT imported MATCHES "imported 5 files")
  message(FATAL_ERROR "velfs import: ${imported}")
endif()

run_tool(listing ls -R store.db:)
foreach(file IN LISTS files)
  string(FIND "${listing}" "${file}" at)
  if(at EQUAL -1)
    message(FATAL_ERROR "velfs ls -R store.db: does not list ${file}:\n${listing}")
  endif()
endforeach()

run_tool(content cat store.db:docs/a.txt store.db:readme.txt)
if(NOT content STREQUAL "0123456789hello, world\n")
  message(FATAL_ERROR "velfs cat: \"${content}\"")
endif()

run_tool(exported export store.db: out)
foreach(file IN LISTS files)
  execute_process(COMMAND ${CMAKE_COMMAND} -E compare_files "${WORK}/tree/${file}"
    "${WORK}/out/${file}" RESULT_VARIABLE differs)
  if(NOT differs EQUAL 0)
    message(FATAL_ERROR "exported ${file} differs from the imported one")
  endif()
endforeach()
file(GLOB_RECURSE exportedFiles RELATIVE ${WORK}/out ${WORK}/out/*)
list(LENGTH exportedFiles count)
if(NOT count EQUAL 5)
  message(FATAL_ERROR "export wrote ${count} files: ${exportedFiles}")
endif()
file(REMOVE_RECURSE ${WORK})
message(STATUS "velfs.exe: import, ls -R, cat and export gave back the 5 files")
