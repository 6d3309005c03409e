/* The daemon's options, their defaults and the explanations of mistakes. */
#include "daemon/options.h"

#include <stdlib.h>

#include <gtest/gtest.h>

#include <string>
#include <vector>

namespace teesim::daemon {
namespace {

bool parse(std::vector<std::string> args, Options* o, std::string* err) {
  args.insert(args.begin(), "teesim");
  std::vector<char*> argv;
  for (std::string& a : args) argv.push_back(a.data());
  argv.push_back(nullptr);
  return parse_options(static_cast<int>(args.size()), argv.data(), o, err);
}

TEST(DaemonOptions, EveryOptionIsRead) {
  Options o;
  std::string err;
  ASSERT_TRUE(parse({"-s", "/tmp/x.sock", "--socket-group", "teesim", "--ta-dir", "/opt/ta", "-d", "/var/s", "-f", "-l", "debug",
                     "--log-file", "/tmp/log", "--random-seed", "abc", "--wipe-storage",
                     "58D50001-1105-000B-AF0C-C12FB6EDECCA", "--wipe-storage", "all"},
                    &o, &err))
      << err;
  EXPECT_EQ(o.socket_path, "/tmp/x.sock");
  EXPECT_EQ(o.socket_group, "teesim");
  EXPECT_EQ(o.ta_dir, "/opt/ta");
  EXPECT_EQ(o.storage_dir, "/var/s");
  EXPECT_TRUE(o.foreground);
  EXPECT_EQ(o.log_level, log::Level::Debug);
  EXPECT_EQ(o.log_file, "/tmp/log");
  EXPECT_TRUE(o.has_random_seed);
  EXPECT_EQ(o.random_seed, "abc");
  ASSERT_EQ(o.wipe.size(), 2u);
  EXPECT_EQ(o.wipe[0], "58d50001-1105-000b-af0c-c12fb6edecca");
  EXPECT_EQ(o.wipe[1], "all");
  EXPECT_FALSE(o.new_installation_key);
  ASSERT_TRUE(parse({"--new-installation-key"}, &o, &err)) << err;
  EXPECT_TRUE(o.new_installation_key);
}

TEST(DaemonOptions, DefaultsComeFromTheEnvironment) {
  ::setenv("TEESIM_SOCKET", "/env/sock", 1);
  ::setenv("TEESIM_TA_DIR", "/env/ta", 1);
  ::setenv("TEESIM_STORAGE_DIR", "/env/storage", 1);
  Options o;
  std::string err;
  ASSERT_TRUE(parse({}, &o, &err)) << err;
  EXPECT_EQ(o.socket_path, "/env/sock");
  EXPECT_EQ(o.ta_dir, "/env/ta");
  EXPECT_EQ(o.storage_dir, "/env/storage");
  EXPECT_FALSE(o.foreground) << "the daemon detaches unless told otherwise";
  EXPECT_FALSE(o.has_random_seed) << "random numbers come from the OS unless told otherwise";
  EXPECT_EQ(o.log_level, log::Level::Info);
  ::unsetenv("TEESIM_SOCKET");
  ::unsetenv("TEESIM_TA_DIR");
  ::unsetenv("TEESIM_STORAGE_DIR");
}

TEST(DaemonOptions, TheTaHostsEmulatorComesFromTheOptionElseTheEnvironment) {
  const char* outer = ::getenv("TEESIM_EMULATOR"); /* set when this test itself is emulated */
  const std::string saved = outer != nullptr ? outer : "";
  using Words = std::vector<std::string>;
  Options o;
  std::string err;
  ::setenv("TEESIM_EMULATOR", "qemu-arm-static -L /sysroot", 1);
  ASSERT_TRUE(parse({}, &o, &err)) << err;
  EXPECT_EQ(o.emulator, (Words{"qemu-arm-static", "-L", "/sysroot"}));
  ASSERT_TRUE(parse({"--emulator", " /usr/bin/qemu-aarch64-static  -d  x "}, &o, &err)) << err;
  EXPECT_EQ(o.emulator, (Words{"/usr/bin/qemu-aarch64-static", "-d", "x"}));
  ASSERT_TRUE(parse({"--emulator", ""}, &o, &err)) << err;
  EXPECT_EQ(o.emulator, Words{}) << "an empty --emulator runs the hosts directly";
  ::unsetenv("TEESIM_EMULATOR");
  ASSERT_TRUE(parse({}, &o, &err)) << err;
  EXPECT_EQ(o.emulator, Words{});
  if (outer != nullptr) ::setenv("TEESIM_EMULATOR", saved.c_str(), 1);
}

TEST(DaemonOptions, MistakesAreExplained) {
  Options o;
  std::string err;
  EXPECT_FALSE(parse({"--log-level", "loud"}, &o, &err));
  EXPECT_NE(err.find("loud"), std::string::npos) << err;
  EXPECT_FALSE(parse({"--wipe-storage", "not-a-uuid"}, &o, &err));
  EXPECT_NE(err.find("not-a-uuid"), std::string::npos) << err;
  EXPECT_FALSE(parse({"--socket"}, &o, &err));
  EXPECT_NE(err.find("needs a value"), std::string::npos) << err;
  EXPECT_FALSE(parse({"--bogus"}, &o, &err));
  EXPECT_NE(err.find("--bogus"), std::string::npos) << err;
  EXPECT_FALSE(parse({"extra"}, &o, &err));
  EXPECT_NE(err.find("extra"), std::string::npos) << err;
  EXPECT_FALSE(parse({"--socket-group", ""}, &o, &err));
  EXPECT_NE(err.find("--socket-group"), std::string::npos) << err;
}

TEST(DaemonOptions, TheSocketIsPrivateUnlessAGroupIsNamed) {
  Options o;
  std::string err;
  ASSERT_TRUE(parse({}, &o, &err)) << err;
  EXPECT_EQ(o.socket_group, "");
}

TEST(DaemonOptions, HelpNamesEveryOption) {
  std::string text = usage("teesim");
  for (const char* opt : {"--socket", "--socket-group", "--ta-dir", "--storage-dir", "--foreground", "--background",
                          "--log-level", "--log-file", "--random-seed", "--wipe-storage", "--new-installation-key",
                          "--help"})
    EXPECT_NE(text.find(opt), std::string::npos) << opt;
}

TEST(DaemonOptions, LimitsHaveDefaultsAndRefuseNonsense) {
  Options o;
  std::string err;
  ASSERT_TRUE(parse({}, &o, &err)) << err;
  EXPECT_EQ(o.max_clients_per_user, kDefaultMaxClientsPerUser);
  ASSERT_TRUE(parse({"--max-clients-per-user", "3"}, &o, &err)) << err;
  EXPECT_EQ(o.max_clients_per_user, 3u);
  for (const char* bad : {"0", "-1", "x", "12x", "", "99999999999"}) {
    EXPECT_FALSE(parse({"--max-clients-per-user", bad}, &o, &err)) << bad;
    EXPECT_NE(err.find("--max-clients-per-user"), std::string::npos) << err;
  }
  EXPECT_NE(usage("teesim").find("--max-clients-per-user"), std::string::npos);

  EXPECT_EQ(o.max_operation_bytes, kDefaultMaxOperationBytes);
  EXPECT_EQ(o.max_session_shm_bytes, kDefaultMaxSessionShmBytes);
  ASSERT_TRUE(parse({"--max-operation-memory", "1M", "--max-session-shm", "8192"}, &o, &err)) << err;
  EXPECT_EQ(o.max_operation_bytes, 1u << 20);
  EXPECT_EQ(o.max_session_shm_bytes, 8192u);
  ASSERT_TRUE(parse({"--max-session-shm", "2G"}, &o, &err)) << err;
  EXPECT_EQ(o.max_session_shm_bytes, 1u << 31);
  for (const char* bad : {"4095", "3G", "1T", "1.5M", "M", "-4K", "99999999999999999999"}) {
    EXPECT_FALSE(parse({"--max-operation-memory", bad}, &o, &err)) << bad;
    EXPECT_NE(err.find("--max-operation-memory"), std::string::npos) << err;
  }
}

}  // namespace
}  // namespace teesim::daemon
