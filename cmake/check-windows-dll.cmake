# Checks the export and import tables of velfs.dll (cmake -P; run by ctest on Windows builds):
#   - the DLL exports exactly the functions that include/velfs.h declares with VELFS_API, by
#     name, and velfsCloseEnum is the same entry point as velfsCloseFile;
#   - it imports only Windows system DLLs and velIOStub.dll, so SQLite, zziplib, zlib and the
#     C and C++ runtimes are inside it.
#
#   cmake -DOBJDUMP=<objdump> -DDLL=<velfs.dll> -DHEADER=<velfs.h> -P check-windows-dll.cmake
cmake_minimum_required(VERSION 3.25)
foreach(input OBJDUMP DLL HEADER)
  if(NOT DEFINED ${input})
    message(FATAL_ERROR "check-windows-dll: ${input} is not set")
  endif()
endforeach()

execute_process(COMMAND ${OBJDUMP} -p ${DLL} OUTPUT_VARIABLE dump RESULT_VARIABLE failed)
if(failed)
  message(FATAL_ERROR "check-windows-dll: ${OBJDUMP} -p ${DLL} failed")
endif()
string(REPLACE ";" "," dump "${dump}")
string(REPLACE "\n" ";" lines "${dump}")

# The API: every name declared as `VELFS_API <type> <name>(`.
file(READ ${HEADER} header)
string(REGEX MATCHALL "\nVELFS_API [^(;]*[ *]([A-Za-z_][A-Za-z0-9_]*)\\(" declarations "${header}")
set(api)
foreach(declaration IN LISTS declarations)
  string(REGEX REPLACE ".*[ *]([A-Za-z_][A-Za-z0-9_]*)\\($" "\\1" name "${declaration}")
  list(APPEND api ${name})
endforeach()
list(SORT api)
list(LENGTH api apiCount)
if(apiCount LESS 30)
  message(FATAL_ERROR "check-windows-dll: only ${apiCount} functions found in ${HEADER}")
endif()

# Exports: the name table ("[   n] name") and the address table ("[   n] +base[   m] rva").
set(section "")
set(exports)
set(addresses)
set(imports)
foreach(line IN LISTS lines)
  if(line MATCHES "^Export Address Table")
    set(section addresses)
  elseif(line MATCHES "^\\[Ordinal/Name Pointer\\] Table")
    set(section names)
  elseif(line MATCHES "^[ \t]*$")
    set(section "")
  elseif(section STREQUAL "addresses" AND line MATCHES "^[ \t]*\\[ *([0-9]+)\\] \\+base\\[ *[0-9]+\\] ([0-9a-f]+)")
    list(APPEND addresses "${CMAKE_MATCH_2}")
  elseif(section STREQUAL "names" AND line MATCHES "^[ \t]*\\[ *([0-9]+)\\] ([A-Za-z_][A-Za-z0-9_]*)$")
    list(APPEND exports ${CMAKE_MATCH_2})
    set(exportIndex_${CMAKE_MATCH_2} ${CMAKE_MATCH_1})
  endif()
  if(line MATCHES "^[ \t]*DLL Name: (.+)$")
    list(APPEND imports "${CMAKE_MATCH_1}")
  endif()
endforeach()
list(SORT exports)

set(problems)
if(NOT exports STREQUAL api)
  set(missing ${api})
  list(REMOVE_ITEM missing ${exports})
  set(extra ${exports})
  list(REMOVE_ITEM extra ${api})
  list(APPEND problems "exports differ from the API: missing [${missing}], extra [${extra}]")
endif()

# The name table's index is an ordinal index into the address table (ordinal base aside, the
# two index from 0 alike in objdump's listing).
if(DEFINED exportIndex_velfsCloseFile AND DEFINED exportIndex_velfsCloseEnum)
  list(GET addresses ${exportIndex_velfsCloseFile} closeFile)
  list(GET addresses ${exportIndex_velfsCloseEnum} closeEnum)
  if(NOT closeFile STREQUAL closeEnum)
    list(APPEND problems
      "velfsCloseEnum (RVA ${closeEnum}) is not the entry point velfsCloseFile (RVA ${closeFile})")
  endif()
endif()

# Windows' own DLLs: the kernel, the system C runtime and the API sets that forward to them.
foreach(import IN LISTS imports)
  string(TOLOWER "${import}" lower)
  if(NOT lower MATCHES "^(kernel32|ntdll|advapi32|user32|msvcrt|ucrtbase|shell32|ole32|bcrypt)\\.dll$"
     AND NOT lower MATCHES "^api-ms-win-.*\\.dll$"
     AND NOT lower STREQUAL "veliostub.dll")
    list(APPEND problems "imports ${import}, which is neither a Windows DLL nor velIOStub.dll")
  endif()
endforeach()
if(NOT "velIOStub.dll" IN_LIST imports)
  list(APPEND problems "does not import velIOStub.dll")
endif()

if(problems)
  list(JOIN problems "\n  " text)
  message(FATAL_ERROR "check-windows-dll: ${DLL}:\n  ${text}")
endif()
list(JOIN imports ", " importText)
message(STATUS "${DLL}: ${apiCount} exports, the API exactly; imports ${importText}")
