canopen_add_test(adapters/virtual tst_democanadapter)
canopen_add_test(adapters tst_canadapterfactory)
canopen_add_test(adapters/gridconnect tst_gridconnectusbcanadapter)
if(CANOPEN_BUILD_TOOLS)
  # Over QtSerialBus's virtualcan plugin, with the simulated device's parts.
  canopen_add_test(adapters/serialbus tst_serialbuscanadapter)
  target_link_libraries(tst_serialbuscanadapter PRIVATE canopensim Qt5::SerialBus)
  set_tests_properties(adapters/serialbus/tst_serialbuscanadapter PROPERTIES RESOURCE_LOCK virtualcan)
endif()
