/* Result and origin names as failure messages show them. */
#include "teesim/testing/names.h"

#include <gtest/gtest.h>

namespace teesim::testing {
namespace {

TEST(Names, ResultsByNameOrInHex) {
  EXPECT_EQ(ResultName(0x00000000u), "TEEC_SUCCESS");
  EXPECT_EQ(ResultName(0xFFFF3024u), "TEEC_ERROR_TARGET_DEAD");
  EXPECT_EQ(ResultName(0xF0100001u), "TEE_ERROR_CORRUPT_OBJECT");
  EXPECT_EQ(ResultName(0x12345678u), "0x12345678");
  EXPECT_EQ(ResultName(0x0000000Au), "0x0000000a");
}

TEST(Names, OriginsByNameOrNumber) {
  EXPECT_EQ(OriginName(1), "TEEC_ORIGIN_API");
  EXPECT_EQ(OriginName(2), "TEEC_ORIGIN_COMMS");
  EXPECT_EQ(OriginName(3), "TEEC_ORIGIN_TEE");
  EXPECT_EQ(OriginName(4), "TEEC_ORIGIN_TRUSTED_APP");
  EXPECT_EQ(OriginName(0), "origin 0");
  EXPECT_EQ(OriginName(77), "origin 77");
}

TEST(Names, AnOutcomeNamesBoth) {
  EXPECT_EQ(Outcome(0xFFFF000Eu, 2), "TEEC_ERROR_COMMUNICATION from TEEC_ORIGIN_COMMS");
  EXPECT_EQ(Outcome(0xABCDEF01u, 9), "0xabcdef01 from origin 9");
}

}  // namespace
}  // namespace teesim::testing
