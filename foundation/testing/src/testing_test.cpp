// Tests of the shared test support: hex text and vector files.
#include <gtest/gtest.h>
#include <unistd.h>

#include <cstdio>
#include <stdexcept>
#include <string>

#include "tessera/testing/hex.h"
#include "tessera/testing/vector_file.h"

namespace tessera::testing {
namespace {

TEST(TestingHex, RoundTripsEveryByte) {
  Bytes all(256);
  for (int i = 0; i < 256; ++i) all[i] = static_cast<unsigned char>(i);
  const std::string text = Hex(all);
  EXPECT_EQ(text.substr(0, 8), "00010203");
  EXPECT_EQ(text.substr(text.size() - 4), "feff");
  EXPECT_EQ(Unhex(text), all);
  EXPECT_EQ(Unhex("ABcd"), (Bytes{0xab, 0xcd}));
}

TEST(TestingHex, DashIsEmptyAndBadTextThrows) {
  EXPECT_TRUE(Unhex("-").empty());
  EXPECT_TRUE(Unhex("").empty());
  EXPECT_THROW(Unhex("abc"), std::invalid_argument);
  EXPECT_THROW(Unhex("zz"), std::invalid_argument);
  EXPECT_EQ(Hex(nullptr, 0), "");
}

TEST(TestingVectorFile, SkipsCommentsAndSplitsFields) {
  char path[] = "/tmp/vector-file-XXXXXX";
  const int fd = mkstemp(path);
  ASSERT_GE(fd, 0);
  const std::string text = "# comment\n\nsig 0a  0b\n# more\nkey a|b||c\n";
  ASSERT_EQ(write(fd, text.data(), text.size()), static_cast<ssize_t>(text.size()));
  close(fd);
  const auto blank = ReadVectorFile(path);
  ASSERT_EQ(blank.size(), 2u);
  EXPECT_EQ(blank[0].number, 3u);
  EXPECT_EQ(blank[0].fields, (std::vector<std::string>{"sig", "0a", "0b"}));
  const auto piped = ReadVectorFile(path, '|');
  ASSERT_EQ(piped.size(), 2u);
  EXPECT_EQ(piped[1].fields, (std::vector<std::string>{"key a", "b", "", "c"}));
  EXPECT_EQ(ReadTextFile(path), text);
  EXPECT_EQ(ReadTextFileOrEmpty(path), text);
  std::remove(path);
  EXPECT_THROW(ReadVectorFile(path), std::runtime_error);
  EXPECT_THROW(ReadTextFile(path), std::runtime_error);
  EXPECT_EQ(ReadTextFileOrEmpty(path), "");
}

}  // namespace
}  // namespace tessera::testing
