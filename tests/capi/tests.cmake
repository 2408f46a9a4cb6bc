canopen_add_test(capi tst_capi)

# The C interface from a plain C program that sees nothing but the C header
# and the shared library, as a host in another language would.
add_executable(capi_c_test capi/capi_c_test.c)
target_include_directories(capi_c_test PRIVATE ${PROJECT_SOURCE_DIR}/src/capi)
target_link_libraries(capi_c_test PRIVATE $<TARGET_LINKER_FILE:canopenmaster>)
add_dependencies(capi_c_test canopenmaster)
set_target_properties(capi_c_test PROPERTIES C_STANDARD 11 C_STANDARD_REQUIRED ON C_EXTENSIONS OFF
  BUILD_RPATH $<TARGET_FILE_DIR:canopenmaster>)
target_compile_options(capi_c_test PRIVATE -Wall -Wextra)
add_test(NAME capi/capi_c_test COMMAND capi_c_test)
set_tests_properties(capi/capi_c_test PROPERTIES TIMEOUT 60 ENVIRONMENT "QT_LOGGING_RULES=*.debug=false")

# The seven entry points are exported under their plain C names.
add_test(NAME capi/exports COMMAND ${CMAKE_COMMAND} -DLIBRARY=$<TARGET_FILE:canopenmaster> -DNM=${CMAKE_NM}
  -P ${CMAKE_CURRENT_SOURCE_DIR}/capi/check_exports.cmake)

# The C interface from Python through ctypes. An interpreter that is not
# built with a sanitizer can load the sanitizer build of the library only
# when the sanitizer's runtime is preloaded into it.
find_package(Python3 COMPONENTS Interpreter)
if(Python3_Interpreter_FOUND)
  # Version managers put a shell script in front of the interpreter; the
  # preload must go to the interpreter itself.
  execute_process(COMMAND ${Python3_EXECUTABLE} -c "import sys; print(sys.executable)"
    OUTPUT_VARIABLE CANOPEN_PYTHON OUTPUT_STRIP_TRAILING_WHITESPACE)
  if(NOT CANOPEN_PYTHON)
    set(CANOPEN_PYTHON ${Python3_EXECUTABLE})
  endif()
  set(pyenv "QT_LOGGING_RULES=*.debug=false")
  if(CANOPEN_SANITIZER STREQUAL "address")
    execute_process(COMMAND ${CMAKE_CXX_COMPILER} -print-file-name=libasan.so
      OUTPUT_VARIABLE asan_runtime OUTPUT_STRIP_TRAILING_WHITESPACE)
    # The interpreter's own allocations live until exit: no leak report.
    list(APPEND pyenv "LD_PRELOAD=${asan_runtime}" "ASAN_OPTIONS=detect_leaks=0:abort_on_error=1")
  elseif(CANOPEN_SANITIZER STREQUAL "thread")
    execute_process(COMMAND ${CMAKE_CXX_COMPILER} -print-file-name=libtsan.so
      OUTPUT_VARIABLE tsan_runtime OUTPUT_STRIP_TRAILING_WHITESPACE)
    list(APPEND pyenv "LD_PRELOAD=${tsan_runtime}")
  endif()
  add_test(NAME capi/test_capi.py COMMAND ${CANOPEN_PYTHON} ${CMAKE_CURRENT_SOURCE_DIR}/capi/test_capi.py
    $<TARGET_FILE:canopenmaster>)
  set_tests_properties(capi/test_capi.py PROPERTIES TIMEOUT 60 ENVIRONMENT "${pyenv}")
endif()
