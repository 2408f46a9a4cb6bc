# Installs the build tree into a scratch prefix and builds a small consumer
# against it: once with find_package(CanopenMaster), once with pkg-config.
add_test(NAME install/consumer
  COMMAND bash ${CMAKE_CURRENT_SOURCE_DIR}/install/check_install.sh
    ${PROJECT_BINARY_DIR} ${CMAKE_CURRENT_SOURCE_DIR}/install/consumer
    ${CMAKE_CURRENT_BINARY_DIR}/install-check "${CANOPEN_SANITIZER}")
set_tests_properties(install/consumer PROPERTIES TIMEOUT 300
  ENVIRONMENT "QT_LOGGING_RULES=*.debug=false")
