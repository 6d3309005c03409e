/* Properties files, and the property functions as a TA calls them. */
#include "runtime/properties.h"

#include <gtest/gtest.h>

#include <string>

#include "runtime/runtime.h"
#include "runtime/test_support.h"
#include "tee_internal_api.h"
#include "teesim_ta.h"

namespace teesim::runtime {
namespace {

TEST(PropertiesFile, ParsesNamesValuesCommentsAndBlanks) {
  std::map<std::string, std::string> p;
  std::string err;
  ASSERT_TRUE(parse_properties("# allow-list\n\n  tessera.keystore.allowed_credentials =  aa,bb  \n"
                               "limit=0x10\r\nempty =\n",
                               &p, &err))
      << err;
  EXPECT_EQ(p.size(), 3u);
  EXPECT_EQ(p["tessera.keystore.allowed_credentials"], "aa,bb");
  EXPECT_EQ(p["limit"], "0x10");
  EXPECT_EQ(p["empty"], "");
}

TEST(PropertiesFile, BadLinesAreNamed) {
  std::map<std::string, std::string> p;
  std::string err;
  EXPECT_FALSE(parse_properties("a = 1\nno equals sign\n", &p, &err));
  EXPECT_NE(err.find("line 2"), std::string::npos) << err;
  EXPECT_FALSE(parse_properties(" = value\n", &p, &err));
  EXPECT_NE(err.find("line 1"), std::string::npos) << err;
  EXPECT_FALSE(parse_properties("a = 1\nb = 2\na = 3\n", &p, &err));
  EXPECT_NE(err.find("line 3"), std::string::npos) << err;
  EXPECT_NE(err.find("twice"), std::string::npos) << err;
  EXPECT_FALSE(parse_properties("gpd.ta.singleInstance = false\n", &p, &err));
  EXPECT_NE(err.find("reserved"), std::string::npos) << err;
}

TEST(PropertiesFile, NumbersAndBooleans) {
  uint32_t v = 0;
  EXPECT_TRUE(parse_u32("0", &v));
  EXPECT_EQ(v, 0u);
  EXPECT_TRUE(parse_u32("4294967295", &v));
  EXPECT_EQ(v, 0xFFFFFFFFu);
  EXPECT_TRUE(parse_u32("0xFFfe", &v));
  EXPECT_EQ(v, 0xFFFEu);
  for (const char* bad : {"", "4294967296", "-1", "+1", "0x", "12a", " 1", "0x1FFFFFFFF"})
    EXPECT_FALSE(parse_u32(bad, &v)) << bad;
  bool b = false;
  EXPECT_TRUE(parse_bool("TRUE", &b));
  EXPECT_TRUE(b);
  EXPECT_TRUE(parse_bool("false", &b));
  EXPECT_FALSE(b);
  EXPECT_FALSE(parse_bool("yes", &b));
  EXPECT_FALSE(parse_bool("1", &b));
}

class PropertyApiTest : public ::testing::Test {
 protected:
  void SetUp() override {
    Config c;
    c.uuid = testing::pattern_uuid(0x30);
    c.name = "props";
    c.ta_flags = TEESIM_TA_FLAG_SINGLE_INSTANCE | TEESIM_TA_FLAG_MULTI_SESSION;
    c.properties = {{"my.text", "hello"}, {"my.number", "0x2A"}, {"my.flag", "True"},
                    {"my.bad_number", "4x"}};
    configure(std::move(c));
  }
};

TEST_F(PropertyApiTest, StringsWithShortBufferProtocol) {
  char buf[16];
  uint32_t len = sizeof buf;
  ASSERT_EQ(TEE_GetPropertyAsString(TEE_PROPSET_CURRENT_TA, "my.text", buf, &len), TEE_SUCCESS);
  EXPECT_STREQ(buf, "hello");
  EXPECT_EQ(len, 6u);
  len = 5;
  EXPECT_EQ(TEE_GetPropertyAsString(TEE_PROPSET_CURRENT_TA, "my.text", buf, &len),
            TEE_ERROR_SHORT_BUFFER);
  EXPECT_EQ(len, 6u);
  len = 0;
  EXPECT_EQ(TEE_GetPropertyAsString(TEE_PROPSET_CURRENT_TA, "my.text", nullptr, &len),
            TEE_ERROR_SHORT_BUFFER);
  EXPECT_EQ(len, 6u);
  len = sizeof buf;
  EXPECT_EQ(TEE_GetPropertyAsString(TEE_PROPSET_CURRENT_TA, "no.such", buf, &len),
            TEE_ERROR_ITEM_NOT_FOUND);
}

TEST_F(PropertyApiTest, DescriptorPropertiesComeFromTheTa) {
  char buf[64];
  uint32_t len = sizeof buf;
  ASSERT_EQ(TEE_GetPropertyAsString(TEE_PROPSET_CURRENT_TA, "gpd.ta.appID", buf, &len), TEE_SUCCESS);
  EXPECT_STREQ(buf, uuid_to_string(testing::pattern_uuid(0x30)).c_str());
  bool b = false;
  ASSERT_EQ(TEE_GetPropertyAsBool(TEE_PROPSET_CURRENT_TA, "gpd.ta.singleInstance", &b), TEE_SUCCESS);
  EXPECT_TRUE(b);
  ASSERT_EQ(TEE_GetPropertyAsBool(TEE_PROPSET_CURRENT_TA, "gpd.ta.instanceKeepAlive", &b), TEE_SUCCESS);
  EXPECT_FALSE(b);
  len = sizeof buf;
  ASSERT_EQ(TEE_GetPropertyAsString(TEE_PROPSET_CURRENT_TA, "gpd.ta.description", buf, &len),
            TEE_SUCCESS);
  EXPECT_STREQ(buf, "props");
}

TEST_F(PropertyApiTest, TypedReadsCheckTheFormat) {
  uint32_t v = 0;
  ASSERT_EQ(TEE_GetPropertyAsU32(TEE_PROPSET_CURRENT_TA, "my.number", &v), TEE_SUCCESS);
  EXPECT_EQ(v, 42u);
  EXPECT_EQ(TEE_GetPropertyAsU32(TEE_PROPSET_CURRENT_TA, "my.bad_number", &v), TEE_ERROR_BAD_FORMAT);
  EXPECT_EQ(TEE_GetPropertyAsU32(TEE_PROPSET_CURRENT_TA, "my.text", &v), TEE_ERROR_BAD_FORMAT);
  bool b = false;
  ASSERT_EQ(TEE_GetPropertyAsBool(TEE_PROPSET_CURRENT_TA, "my.flag", &b), TEE_SUCCESS);
  EXPECT_TRUE(b);
  EXPECT_EQ(TEE_GetPropertyAsBool(TEE_PROPSET_CURRENT_TA, "my.text", &b), TEE_ERROR_BAD_FORMAT);
  EXPECT_EQ(TEE_GetPropertyAsBool(TEE_PROPSET_CURRENT_TA, "missing", &b), TEE_ERROR_ITEM_NOT_FOUND);
}

TEST_F(PropertyApiTest, ClientAndImplementationSets) {
  set_current_client(TEE_LOGIN_USER, testing::pattern_uuid(0x50));
  char buf[80];
  uint32_t len = sizeof buf;
  ASSERT_EQ(TEE_GetPropertyAsString(TEE_PROPSET_CURRENT_CLIENT, "gpd.client.identity", buf, &len),
            TEE_SUCCESS);
  EXPECT_EQ(std::string(buf), "00000001:" + uuid_to_string(testing::pattern_uuid(0x50)));
  uint32_t v = 0;
  ASSERT_EQ(TEE_GetPropertyAsU32(TEE_PROPSET_TEE_IMPLEMENTATION, "gpd.tee.internalCore.version", &v),
            TEE_SUCCESS);
  EXPECT_EQ(v, 0x01010000u);
  EXPECT_EQ(TEE_GetPropertyAsU32(TEE_PROPSET_CURRENT_CLIENT, "my.number", &v), TEE_ERROR_ITEM_NOT_FOUND)
      << "a TA's properties are not the client's";
}

TEST_F(PropertyApiTest, UnknownPropertySetHandleEndsTheInstance) {
  uint32_t v;
  EXPECT_EXIT(TEE_GetPropertyAsU32(reinterpret_cast<TEE_PropSetHandle>(0x1000), "x", &v),
              ::testing::ExitedWithCode(kPanicExitCode), "panicked");
}

}  // namespace
}  // namespace teesim::runtime
