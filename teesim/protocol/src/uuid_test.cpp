/* UUID text and field conversions, both ways. */
#include "teesim/uuid.h"

#include <gtest/gtest.h>

namespace teesim {
namespace {

TEST(Uuid, FieldsRoundTripThroughCanonicalText) {
  const uint8_t node[8] = {0xaf, 0x0c, 0xc1, 0x2f, 0xb6, 0xed, 0xec, 0xca};
  Uuid u = uuid_from_fields(0x58d50001, 0x1105, 0x000b, node);
  EXPECT_EQ(uuid_to_string(u), "58d50001-1105-000b-af0c-c12fb6edecca");
  uint32_t tl;
  uint16_t tm, th;
  uint8_t n[8];
  uuid_to_fields(u, &tl, &tm, &th, n);
  EXPECT_EQ(tl, 0x58d50001u);
  EXPECT_EQ(tm, 0x1105u);
  EXPECT_EQ(th, 0x000bu);
  EXPECT_EQ(0, memcmp(n, node, 8));
}

TEST(Uuid, ParsesEitherCaseAndPrintsLowerCase) {
  Uuid u;
  ASSERT_TRUE(uuid_parse("58D50001-1105-000B-AF0C-C12FB6EDECCA", &u));
  EXPECT_EQ(uuid_to_string(u), "58d50001-1105-000b-af0c-c12fb6edecca");
  EXPECT_EQ(u.bytes[0], 0x58);
  EXPECT_EQ(u.bytes[15], 0xca);
}

TEST(Uuid, RefusesMalformedText) {
  Uuid u;
  u.bytes.fill(0x77);
  const char* bad[] = {"", "58d50001-1105-000b-af0c-c12fb6edecc",
                       "58d50001-1105-000b-af0c-c12fb6edeccaa",
                       "58d50001x1105-000b-af0c-c12fb6edecca",
                       "58d50001-1105-000b-af0cc-12fb6edecca",
                       "58d5000g-1105-000b-af0c-c12fb6edecca",
                       "../../../../etc/passwd-000b-af0c-c12"};
  for (const char* s : bad) EXPECT_FALSE(uuid_parse(s, &u)) << s;
  for (uint8_t b : u.bytes) EXPECT_EQ(b, 0x77);
}

}  // namespace
}  // namespace teesim
