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
