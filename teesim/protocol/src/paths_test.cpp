/* The emulator setting shared by libteec and the daemon: how its text is
 * split into the words of a command line. */
#include "teesim/paths.h"

#include <stdlib.h>

#include <gtest/gtest.h>

#include <string>
#include <vector>

namespace teesim::paths {
namespace {

using Words = std::vector<std::string>;

TEST(CommandWords, SplitAtSpacesAndSkipEmptyWords) {
  EXPECT_EQ(command_words("qemu-arm-static -L /usr/arm-linux-gnueabihf"),
            (Words{"qemu-arm-static", "-L", "/usr/arm-linux-gnueabihf"}));
  EXPECT_EQ(command_words("  /usr/bin/qemu-aarch64-static   "), Words{"/usr/bin/qemu-aarch64-static"});
  EXPECT_EQ(command_words(""), Words{});
  EXPECT_EQ(command_words("   "), Words{});
}

TEST(Emulator, ComesFromTeesimEmulatorAndIsEmptyWithoutIt) {
  const char* outer = ::getenv("TEESIM_EMULATOR"); /* set when this test itself is emulated */
  const std::string saved = outer != nullptr ? outer : "";
  ::setenv("TEESIM_EMULATOR", "qemu-aarch64-static -cpu max", 1);
  EXPECT_EQ(emulator(), (Words{"qemu-aarch64-static", "-cpu", "max"}));
  ::setenv("TEESIM_EMULATOR", "", 1);
  EXPECT_EQ(emulator(), Words{});
  ::unsetenv("TEESIM_EMULATOR");
  EXPECT_EQ(emulator(), Words{});
  if (outer != nullptr) ::setenv("TEESIM_EMULATOR", saved.c_str(), 1);
}

}  // namespace
}  // namespace teesim::paths
