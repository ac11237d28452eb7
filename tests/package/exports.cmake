# exports.cmake: what the shared library offers and what it asks for. Run with NM, READELF, LIBRARY and EXPORTS set.
# A symbol too many is a promise nobody meant to give; one of the C++ library would need that library on the board.

cmake_minimum_required(VERSION 3.25)

function(lines_of out)
  execute_process(COMMAND ${ARGN} OUTPUT_VARIABLE text COMMAND_ERROR_IS_FATAL ANY)
  string(REGEX REPLACE "\n+" ";" text "${text}")
  list(REMOVE_ITEM text "")
  set(${out} "${text}" PARENT_SCOPE)
endfunction()

function(expect_none what)
  if(ARGN)
    list(JOIN ARGN "\n  " names)
    message(SEND_ERROR "${what}:\n  ${names}")
  endif()
endfunction()

file(STRINGS ${EXPORTS} expected REGEX "^[^#]")
list(JOIN expected " " expected)
separate_arguments(expected)
lines_of(exported ${NM} -D --defined-only ${LIBRARY})
list(TRANSFORM exported REPLACE "^[^ ]+ [A-Z] " "")
set(missing ${expected})
list(REMOVE_ITEM missing ${exported})
expect_none("not exported" ${missing})
list(REMOVE_ITEM exported ${expected})
expect_none("exported, but in no header's interface" ${exported})

lines_of(wanted ${NM} -D --undefined-only ${LIBRARY})
list(TRANSFORM wanted STRIP)
list(FILTER wanted EXCLUDE REGEX "^w |^U [^@]+@GLIBC_[0-9.]+$|^U (VRK_(Malloc|Free|RawPrint|Delay)|PLM_snprintf)$")
expect_none("asked of someone else than the C library and the platform" ${wanted})

lines_of(needed ${READELF} -d ${LIBRARY})
list(FILTER needed INCLUDE REGEX "NEEDED")
list(FILTER needed EXCLUDE REGEX "\\[libc\\.so\\.6\\]")
expect_none("libraries other than the C library" ${needed})
