# Checks that the shared library exports the seven C entry points under
# their plain names. Run as: cmake -DLIBRARY=<file> -DNM=<nm> -P check_exports.cmake
execute_process(COMMAND ${NM} -D --defined-only ${LIBRARY}
  OUTPUT_VARIABLE symbols RESULT_VARIABLE result)
if(NOT result EQUAL 0)
  message(FATAL_ERROR "${NM} failed on ${LIBRARY}")
endif()
set(missing)
foreach(name qca ca_create ca_connect ca_send ca_recv ca_disconnnect ca_destroy)
  if(NOT symbols MATCHES "[ \t]T ${name}\n")
    list(APPEND missing ${name})
  endif()
endforeach()
if(missing)
  message(FATAL_ERROR "not exported as plain C functions: ${missing}")
endif()
message(STATUS "all seven C entry points exported")
