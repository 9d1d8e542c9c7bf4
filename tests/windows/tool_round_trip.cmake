# The velfs tool's round trip on Windows (cmake -P; run by ctest): a host tree with nested
# folders, binary bytes, an empty file and a name outside ASCII is imported into a database root,
# listed, read back with cat, exported to a new folder and compared file by file with the source.
#
#   cmake -DEMULATOR=<wine> -DTOOL=<velfs.exe> -DWORK=<scratch folder> -P tool_round_trip.cmake
cmake_minimum_required(VERSION 3.25)
file(REMOVE_RECURSE ${WORK})
string(ASCII 1 2 3 127 200 255 binary)
set(files readme.txt docs/a.txt docs/deep/empty.bin "docs/résumé.txt" docs/deep/c.bin)
set(contents "hello, world\n" "0123456789" "" "accents\n" "${binary}\r\n\n\r")
foreach(file content IN ZIP_LISTS files contents)
  file(WRITE "${WORK}/tree/${file}" "${content}")
endforeach()
file(MAKE_DIRECTORY ${WORK}/tree/empty-folder-is-not-a-file)

# Runs the tool in WORK; it must succeed and its standard output hold every one of `expected`.
function(run_tool expected)
  execute_process(COMMAND ${EMULATOR} ${TOOL} ${ARGN} WORKING_DIRECTORY ${WORK}
    OUTPUT_VARIABLE output ERROR_VARIABLE errors RESULT_VARIABLE status)
  if(NOT status EQUAL 0)
    message(FATAL_ERROR "velfs ${ARGN}: exit ${status}\n${output}${errors}")
  endif()
  foreach(text IN LISTS expected)
    string(FIND "${output}" "${text}" at)
    if(at EQUAL -1)
      message(FATAL_ERROR "velfs ${ARGN}: no \"${text}\" in\n${output}")
    endif()
  endforeach()
  set(output "${output}" PARENT_SCOPE)
endfunction()

run_tool("imported 5 files" import tree store.db:)
run_tool("${files}" ls -R store.db:)
run_tool("" cat store.db:docs/a.txt store.db:readme.txt)
if(NOT output STREQUAL "0123456789hello, world\n")
  message(FATAL_ERROR "velfs cat: \"${output}\"")
endif()
run_tool("" export store.db: out)
foreach(file IN LISTS files)
  execute_process(COMMAND ${CMAKE_COMMAND} -E compare_files "${WORK}/tree/${file}"
    "${WORK}/out/${file}" RESULT_VARIABLE differs)
  if(NOT differs EQUAL 0)
    message(FATAL_ERROR "exported ${file} differs from the imported one")
  endif()
endforeach()
file(GLOB_RECURSE exported RELATIVE ${WORK}/out ${WORK}/out/*)
list(LENGTH exported count)
if(NOT count EQUAL 5)
  message(FATAL_ERROR "export wrote ${count} files: ${exported}")
endif()
file(REMOVE_RECURSE ${WORK})
