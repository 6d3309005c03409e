/* The memory a client can make a TA instance take is bounded: an operation
 * whose memory references add up to more than the daemon allows is refused
 * with TEEC_ERROR_EXCESS_DATA (by libteec before anything is copied, and by
 * the instance when a hostile client sends it anyway), and a session may
 * keep only so much shared memory mapped (TEEC_ERROR_OUT_OF_MEMORY). */
#include <fcntl.h>
#include <sys/mman.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "support.h"

namespace faults {
namespace {

namespace w = teesim::wire;
using teesim::UniqueFd;
using teesim::testing::Outcome;

constexpr size_t kMiB = 1024 * 1024;
/* The largest memory reference there is: four of them pass the default
 * bound on one operation (64 MiB) four times over. */
constexpr size_t kLargest = TEEC_CONFIG_SHAREDMEM_MAX_SIZE;

TEST(MemoryBound, LibteecRefusesAnOperationPastTheBoundBeforeCopying) {
  PrivateDaemon d;
  ASSERT_TRUE(d.Start()) << d.Error();
  d.UseFromThisProcess();
  TEEC_Context ctx{};
  ASSERT_EQ(TEEC_InitializeContext(nullptr, &ctx), TEEC_SUCCESS);
  TEEC_Session s{};
  uint32_t origin = 0;
  ASSERT_EQ(TEEC_OpenSession(&ctx, &s, &kTestTa, TEEC_LOGIN_PUBLIC, nullptr, nullptr, &origin), TEEC_SUCCESS);
  TEEC_SharedMemory shm[4] = {};
  TEEC_Operation op{};
  op.paramTypes = TEEC_PARAM_TYPES(TEEC_MEMREF_WHOLE, TEEC_MEMREF_WHOLE, TEEC_MEMREF_WHOLE, TEEC_MEMREF_WHOLE);
  for (int i = 0; i < 4; ++i) {
    shm[i].size = kLargest;
    shm[i].flags = TEEC_MEM_INPUT | TEEC_MEM_OUTPUT;
    ASSERT_EQ(TEEC_AllocateSharedMemory(&ctx, &shm[i]), TEEC_SUCCESS);
    op.params[i].memref.parent = &shm[i];
  }
  TEEC_Result r = TEEC_InvokeCommand(&s, TEST_CMD_MIRROR, &op, &origin);
  EXPECT_EQ(Outcome(r, origin), Outcome(TEEC_ERROR_EXCESS_DATA, TEEC_ORIGIN_API));
  EXPECT_NE(read_text(d.ClientLogPath()).find("memory references"), std::string::npos);

  /* One of them is within the bound. */
  op.paramTypes = TEEC_PARAM_TYPES(TEEC_MEMREF_WHOLE, TEEC_NONE, TEEC_NONE, TEEC_NONE);
  r = TEEC_InvokeCommand(&s, TEST_CMD_MIRROR, &op, &origin);
  EXPECT_EQ(Outcome(r, origin), Outcome(TEEC_SUCCESS, TEEC_ORIGIN_TRUSTED_APP));
  for (TEEC_SharedMemory& m : shm) TEEC_ReleaseSharedMemory(&m);
  TEEC_CloseSession(&s);
  TEEC_FinalizeContext(&ctx);
}

/* A sealed memfd of `size` bytes (sparse: nothing is written). */
UniqueFd sealed_block(size_t size) {
  UniqueFd fd(::memfd_create("faults-shm", MFD_CLOEXEC | MFD_ALLOW_SEALING));
  if (!fd || ::ftruncate(fd.get(), static_cast<off_t>(size)) != 0 ||
      ::fcntl(fd.get(), F_ADD_SEALS, F_SEAL_SHRINK | F_SEAL_GROW) != 0)
    return UniqueFd();
  return fd;
}

/* Sends INVOKE on a raw session channel and reads the reply. */
bool raw_invoke(int channel, const w::Invoke& inv, const int* fds, size_t nfds, teesim::StreamReader* reader,
                w::InvokeReply* reply) {
  std::vector<uint8_t> frame;
  if (w::encode(frame, 7, inv) != w::Status::Ok) return false;
  if (teesim::send_frame(channel, frame.data(), frame.size(), fds, nfds) != 0) return false;
  const uint8_t* data = nullptr;
  ssize_t n = reader->next(channel, &data);
  w::Frame f;
  return n > 0 && w::parse_frame(data, static_cast<size_t>(n), &f) == w::Status::Ok &&
         w::decode(f, 0, reply) == w::Status::Ok;
}

TEST(MemoryBound, AnInstanceRefusesAHostileOperationWithoutGrowing) {
  PrivateDaemon d;
  ASSERT_TRUE(d.Start()) << d.Error();
  UniqueFd conn = raw_connect(d.Socket());
  UniqueFd channel;
  ASSERT_TRUE(raw_open(conn.get(), kTestTa, &channel));
  teesim::StreamReader reader;

  w::Invoke info;
  info.command = TEST_CMD_INFO;
  info.params[0].kind = w::ParamKind::ValueOut;
  info.params[1].kind = w::ParamKind::ValueOut;
  w::InvokeReply reply;
  ASSERT_TRUE(raw_invoke(channel.get(), info, nullptr, 0, &reader, &reply));
  const pid_t instance = static_cast<pid_t>(reply.params[0].a);
  const long before = peak_rss_kib(instance);
  ASSERT_GT(before, 0);

  /* What libteec would never send: four one-shot blocks of the largest size. */
  UniqueFd blocks[4];
  int fds[4];
  w::Invoke hostile;
  hostile.command = TEST_CMD_MIRROR;
  for (int i = 0; i < 4; ++i) {
    blocks[i] = sealed_block(kLargest);
    ASSERT_TRUE(blocks[i].valid());
    fds[i] = blocks[i].get();
    w::Param& p = hostile.params[i];
    p.kind = w::ParamKind::ShmInOut;
    p.shm_id = 0;
    p.shm_flags = w::kShmFdAttached;
    p.size = static_cast<uint32_t>(kLargest);
  }
  ASSERT_TRUE(raw_invoke(channel.get(), hostile, fds, 4, &reader, &reply));
  EXPECT_EQ(Outcome(reply.result, static_cast<uint32_t>(reply.origin)),
            Outcome(TEEC_ERROR_EXCESS_DATA, TEEC_ORIGIN_TEE));
  const long after = peak_rss_kib(instance);
  EXPECT_LT(after - before, static_cast<long>(16 * kMiB / 1024))
      << "the instance's peak memory grew from " << before << " KiB to " << after << " KiB";

  /* The session goes on. */
  ASSERT_TRUE(raw_invoke(channel.get(), info, nullptr, 0, &reader, &reply));
  EXPECT_EQ(reply.result, TEEC_SUCCESS);
}

TEST(MemoryBound, ASessionKeepsOnlySoMuchSharedMemoryMapped) {
  PrivateDaemon d;
  ASSERT_TRUE(d.Start({"--max-session-shm", "1M"})) << d.Error();
  d.UseFromThisProcess();
  TEEC_Context ctx{};
  ASSERT_EQ(TEEC_InitializeContext(nullptr, &ctx), TEEC_SUCCESS);
  TEEC_Session s{};
  uint32_t origin = 0;
  ASSERT_EQ(TEEC_OpenSession(&ctx, &s, &kTestTa, TEEC_LOGIN_PUBLIC, nullptr, nullptr, &origin), TEEC_SUCCESS);
  TEEC_SharedMemory shm[3] = {};
  for (TEEC_SharedMemory& m : shm) {
    m.size = kMiB / 2;
    m.flags = TEEC_MEM_INPUT;
    ASSERT_EQ(TEEC_AllocateSharedMemory(&ctx, &m), TEEC_SUCCESS);
  }
  auto use = [&](TEEC_SharedMemory& m) {
    TEEC_Operation op{};
    op.paramTypes = TEEC_PARAM_TYPES(TEEC_MEMREF_WHOLE, TEEC_NONE, TEEC_NONE, TEEC_NONE);
    op.params[0].memref.parent = &m;
    TEEC_Result r = TEEC_InvokeCommand(&s, TEST_CMD_MIRROR, &op, &origin);
    return Outcome(r, origin);
  };
  const std::string ok = Outcome(TEEC_SUCCESS, TEEC_ORIGIN_TRUSTED_APP);
  EXPECT_EQ(use(shm[0]), ok);
  EXPECT_EQ(use(shm[1]), ok) << "1 MiB mapped: the cap, not past it";
  EXPECT_EQ(use(shm[2]), Outcome(TEEC_ERROR_OUT_OF_MEMORY, TEEC_ORIGIN_TEE));
  EXPECT_EQ(use(shm[0]), ok) << "blocks mapped already still work";
  TEEC_ReleaseSharedMemory(&shm[0]); /* the instance lets it go */
  EXPECT_EQ(use(shm[2]), ok);
  TEEC_ReleaseSharedMemory(&shm[1]);
  TEEC_ReleaseSharedMemory(&shm[2]);
  TEEC_CloseSession(&s);
  TEEC_FinalizeContext(&ctx);
}

}  // namespace
}  // namespace faults
