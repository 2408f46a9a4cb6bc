canopen_add_test(sdo tst_sdoexpeditedclient)
canopen_add_test(sdo tst_sdosegmentedclient)
canopen_add_test(sdo tst_sdoblockclient)
if(CANOPEN_BUILD_TOOLS)
  # Against the simulated device's SDO server in this process.
  canopen_add_test(sdo tst_sdoendtoend)
  target_link_libraries(tst_sdoendtoend PRIVATE canopensim)
endif()
