# Run when the controller library is installed (cmake -P, from the install
# step in controller/CMakeLists.txt), on the installed copy of the archive:
#
#   -DARCHIVE=<installed .a> -DLINKER=... -DNM=... -DOBJCOPY=... -DAR=...
#
# The archive carries the worker's codec and the base layer, whose functions
# and variables sit in the global namespace (nowMs, waitFd, readPacket,
# g_controlFd...). A program that links the library and defines one of
# those names itself would silently replace the library's, or fail to link.
# So the archive is made one relocatable object, inside which every
# reference is already resolved, and every global symbol outside namespace
# halvarine becomes local to it. Weak symbols (inline functions, template
# instances) stay as they are. The in-tree archive is left alone: the tests
# and tools use the internals.

foreach(var ARCHIVE LINKER NM OBJCOPY AR)
  if(NOT ${var})
    message(FATAL_ERROR "LocalizeArchive: ${var} is not set")
  endif()
endforeach()

function(run)
  execute_process(COMMAND ${ARGN} RESULT_VARIABLE rc OUTPUT_VARIABLE out ERROR_VARIABLE err)
  if(NOT rc EQUAL 0)
    message(FATAL_ERROR "LocalizeArchive: ${ARGN} failed: ${err}")
  endif()
  set(run_output "${out}" PARENT_SCOPE)
endfunction()

set(merged "${ARCHIVE}.merged.o")
run(${LINKER} -r --whole-archive "${ARCHIVE}" -o "${merged}")
run(${NM} -g --defined-only "${merged}")
string(REPLACE "\n" ";" lines "${run_output}")
set(localize)
foreach(line IN LISTS lines)
  if(NOT line MATCHES "^[0-9a-fA-F]* ([A-Za-z]) (.+)$")
    continue()
  endif()
  set(type "${CMAKE_MATCH_1}")
  set(name "${CMAKE_MATCH_2}")
  # W/w/V/v weak, u unique: shared definitions, no clash.
  if(type MATCHES "^[WwVvu]$")
    continue()
  endif()
  # The namespace's functions and variables, its classes' vtables, typeinfo
  # and guard variables.
  if(name MATCHES "^_Z(TV|TI|TS|GV|Z)?NK?9halvarine")
    continue()
  endif()
  list(APPEND localize "--localize-symbol=${name}")
endforeach()
run(${OBJCOPY} ${localize} "${merged}")
file(REMOVE "${ARCHIVE}")
run(${AR} rcsD "${ARCHIVE}" "${merged}")
file(REMOVE "${merged}")
list(LENGTH localize count)
message(STATUS "Localized ${count} internal symbols in ${ARCHIVE}")
