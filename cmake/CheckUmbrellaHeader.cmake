cmake_minimum_required(VERSION 3.20)
# Fails when an installed header (every header of the library but the *Internal.h ones) is
# not among what the compiler reads for CoreKestly/CoreKestly.h.
execute_process(
  COMMAND ${COMPILER} -x c++ -std=c++20 -I${SOURCE_DIR} -MM -MT umbrella ${SOURCE_DIR}/CoreKestly/CoreKestly.h
  OUTPUT_VARIABLE dependencies RESULT_VARIABLE result ERROR_VARIABLE errors)
if(NOT result EQUAL 0)
  message(FATAL_ERROR "The umbrella header does not compile on its own:\n${errors}")
endif()
string(REGEX REPLACE "[\\\\ \n]+" ";" dependencies "${dependencies}")
file(GLOB_RECURSE headers RELATIVE ${SOURCE_DIR} ${SOURCE_DIR}/CoreKestly/*.h)
list(FILTER headers EXCLUDE REGEX "(Internal\\.h|^CoreKestly/CoreKestly\\.h)$")
set(unreached "")
foreach(header IN LISTS headers)
  if(NOT "${SOURCE_DIR}/${header}" IN_LIST dependencies)
    list(APPEND unreached ${header})
  endif()
endforeach()
if(unreached)
  list(JOIN unreached "\n  " unreached)
  message(FATAL_ERROR "CoreKestly/CoreKestly.h does not include these installed headers:\n  ${unreached}")
endif()
file(TOUCH ${STAMP})
