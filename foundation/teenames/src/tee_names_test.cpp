// Tests of the names of GP result codes and origins.
#include "tee_names.h"

#include <gtest/gtest.h>

#include <string>

namespace {

/* Expected values transcribed from the GP Client and Internal API tables. */
TEST(TeeNames, NamesStandardResults) {
  EXPECT_STREQ(tee_result_name(0x00000000u), "TEEC_SUCCESS");
  EXPECT_STREQ(tee_result_name(0xFFFF0008u), "TEEC_ERROR_ITEM_NOT_FOUND");
  EXPECT_STREQ(tee_result_name(0xFFFF3024u), "TEEC_ERROR_TARGET_DEAD");
  EXPECT_STREQ(tee_result_name(0xFFFF0010u), "TEEC_ERROR_SHORT_BUFFER");
  EXPECT_STREQ(tee_result_name(0xF0100001u), "TEE_ERROR_CORRUPT_OBJECT");
  EXPECT_STREQ(tee_result_name(0xFFFF3041u), "TEE_ERROR_STORAGE_NO_SPACE");
}

TEST(TeeNames, UnknownCodesHaveNoName) {
  EXPECT_EQ(tee_result_name(0x12345678u), nullptr);
  EXPECT_EQ(tee_result_name(0xFFFF0012u), nullptr);
  EXPECT_EQ(tee_origin_name(0), nullptr);
  EXPECT_EQ(tee_origin_name(5), nullptr);
  EXPECT_EQ(tee_origin_text(0), nullptr);
}

TEST(TeeNames, NamesOrigins) {
  EXPECT_STREQ(tee_origin_name(1), "TEEC_ORIGIN_API");
  EXPECT_STREQ(tee_origin_name(2), "TEEC_ORIGIN_COMMS");
  EXPECT_STREQ(tee_origin_name(3), "TEEC_ORIGIN_TEE");
  EXPECT_STREQ(tee_origin_name(4), "TEEC_ORIGIN_TRUSTED_APP");
  EXPECT_STREQ(tee_origin_text(3), "the TEE");
  EXPECT_STREQ(tee_origin_text(4), "the trusted application");
}

}  // namespace
