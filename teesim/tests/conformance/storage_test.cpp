/* Persistent objects end to end: round trips, encryption at rest, tamper
 * and rollback detection, crash safety under kill -9, wiping, a lost
 * installation key, a read-only storage folder. */
#include <dirent.h>
#include <signal.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <map>
#include <string>
#include <vector>

#include "support.h"

namespace conformance {
namespace {

namespace fs = std::filesystem;

TEEC_Result put(TEEC_Session* s, const std::string& id, const std::string& data, uint32_t* origin) {
  TEEC_Operation op{};
  op.paramTypes = TEEC_PARAM_TYPES(TEEC_MEMREF_TEMP_INPUT, TEEC_MEMREF_TEMP_INPUT, TEEC_NONE, TEEC_NONE);
  op.params[0].tmpref = {const_cast<char*>(id.data()), id.size()};
  op.params[1].tmpref = {const_cast<char*>(data.data()), data.size()};
  return TEEC_InvokeCommand(s, TEST_CMD_STORE_PUT, &op, origin);
}

TEEC_Result get(TEEC_Session* s, const std::string& id, std::string* data, uint32_t* origin,
                size_t room = 64 * 1024) {
  std::string buf(room, '\0');
  TEEC_Operation op{};
  op.paramTypes = TEEC_PARAM_TYPES(TEEC_MEMREF_TEMP_INPUT, TEEC_MEMREF_TEMP_OUTPUT, TEEC_NONE, TEEC_NONE);
  op.params[0].tmpref = {const_cast<char*>(id.data()), id.size()};
  op.params[1].tmpref = {buf.data(), buf.size()};
  TEEC_Result r = TEEC_InvokeCommand(s, TEST_CMD_STORE_GET, &op, origin);
  if (r == TEEC_SUCCESS) {
    *data = buf.substr(0, op.params[1].tmpref.size);
  } else if (r == TEEC_ERROR_SHORT_BUFFER) {
    *data = std::to_string(op.params[1].tmpref.size);
  }
  return r;
}

TEEC_Result del(TEEC_Session* s, const std::string& id, uint32_t* origin) {
  TEEC_Operation op{};
  op.paramTypes = TEEC_PARAM_TYPES(TEEC_MEMREF_TEMP_INPUT, TEEC_NONE, TEEC_NONE, TEEC_NONE);
  op.params[0].tmpref = {const_cast<char*>(id.data()), id.size()};
  return TEEC_InvokeCommand(s, TEST_CMD_STORE_DELETE, &op, origin);
}

std::vector<std::string> files_in(const std::string& dir) {
  std::vector<std::string> out;
  std::error_code ec;
  for (const auto& e : fs::directory_iterator(dir, ec)) out.push_back(e.path().filename());
  return out;
}

/* The object file a step added to a folder (tests share a daemon when run
 * in one process; the TA's generation record is not an object file). */
std::string added_file(const std::vector<std::string>& before, const std::vector<std::string>& after) {
  const std::string suffix = ".obj";
  for (const std::string& f : after)
    if (std::find(before.begin(), before.end(), f) == before.end() && f.size() > suffix.size() &&
        f.compare(f.size() - suffix.size(), suffix.size(), suffix) == 0)
      return f;
  return "";
}

using Storage = WithDaemon;

TEST_F(Storage, ObjectsRoundTrip) {
  Client c;
  ASSERT_RESULT(c.open(kTestTa), TEEC_SUCCESS);
  uint32_t origin = 0;
  std::string data;
  EXPECT_OUTCOME(get(c.session(), "round-trip", &data, &origin), origin, TEEC_ERROR_ITEM_NOT_FOUND,
                 TEEC_ORIGIN_TRUSTED_APP);
  ASSERT_RESULT(put(c.session(), "round-trip", "first value", &origin), TEEC_SUCCESS);
  ASSERT_RESULT(put(c.session(), "round-trip", "second, longer value", &origin), TEEC_SUCCESS);
  ASSERT_RESULT(get(c.session(), "round-trip", &data, &origin), TEEC_SUCCESS);
  EXPECT_EQ(data, "second, longer value");
  EXPECT_OUTCOME(get(c.session(), "round-trip", &data, &origin, 4), origin, TEEC_ERROR_SHORT_BUFFER,
                 TEEC_ORIGIN_TRUSTED_APP);
  EXPECT_EQ(data, "20");
  ASSERT_RESULT(del(c.session(), "round-trip", &origin), TEEC_SUCCESS);
  EXPECT_OUTCOME(get(c.session(), "round-trip", &data, &origin), origin, TEEC_ERROR_ITEM_NOT_FOUND,
                 TEEC_ORIGIN_TRUSTED_APP);
}

TEST_F(Storage, TheObjectApiTourPassesInsideTheTa) {
  Client c;
  ASSERT_RESULT(c.open(kTestTa), TEEC_SUCCESS);
  TEEC_Operation op{};
  op.paramTypes = TEEC_PARAM_TYPES(TEEC_VALUE_OUTPUT, TEEC_NONE, TEEC_NONE, TEEC_NONE);
  uint32_t origin = 0;
  ASSERT_RESULT(TEEC_InvokeCommand(c.session(), TEST_CMD_STORE_SELFTEST, &op, &origin), TEEC_SUCCESS);
  EXPECT_EQ(op.params[0].value.a, 0u) << "failed at step " << op.params[0].value.a << " with "
                                      << teesim::testing::ResultName(op.params[0].value.b);
}

TEST_F(Storage, ObjectsAreEncryptedAtRestInPrivateFolders) {
  Client c;
  ASSERT_RESULT(c.open(kTestTa), TEEC_SUCCESS);
  uint32_t origin = 0;
  const std::string id = "wallet-seed-id", secret = "abandon ability able about above absent";
  const std::string dir = ta_storage(daemon(), TEST_TA_UUID_TEXT);
  auto before = files_in(dir);
  ASSERT_RESULT(put(c.session(), id, secret, &origin), TEEC_SUCCESS);
  std::string name = added_file(before, files_in(dir));
  ASSERT_FALSE(name.empty());
  EXPECT_EQ(name.find(id), std::string::npos);
  std::string content = read_text(dir + "/" + name);
  EXPECT_EQ(content.find("abandon"), std::string::npos);
  EXPECT_EQ(content.find(id), std::string::npos);
  struct stat st{};
  ASSERT_EQ(::stat(dir.c_str(), &st), 0);
  EXPECT_EQ(st.st_mode & 0777, 0700u);
  ASSERT_EQ(::stat((daemon().StorageDir() + "/installation.key").c_str(), &st), 0);
  EXPECT_EQ(st.st_mode & 0777, 0600u);
}

TEST_F(Storage, ATamperedObjectIsReportedCorrupt) {
  Client c;
  ASSERT_RESULT(c.open(kTestTa), TEEC_SUCCESS);
  uint32_t origin = 0;
  const std::string dir = ta_storage(daemon(), TEST_TA_UUID_TEXT);
  auto before = files_in(dir);
  ASSERT_RESULT(put(c.session(), "tampered-pin", "1234", &origin), TEEC_SUCCESS);
  std::string name = added_file(before, files_in(dir));
  ASSERT_FALSE(name.empty());
  std::string path = dir + "/" + name;
  std::string bytes = read_text(path);
  bytes[bytes.size() / 2] ^= 0x01;
  std::ofstream(path, std::ios::binary | std::ios::trunc) << bytes;
  std::string data;
  EXPECT_OUTCOME(get(c.session(), "tampered-pin", &data, &origin), origin,
                 0xF0100001u /* TEE_ERROR_CORRUPT_OBJECT */, TEEC_ORIGIN_TRUSTED_APP);
}

TEST_F(Storage, SwappedObjectFilesAreReportedCorrupt) {
  Client c;
  ASSERT_RESULT(c.open(kTestTa), TEEC_SUCCESS);
  uint32_t origin = 0;
  const std::string dir = ta_storage(daemon(), TEST_TA_UUID_TEXT);
  auto before = files_in(dir);
  ASSERT_RESULT(put(c.session(), "swap-a", "value of a", &origin), TEEC_SUCCESS);
  auto with_a = files_in(dir);
  ASSERT_RESULT(put(c.session(), "swap-b", "value of b", &origin), TEEC_SUCCESS);
  std::string a_file = added_file(before, with_a), b_file = added_file(with_a, files_in(dir));
  ASSERT_FALSE(a_file.empty());
  ASSERT_FALSE(b_file.empty());
  fs::copy_file(dir + "/" + b_file, dir + "/" + a_file, fs::copy_options::overwrite_existing);
  std::string data;
  EXPECT_OUTCOME(get(c.session(), "swap-a", &data, &origin), origin, 0xF0100001u, TEEC_ORIGIN_TRUSTED_APP);
  ASSERT_RESULT(get(c.session(), "swap-b", &data, &origin), TEEC_SUCCESS);
  EXPECT_EQ(data, "value of b");
}

TEST_F(Storage, AnOlderCopyOfAnObjectFilePutBackIsReportedCorrupt) {
  Client c;
  ASSERT_RESULT(c.open(kTestTa), TEEC_SUCCESS);
  uint32_t origin = 0;
  const std::string dir = ta_storage(daemon(), TEST_TA_UUID_TEXT);
  auto before = files_in(dir);
  ASSERT_RESULT(put(c.session(), "pin-tries", "0 failed tries", &origin), TEEC_SUCCESS);
  const std::string path = dir + "/" + added_file(before, files_in(dir));
  const std::string fresh = read_text(path);
  ASSERT_RESULT(put(c.session(), "pin-tries", "3 failed tries: locked", &origin), TEEC_SUCCESS);
  std::ofstream(path, std::ios::binary | std::ios::trunc) << fresh;
  std::string data;
  EXPECT_OUTCOME(get(c.session(), "pin-tries", &data, &origin), origin,
                 0xF0100001u /* TEE_ERROR_CORRUPT_OBJECT */, TEEC_ORIGIN_TRUSTED_APP);
  EXPECT_NE(daemon().LogText().find("is not its latest write (an older copy of it was put back"),
            std::string::npos);

  /* A deleted object's file put back stays deleted. */
  before = files_in(dir);
  ASSERT_RESULT(put(c.session(), "deleted-seed", "old wallet", &origin), TEEC_SUCCESS);
  const std::string seed_path = dir + "/" + added_file(before, files_in(dir));
  const std::string seed = read_text(seed_path);
  ASSERT_RESULT(del(c.session(), "deleted-seed", &origin), TEEC_SUCCESS);
  std::ofstream(seed_path, std::ios::binary | std::ios::trunc) << seed;
  EXPECT_OUTCOME(get(c.session(), "deleted-seed", &data, &origin), origin, TEEC_ERROR_ITEM_NOT_FOUND,
                 TEEC_ORIGIN_TRUSTED_APP);
}

TEST(StorageRestart, ObjectsSurviveTheDaemonAndWipingRemovesThem) {
  PrivateDaemon d;
  ASSERT_TRUE(d.Start()) << d.Error();
  use_daemon(d);
  uint32_t origin = 0;
  {
    Client c, k;
    ASSERT_RESULT(c.open(kTestTa), TEEC_SUCCESS);
    ASSERT_RESULT(k.open(kKeepAliveTa), TEEC_SUCCESS);
    ASSERT_RESULT(put(c.session(), "x", "kept across restarts", &origin), TEEC_SUCCESS);
    ASSERT_RESULT(put(k.session(), "y", "another TA's", &origin), TEEC_SUCCESS);
  }
  ASSERT_EQ(d.Stop(), 0);
  ASSERT_TRUE(d.Start()) << d.Error();
  std::string data;
  {
    Client c;
    ASSERT_RESULT(c.open(kTestTa), TEEC_SUCCESS);
    ASSERT_RESULT(get(c.session(), "x", &data, &origin), TEEC_SUCCESS);
    EXPECT_EQ(data, "kept across restarts");
  }
  ASSERT_EQ(d.Stop(), 0);
  ASSERT_TRUE(d.Start({"--wipe-storage", TEST_TA_UUID_TEXT}));
  {
    Client c, k;
    ASSERT_RESULT(c.open(kTestTa), TEEC_SUCCESS);
    EXPECT_OUTCOME(get(c.session(), "x", &data, &origin), origin, TEEC_ERROR_ITEM_NOT_FOUND,
                   TEEC_ORIGIN_TRUSTED_APP);
    ASSERT_RESULT(k.open(kKeepAliveTa), TEEC_SUCCESS);
    ASSERT_RESULT(get(k.session(), "y", &data, &origin), TEEC_SUCCESS) << "only the named TA is wiped";
  }
  EXPECT_NE(d.LogText().find("wiped the persistent objects of TA " TEST_TA_UUID_TEXT), std::string::npos);
  ASSERT_EQ(d.Stop(), 0);
  ASSERT_TRUE(d.Start({"--wipe-storage", "all"}));
  {
    Client k;
    ASSERT_RESULT(k.open(kKeepAliveTa), TEEC_SUCCESS);
    EXPECT_OUTCOME(get(k.session(), "y", &data, &origin), origin, TEEC_ERROR_ITEM_NOT_FOUND,
                   TEEC_ORIGIN_TRUSTED_APP);
  }
}

/* ---- a lost installation key ------------------------------------------------------ */

size_t count_of(const std::string& text, const std::string& what) {
  size_t n = 0;
  for (size_t at = text.find(what); at != std::string::npos; at = text.find(what, at + 1)) ++n;
  return n;
}

TEST(StorageKeyLost, ADaemonRefusesToOrphanObjectsUntilToldToStartAfresh) {
  PrivateDaemon d;
  ASSERT_TRUE(d.Start()) << d.Error();
  use_daemon(d);
  uint32_t origin = 0;
  const std::string dir = ta_storage(d, TEST_TA_UUID_TEXT);
  {
    Client c;
    ASSERT_RESULT(c.open(kTestTa), TEEC_SUCCESS);
    ASSERT_RESULT(put(c.session(), "wallet", "the only copy", &origin), TEEC_SUCCESS);
  }
  ASSERT_EQ(d.Stop(), 0);
  const std::vector<std::string> objects = files_in(dir);
  const std::string key = d.StorageDir() + "/installation.key";
  ASSERT_TRUE(fs::remove(key));

  std::string err;
  std::vector<std::string> args = {"--foreground", "--socket", d.Socket(), "--ta-dir", d.TaDir(),
                                   "--storage-dir", d.StorageDir()};
  EXPECT_EQ(d.RunCommand(args, &err), 4);
  EXPECT_NE(err.find("the installation key " + key + " is missing, but TA(s) " TEST_TA_UUID_TEXT
                     " have persistent objects"),
            std::string::npos)
      << err;
  EXPECT_NE(err.find("--new-installation-key"), std::string::npos) << err;
  EXPECT_FALSE(fs::exists(key)) << "no new key was made";
  EXPECT_EQ(files_in(dir), objects) << "the objects are untouched";

  ASSERT_TRUE(d.Start({"--new-installation-key"})) << d.Error();
  EXPECT_TRUE(fs::exists(key));
  {
    Client c;
    ASSERT_RESULT(c.open(kTestTa), TEEC_SUCCESS);
    std::string data;
    EXPECT_OUTCOME(get(c.session(), "wallet", &data, &origin), origin, TEEC_ERROR_ITEM_NOT_FOUND,
                   TEEC_ORIGIN_TRUSTED_APP);
  }
  ASSERT_EQ(d.Stop(), 0);
  const std::string log = d.LogText();
  const std::string said = "the objects of TA(s) " TEST_TA_UUID_TEXT
                           ", which nothing can read without it, are set aside in " ;
  const size_t at = log.find(said);
  ASSERT_NE(at, std::string::npos) << log;
  const std::string aside = log.substr(at + said.size(), log.find('\n', at) - at - said.size());
  EXPECT_EQ(aside.rfind(d.StorageDir() + "/lost-key-", 0), 0u) << aside;
  EXPECT_EQ(files_in(aside + "/" TEST_TA_UUID_TEXT), objects) << "set aside whole, not deleted";

  /* The new key is kept: later starts need no option. */
  ASSERT_TRUE(d.Start()) << d.Error();
}

/* ---- a read-only storage folder --------------------------------------------------- */

/* A stand-in for teesim that runs it with its storage folder bind-mounted
 * read-only over itself, in a mount namespace of its own (so as root only),
 * while <folder>/read-only exists; otherwise it runs teesim as it is. The
 * script runs on this machine; a daemon built for another CPU runs through
 * $TEESIM_EMULATOR (its words split at spaces, as the daemon splits them). */
std::string read_only_wrapper(const std::string& folder) {
  const std::string path = folder + "/teesim-read-only.sh";
  std::ofstream(path) << "#!/bin/sh\n"
                         "[ -e '" << folder << "/read-only' ] || exec ${TEESIM_EMULATOR-} '"
                      << teesim::testing::BuiltDaemon()
                      << "' \"$@\"\n"
                         "storage= prev=\n"
                         "for a in \"$@\"; do [ \"$prev\" = --storage-dir ] && storage=$a; prev=$a; done\n"
                         "exec unshare --mount --propagation private /bin/sh -c "
                         "'mount --bind -o ro \"$1\" \"$1\" && shift && exec \"$@\"' sh \"$storage\" "
                         "${TEESIM_EMULATOR-} '"
                      << teesim::testing::BuiltDaemon() << "' \"$@\"\n";
  ::chmod(path.c_str(), 0700);
  return path;
}

TEST(StorageReadOnly, ReadsAreServedAndWritesAnswerStorageNotAvailable) {
  teesim::testing::TempFolder scripts;
  PrivateDaemon::Options o;
  /* Root writes through any permission: only a read-only mount stops it. */
  const bool root = ::geteuid() == 0;
  if (root) {
    o.daemon = read_only_wrapper(scripts.path());
    o.through_emulator = false;
  }
  PrivateDaemon d(o);
  const std::string dir = ta_storage(d, TEST_TA_UUID_TEXT);
  uint32_t origin = 0;
  ASSERT_TRUE(d.Start()) << d.Error();
  use_daemon(d);
  {
    Client c;
    ASSERT_RESULT(c.open(kTestTa), TEEC_SUCCESS);
    ASSERT_RESULT(put(c.session(), "kept", "written before", &origin), TEEC_SUCCESS);
  }
  ASSERT_EQ(d.Stop(), 0);
  const size_t lines_before = count_of(d.LogText(), "\n");

  if (root) {
    std::ofstream(scripts.path() + "/read-only") << "";
  } else {
    ASSERT_EQ(::chmod(dir.c_str(), 0500), 0);
    ASSERT_EQ(::chmod(d.StorageDir().c_str(), 0500), 0);
  }
  const bool started = d.Start();
  if (started) {
    Client c;
    ASSERT_RESULT(c.open(kTestTa), TEEC_SUCCESS);
    std::string data;
    ASSERT_RESULT(get(c.session(), "kept", &data, &origin), TEEC_SUCCESS);
    EXPECT_EQ(data, "written before");
    for (const char* id : {"kept", "new"}) {
      EXPECT_OUTCOME(put(c.session(), id, "written after", &origin), origin,
                     0xF0100003u /* TEE_ERROR_STORAGE_NOT_AVAILABLE */, TEEC_ORIGIN_TRUSTED_APP)
          << id;
    }
    EXPECT_OUTCOME(del(c.session(), "kept", &origin), origin, 0xF0100003u, TEEC_ORIGIN_TRUSTED_APP);
    ASSERT_RESULT(get(c.session(), "kept", &data, &origin), TEEC_SUCCESS);
    EXPECT_EQ(data, "written before");
  }
  const int status = d.Stop();
  if (!root) {
    ::chmod(d.StorageDir().c_str(), 0700);
    ::chmod(dir.c_str(), 0700);
  }
  ASSERT_TRUE(started) << d.Error();
  EXPECT_EQ(status, 0);
  /* Why, once from the daemon and once from the TA instance, not per write. */
  std::string log = d.LogText();
  size_t skip = 0;
  for (size_t n = 0; n < lines_before; ++n) skip = log.find('\n', skip) + 1;
  log = log.substr(skip);
  EXPECT_EQ(count_of(log, "cannot be written ("), 2u) << log;
  EXPECT_EQ(count_of(log, "every write answers TEE_ERROR_STORAGE_NOT_AVAILABLE"), 1u) << log;
}

/* ---- crash safety ----------------------------------------------------------------- */

constexpr int kObjects = 4;

/* Object content for a generation: its number and length, then a pattern. */
std::string generation_data(uint32_t gen) {
  size_t size = 64 + (gen * 7919u) % 20000u;
  std::string d(size, '\0');
  std::memcpy(&d[0], &gen, 4);
  uint32_t len = static_cast<uint32_t>(size);
  std::memcpy(&d[4], &len, 4);
  for (size_t k = 8; k < size; ++k) d[k] = static_cast<char>((gen * 31u + k * 7u) & 0xFF);
  return d;
}

/* Whole and from a generation of this object: returns the generation, or 0. */
uint32_t check_whole(int obj, const std::string& d) {
  if (d.size() < 8) return 0;
  uint32_t gen, len;
  std::memcpy(&gen, d.data(), 4);
  std::memcpy(&len, d.data() + 4, 4);
  if (len != d.size() || static_cast<int>(gen % kObjects) != obj) return 0;
  return generation_data(gen) == d ? gen : 0;
}

std::string object_id(int obj) { return "crash-object-" + std::to_string(obj); }

/* Writes generations from `first` on, reporting the instance pid and then
 * every acknowledged (object, generation) on `out`, until something fails. */
[[noreturn]] void writer(uint32_t first, int out) {
  Client c;
  uint32_t info[4];
  if (c.open(kTestTa) != TEEC_SUCCESS || !c.info(info)) ::_exit(1);
  (void)!::write(out, &info[0], 4);
  for (uint32_t gen = first;; ++gen) {
    uint32_t origin;
    int obj = static_cast<int>(gen % kObjects);
    if (put(c.session(), object_id(obj), generation_data(gen), &origin) != TEEC_SUCCESS) ::_exit(0);
    uint32_t ack[2] = {static_cast<uint32_t>(obj), gen};
    if (::write(out, ack, sizeof ack) != sizeof ack) ::_exit(0);
  }
}

TEST(StorageCrashSafety, ObjectsReadBackWholeAfterKillsDuringWrites) {
  constexpr int kRounds = 16;
  PrivateDaemon d;
  std::map<int, uint32_t> acked;
  uint32_t next_gen = kObjects; /* generation 0 would read as "broken" */
  int kills_of_daemon = 0, kills_of_instance = 0;
  for (int round = 0; round <= kRounds; ++round) {
    SCOPED_TRACE("round " + std::to_string(round));
    ASSERT_TRUE(d.Start()) << d.Error();
    use_daemon(d);
    {
      /* Every object written before a kill reads back whole, at least as
       * new as its last acknowledged write. */
      Client c;
      ASSERT_RESULT(c.open(kTestTa), TEEC_SUCCESS);
      for (const auto& [obj, gen] : acked) {
        std::string data;
        uint32_t origin = 0;
        ASSERT_OUTCOME(get(c.session(), object_id(obj), &data, &origin), origin, TEEC_SUCCESS,
                       TEEC_ORIGIN_TRUSTED_APP)
            << "object " << obj;
        uint32_t found = check_whole(obj, data);
        ASSERT_NE(found, 0u) << "object " << obj << " is not whole (" << data.size() << " bytes)";
        EXPECT_GE(found, gen) << "object " << obj << " lost an acknowledged write";
        EXPECT_LT(found, next_gen);
      }
    }
    if (round == kRounds) break;

    int pipefd[2];
    ASSERT_EQ(::pipe(pipefd), 0);
    pid_t kid = ::fork();
    if (kid == 0) {
      ::close(pipefd[0]);
      writer(next_gen, pipefd[1]);
    }
    ::close(pipefd[1]);
    uint32_t instance = 0;
    ASSERT_EQ(::read(pipefd[0], &instance, 4), 4);
    /* Writes finish before the kill however busy the machine: the kill
     * waits for one acknowledged write of each object, then for 20..79 ms
     * more writes so that kills land at different points of a write. */
    uint32_t ack[2];
    for (int k = 0; k < kObjects; ++k) {
      ASSERT_EQ(::read(pipefd[0], ack, sizeof ack), static_cast<ssize_t>(sizeof ack))
          << "no write finished before the kill";
      acked[static_cast<int>(ack[0])] = ack[1];
    }
    ::usleep(static_cast<useconds_t>(20000 + (round * 37 % 60) * 1000));
    if (round % 2 == 0) {
      d.Kill(); /* the whole secure world; its instances die with it */
      ++kills_of_daemon;
    } else {
      ::kill(static_cast<pid_t>(instance), SIGKILL); /* just the TA's process */
      ++kills_of_instance;
    }
    int status = 0;
    ::waitpid(kid, &status, 0);
    while (::read(pipefd[0], ack, sizeof ack) == sizeof ack) acked[static_cast<int>(ack[0])] = ack[1];
    ::close(pipefd[0]);
    next_gen += 1000000;
    if (d.Running()) {
      ASSERT_EQ(d.Stop(), 0);
    }
  }
  EXPECT_EQ(kills_of_daemon + kills_of_instance, kRounds);
  /* How many kills cut a write short (the daemon tidies those up on start). */
  int interrupted = 0;
  std::string log = d.LogText();
  for (size_t at = 0; (at = log.find("unfinished write", at)) != std::string::npos; ++at) ++interrupted;
  ::testing::Test::RecordProperty("interrupted_writes", interrupted);
  std::printf("%d of %d kills interrupted a write in progress\n", interrupted, kRounds);
  for (const std::string& name : files_in(ta_storage(d, TEST_TA_UUID_TEXT))) {
    EXPECT_EQ(name.find(".tmp-"), std::string::npos) << "a leftover of an interrupted write: " << name;
  }
}

}  // namespace
}  // namespace conformance
