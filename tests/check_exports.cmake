# Fails unless the library's defined dynamic symbols are exactly create and destroy.
# NM is the binutils nm of the library's architecture (aarch64-linux-gnu-nm when
# cross-building); plain nm when not given.
if(NOT NM)
  set(NM nm)
endif()
execute_process(COMMAND ${NM} -D --defined-only ${LIBRARY}
                OUTPUT_VARIABLE symbols RESULT_VARIABLE status)
if(NOT status EQUAL 0)
  message(FATAL_ERROR "${NM} failed on ${LIBRARY}")
endif()
string(REGEX MATCHALL "[^\n]+" lines "${symbols}")
set(names)
foreach(line IN LISTS lines)
  string(REGEX REPLACE "^[0-9a-fA-F]* *[A-Za-z] +" "" name "${line}")
  list(APPEND names ${name})
endforeach()
list(SORT names)
if(NOT names STREQUAL "create;destroy")
  message(FATAL_ERROR "exported symbols: ${names}")
endif()
message(STATUS "exports: ${names}")
