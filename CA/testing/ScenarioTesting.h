// Shared by the scenarios' unit tests: a fixture that starts every test from
// the program's start state with fresh keystore doubles, captures standard
// output, and checks afterwards that every buffer the doubles handed out came
// back to free.
#ifndef TESSERA_CONSOLE_TESTING_SCENARIOTESTING_H
#define TESSERA_CONSOLE_TESTING_SCENARIOTESTING_H

#include "ConsoleTestSupport.h"
#include "DeploymentCredential.h"
#include "KeystoreDoubles.h"
#include "TestData.h"
#include "TimeTracker.h"
#include "tessera/testing/hex.h"

#include <gtest/gtest.h>

#include <cstdio>
#include <memory>
#include <string>
#include <vector>

namespace scenario_testing {

// Lower-case hex from the shared test support, independent of the console's
// own helpers, so that the expected text depends on nothing but the bytes.
using tessera::testing::Hex;

inline std::vector<unsigned char> Bytes(const unsigned char* data, std::size_t length) {
  return std::vector<unsigned char>(data, data + length);
}

inline std::vector<unsigned char> Bytes(const std::string& text) {
  return std::vector<unsigned char>(text.begin(), text.end());
}

// `count` bytes first, first + 1, ... (mod 256).
inline std::vector<unsigned char> Pattern(std::size_t count, unsigned char first) {
  std::vector<unsigned char> bytes(count);
  for (std::size_t i = 0; i < count; ++i) {
    bytes[i] = static_cast<unsigned char>(first + i);
  }
  return bytes;
}

// The path m/44'/60'/0'/0/account as the five words a request carries.
inline std::array<uint32_t, 5> AccountPath(uint32_t account) {
  return {0x8000002Cu, 0x8000003Cu, 0x80000000u, 0u, account};
}

class ScenarioTest : public ::testing::Test {
 protected:
  void SetUp() override {
    resetState();
    capture_ = std::make_unique<test::testing::StdioCapture>();
  }

  void TearDown() override {
    capture_.reset();
    // Whatever a test did, nothing the keystore handed over may be left.
    EXPECT_EQ(keystore_doubles::Outstanding(), 0u) << "a keystore buffer was not freed";
    resetState();
  }

  // Everything printed since the last call.
  std::string output() { return capture_->take(); }

  // Every call that took a credential got the one that ss_init_credential
  // made in this run, and the selector bytes 1 and 84.
  static void ExpectCredentialAndSelectors() {
    for (const keystore_doubles::Call& call : keystore_doubles::Calls()) {
      if (!call.has_credential) {
        continue;
      }
      EXPECT_EQ(call.token, keystore_doubles::Token()) << keystore_doubles::Name(call.fn);
      EXPECT_EQ(call.selector_hi, 1u) << keystore_doubles::Name(call.fn);
      EXPECT_EQ(call.selector_lo, 84u) << keystore_doubles::Name(call.fn);
    }
  }

  // ss_init_credential was called exactly once, with the deployment's words,
  // version 1 and flags 0.
  static void ExpectOneCredentialSetUp() {
    const auto& calls = keystore_doubles::CredentialCalls();
    ASSERT_EQ(calls.size(), 1u);
    for (std::size_t i = 0; i < 5; ++i) {
      EXPECT_EQ(calls[0].words[i], tessera::kCredentialWords[i]) << "word " << i;
    }
    EXPECT_EQ(calls[0].version, 1u);
    EXPECT_EQ(calls[0].flags, 0u);
  }

  // Every buffer handed out so far was freed with its bytes wiped.
  static void ExpectAllBuffersWiped() {
    for (const keystore_doubles::Buffer& b : keystore_doubles::Buffers()) {
      EXPECT_TRUE(b.freed) << keystore_doubles::Name(b.fn);
      EXPECT_TRUE(b.wiped) << keystore_doubles::Name(b.fn);
    }
  }

 private:
  static void resetState() {
    test::testing::resetConsoleState();
    keystore_doubles::Reset();
  }

  std::unique_ptr<test::testing::StdioCapture> capture_;
};

}  // namespace scenario_testing

#endif  // TESSERA_CONSOLE_TESTING_SCENARIOTESTING_H
