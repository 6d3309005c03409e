/*
 * The descriptor of one variant of the test TA: its name, instance policy
 * and UUID (TEST_TA_NAME, TEST_TA_FLAGS and TEST_TA_UUID_INIT come from the
 * build). The entry points are the shared ones of test_ta.c.
 */
#include "teesim_ta.h"
#include "teesim_test_ta.h"

#if !defined(TEST_TA_NAME) || !defined(TEST_TA_FLAGS) || !defined(TEST_TA_UUID_INIT)
#error "the build names the variant: TEST_TA_NAME, TEST_TA_FLAGS, TEST_TA_UUID_INIT"
#endif

TEESIM_TA_DESCRIPTOR(TEST_TA_NAME, TEST_TA_FLAGS, TEST_TA_UUID_INIT);
