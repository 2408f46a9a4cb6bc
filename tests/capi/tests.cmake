canopen_add_test(capi tst_capi)
