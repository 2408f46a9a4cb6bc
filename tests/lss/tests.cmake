canopen_add_test(lss tst_lssmaster)
canopen_add_test(lss tst_lsscia305service)
if(CANOPEN_BUILD_TOOLS)
  # The scan engines against the simulated device's LSS slaves.
  canopen_add_test(lss tst_lssfastscan)
  target_link_libraries(tst_lssfastscan PRIVATE canopensim)
  canopen_add_test(lss tst_lssclassicalscan)
  target_link_libraries(tst_lssclassicalscan PRIVATE canopensim)
endif()
