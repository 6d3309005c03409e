// The command line: every option, its value forms, and every error.
#include "Options.h"

#include <gtest/gtest.h>

#include <cstring>
#include <string>
#include <vector>

namespace check {
namespace {

// Owns a writable argv, as main() gets it.
class Argv {
 public:
  explicit Argv(std::vector<std::string> args) : storage_(std::move(args)) {
    storage_.insert(storage_.begin(), "tessera-check");
    for (std::string& s : storage_) pointers_.push_back(&s[0]);
    pointers_.push_back(nullptr);
  }
  int argc() const { return static_cast<int>(storage_.size()); }
  char** argv() { return pointers_.data(); }
  std::string arg(std::size_t i) const { return storage_[i].c_str(); }

 private:
  std::vector<std::string> storage_;
  std::vector<char*> pointers_;
};

ParsedOptions Parse(std::vector<std::string> args) {
  Argv a(std::move(args));
  return ParseOptions(a.argc(), a.argv());
}

std::string ErrorOf(std::vector<std::string> args) {
  const ParsedOptions p = Parse(std::move(args));
  EXPECT_FALSE(p.ok);
  return p.error;
}

TEST(Options, DefaultsRunEveryCaseWithoutWipingOnceWithThirtySecondCalls) {
  const ParsedOptions p = Parse({});
  ASSERT_TRUE(p.ok) << p.error;
  EXPECT_EQ(p.options.action, Options::Action::kRun);
  EXPECT_FALSE(p.options.allowWipe);
  EXPECT_TRUE(p.options.include.empty());
  EXPECT_TRUE(p.options.exclude.empty());
  EXPECT_EQ(p.options.junitPath, "");
  EXPECT_EQ(p.options.jsonPath, "");
  EXPECT_EQ(p.options.repeat, 1u);
  EXPECT_FALSE(p.options.repeatGiven);
  EXPECT_EQ(p.options.timeout.count(), 30000);
  EXPECT_TRUE(p.options.seed.empty());
}

TEST(Options, EveryOptionInBothValueForms) {
  const ParsedOptions p = Parse({"--allow-wipe", "-t", "1*", "-t5001", "-x", "11??", "-x*pin*",
                                 "--junit", "j.xml", "--json=r.json", "--repeat=7", "--timeout",
                                 "2.5"});
  ASSERT_TRUE(p.ok) << p.error;
  EXPECT_TRUE(p.options.allowWipe);
  EXPECT_EQ(p.options.include, (std::vector<std::string>{"1*", "5001"}));
  EXPECT_EQ(p.options.exclude, (std::vector<std::string>{"11??", "*pin*"}));
  EXPECT_EQ(p.options.junitPath, "j.xml");
  EXPECT_EQ(p.options.jsonPath, "r.json");
  EXPECT_EQ(p.options.repeat, 7u);
  EXPECT_TRUE(p.options.repeatGiven);
  EXPECT_EQ(p.options.timeout.count(), 2500);
}

TEST(Options, ActionsAndWhichWins) {
  EXPECT_EQ(Parse({"--list"}).options.action, Options::Action::kList);
  EXPECT_EQ(Parse({"--version"}).options.action, Options::Action::kVersion);
  EXPECT_EQ(Parse({"-h"}).options.action, Options::Action::kHelp);
  EXPECT_EQ(Parse({"--list", "--version", "--help"}).options.action, Options::Action::kHelp);
  EXPECT_EQ(Parse({"--list", "--version"}).options.action, Options::Action::kVersion);
  EXPECT_NE(UsageText().find("--allow-wipe"), std::string::npos);
}

TEST(Options, SeedIsDecodedAndItsDigitsLeaveArgv) {
  const std::string hex = "000102030405060708090A0b0c0d0e0f";
  Argv a({"--seed", hex});
  const ParsedOptions p = ParseOptions(a.argc(), a.argv());
  ASSERT_TRUE(p.ok) << p.error;
  ASSERT_EQ(p.options.seed.size(), 16u);
  for (unsigned i = 0; i < 16; ++i) EXPECT_EQ(p.options.seed.data()[i], i);
  EXPECT_EQ(a.arg(2), std::string(hex.size(), 'x'));

  Argv b({"--seed=" + hex + hex});
  const ParsedOptions q = ParseOptions(b.argc(), b.argv());
  ASSERT_TRUE(q.ok) << q.error;
  EXPECT_EQ(q.options.seed.size(), 32u);
  EXPECT_EQ(b.arg(1), "--seed=" + std::string(64, 'x'));
}

TEST(Options, SeedsOfEveryBip39SizeAndNoOther) {
  for (unsigned bytes : {16u, 20u, 24u, 28u, 32u}) {
    EXPECT_TRUE(Parse({"--seed", std::string(2 * bytes, 'a')}).ok) << bytes;
  }
  for (unsigned bytes : {0u, 1u, 15u, 17u, 18u, 31u, 33u, 36u, 64u}) {
    EXPECT_NE(ErrorOf({"--seed=" + std::string(2 * bytes, 'a')}).find("16, 20, 24, 28 or 32 bytes"),
              std::string::npos)
        << bytes;
  }
  EXPECT_NE(ErrorOf({"--seed", std::string(31, 'a')}).find("31 hex digits"), std::string::npos);
  EXPECT_EQ(ErrorOf({"--seed", std::string(31, 'a') + "g"}), "--seed: not a hex digit at position 32");
}

TEST(Options, ValuesOutOfRangeAreRefused) {
  EXPECT_EQ(ErrorOf({"--repeat", "0"}), "--repeat: '0' is not a count from 1 to 100000");
  EXPECT_FALSE(Parse({"--repeat", "100001"}).ok);
  EXPECT_FALSE(Parse({"--repeat", "-1"}).ok);
  EXPECT_FALSE(Parse({"--repeat", "2x"}).ok);
  EXPECT_TRUE(Parse({"--repeat", "100000"}).ok);
  for (const char* bad : {"0", "-1", "abc", "1s", "", "nan", "inf", "86401", ".5"}) {
    EXPECT_FALSE(Parse({"--timeout", bad}).ok) << bad;
  }
  EXPECT_EQ(Parse({"--timeout", "0.0001"}).options.timeout.count(), 1);
  EXPECT_EQ(Parse({"--timeout", "86400"}).options.timeout.count(), 86400000);
}

TEST(Options, MisuseIsNamed) {
  EXPECT_EQ(ErrorOf({"--bogus"}), "unknown option '--bogus'");
  EXPECT_EQ(ErrorOf({"--bogus=1"}), "unknown option '--bogus'");
  EXPECT_EQ(ErrorOf({"-q"}), "unknown option '-q'");
  EXPECT_EQ(ErrorOf({"1001"}), "unexpected argument '1001'");
  EXPECT_EQ(ErrorOf({"-t"}), "-t needs a value");
  EXPECT_EQ(ErrorOf({"--junit"}), "--junit needs a value");
  EXPECT_EQ(ErrorOf({"--json="}), "--json needs a file name");
  EXPECT_EQ(ErrorOf({"-t", ""}), "-t needs a non-empty pattern");
  EXPECT_EQ(ErrorOf({"--allow-wipe=yes"}), "--allow-wipe takes no value");
  EXPECT_EQ(ErrorOf({"--list=1"}), "--list takes no value");
}

}  // namespace
}  // namespace check
