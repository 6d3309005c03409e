// Result codes, origins, poc_* results and bytes in words.
#include "cases/Describe.h"

#include <gtest/gtest.h>

#include "cases/CaseContext.h"
#include "tee_client_api.h"

namespace check {
namespace {

TEST(Describe, TeeResultsByNameAndOrigin) {
  EXPECT_EQ(DescribeTeeResult(TEEC_ERROR_ITEM_NOT_FOUND, TEEC_ORIGIN_TRUSTED_APP),
            "0xFFFF0008 TEEC_ERROR_ITEM_NOT_FOUND from the trusted application");
  EXPECT_EQ(DescribeTeeResult(TEEC_ERROR_COMMUNICATION, TEEC_ORIGIN_API),
            "0xFFFF000E TEEC_ERROR_COMMUNICATION from the client API");
  EXPECT_EQ(DescribeTeeResult(TEEC_SUCCESS, 0), "0x00000000 TEEC_SUCCESS");
  EXPECT_EQ(DescribeTeeResult(0x12345678u, 9), "0x12345678 (no standard name) from origin 9");
}

TEST(Describe, CallResults) {
  CallRecord call{"poc_getAddress", 5, -99, TEEC_ERROR_ACCESS_DENIED, TEEC_ORIGIN_TRUSTED_APP};
  EXPECT_EQ(DescribeCall(call), "0xFFFF0001 TEEC_ERROR_ACCESS_DENIED from the trusted application");
  call.rc = -3;
  call.tee_result = TEEC_ERROR_COMMUNICATION;
  call.tee_origin = TEEC_ORIGIN_API;
  EXPECT_EQ(DescribeCall(call),
            "the TEE connection could not be opened: 0xFFFF000E TEEC_ERROR_COMMUNICATION from the "
            "client API");
  call.rc = 0;
  EXPECT_EQ(DescribeCall(call), "success");
  call.rc = -1;
  EXPECT_EQ(DescribeCall(call), "refused its arguments (-1)");
  call.rc = -2;
  EXPECT_NE(DescribeCall(call).find("(-2)"), std::string::npos);
  call.rc = -4;
  EXPECT_EQ(DescribeCall(call), "the TA answered without data (-4)");
  call.rc = 7;
  EXPECT_EQ(DescribeCall(call), "returned 7");
}

TEST(Describe, BytesAndText) {
  const unsigned char bytes[] = {0x00, 0xab, 0xff};
  EXPECT_EQ(Hex(bytes, 3), "00abff");
  EXPECT_EQ(Hex(nullptr, 0), "");
  const char text[] = {'a', ' ', '\\', '\n', '\0', '\x7f', '\xc3', 'z'};
  EXPECT_EQ(Printable(text, sizeof text), "a \\\\\\x0a\\x00\\x7f\\xc3z");
}

TEST(Describe, FailureLines) {
  CheckRecord c;
  c.name = "address at m/44'/60'/0'/0/3";
  c.expected = "aa";
  c.actual = "bb";
  EXPECT_EQ(FailureText(c), "address at m/44'/60'/0'/0/3: got bb, expected aa");
  c.detail = "why";
  EXPECT_EQ(FailureText(c), "address at m/44'/60'/0'/0/3: got bb, expected aa (why)");
  c.expected.clear();
  EXPECT_EQ(FailureText(c), "address at m/44'/60'/0'/0/3: got bb, expected nothing (why)");
  c.actual.clear();
  EXPECT_EQ(FailureText(c), "address at m/44'/60'/0'/0/3: why");
  c.detail.clear();
  EXPECT_EQ(FailureText(c), "address at m/44'/60'/0'/0/3");
}

}  // namespace
}  // namespace check
