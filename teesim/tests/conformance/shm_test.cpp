/* Shared memory of every kind: limits, misuse, real sharing, private copies
 * on the secure side, and short buffers. */
#include <fcntl.h>
#include <unistd.h>

#include <atomic>
#include <cstring>
#include <string>
#include <thread>
#include <vector>

#include "support.h"

namespace conformance {
namespace {

using SharedMemory = WithDaemon;

constexpr uint32_t kBoth = TEEC_MEM_INPUT | TEEC_MEM_OUTPUT;

TEST_F(SharedMemory, ZeroSizedBlocksWork) {
  Client c;
  ASSERT_RESULT(c.open(kTestTa), TEEC_SUCCESS);
  TEEC_SharedMemory shm{};
  shm.size = 0;
  shm.flags = kBoth;
  ASSERT_RESULT(TEEC_AllocateSharedMemory(c.ctx(), &shm), TEEC_SUCCESS);
  EXPECT_NE(shm.buffer, nullptr);
  TEEC_Operation op{};
  op.paramTypes = TEEC_PARAM_TYPES(TEEC_MEMREF_WHOLE, TEEC_NONE, TEEC_NONE, TEEC_NONE);
  op.params[0].memref.parent = &shm;
  uint32_t origin = 0;
  EXPECT_OUTCOME(TEEC_InvokeCommand(c.session(), TEST_CMD_MIRROR, &op, &origin), origin, TEEC_SUCCESS,
                 TEEC_ORIGIN_TRUSTED_APP);
  EXPECT_EQ(op.params[0].memref.size, 0u);
  TEEC_ReleaseSharedMemory(&shm);
  TEEC_SharedMemory reg{};
  reg.buffer = nullptr;
  reg.size = 0;
  reg.flags = TEEC_MEM_INPUT;
  EXPECT_RESULT(TEEC_RegisterSharedMemory(c.ctx(), &reg), TEEC_SUCCESS);
  TEEC_ReleaseSharedMemory(&reg);
}

TEST_F(SharedMemory, BadFlagsSizesAndBuffersAreRefused) {
  Client c;
  ASSERT_RESULT(c.init_result(), TEEC_SUCCESS);
  uint8_t buf[16];
  for (uint32_t flags : {0u, 4u, 7u}) {
    TEEC_SharedMemory shm{};
    shm.buffer = buf;
    shm.size = sizeof buf;
    shm.flags = flags;
    EXPECT_RESULT(TEEC_AllocateSharedMemory(c.ctx(), &shm), TEEC_ERROR_BAD_PARAMETERS) << flags;
    EXPECT_RESULT(TEEC_RegisterSharedMemory(c.ctx(), &shm), TEEC_ERROR_BAD_PARAMETERS) << flags;
  }
  TEEC_SharedMemory null_buffer{};
  null_buffer.size = 8;
  null_buffer.flags = TEEC_MEM_INPUT;
  EXPECT_RESULT(TEEC_RegisterSharedMemory(c.ctx(), &null_buffer), TEEC_ERROR_BAD_PARAMETERS);
  TEEC_SharedMemory huge{};
  huge.buffer = buf;
  huge.size = size_t{TEEC_CONFIG_SHAREDMEM_MAX_SIZE} + 1;
  huge.flags = TEEC_MEM_INPUT;
  EXPECT_RESULT(TEEC_AllocateSharedMemory(c.ctx(), &huge), TEEC_ERROR_OUT_OF_MEMORY);
  EXPECT_RESULT(TEEC_RegisterSharedMemory(c.ctx(), &huge), TEEC_ERROR_BAD_PARAMETERS);
  EXPECT_RESULT(TEEC_AllocateSharedMemory(c.ctx(), nullptr), TEEC_ERROR_BAD_PARAMETERS);
}

TEST_F(SharedMemory, ReferencesMustStayInsideAndMatchTheBlocksDirection) {
  Client c;
  ASSERT_RESULT(c.open(kTestTa), TEEC_SUCCESS);
  TEEC_SharedMemory in_only{};
  in_only.size = 100;
  in_only.flags = TEEC_MEM_INPUT;
  ASSERT_RESULT(TEEC_AllocateSharedMemory(c.ctx(), &in_only), TEEC_SUCCESS);
  struct {
    uint32_t type;
    size_t offset, size;
  } bad[] = {
      {TEEC_MEMREF_PARTIAL_INPUT, 50, 51},
      {TEEC_MEMREF_PARTIAL_INPUT, 101, 0},
      {TEEC_MEMREF_PARTIAL_INPUT, SIZE_MAX, 2},
      {TEEC_MEMREF_PARTIAL_OUTPUT, 0, 10},
      {TEEC_MEMREF_PARTIAL_INOUT, 0, 10},
  };
  for (const auto& b : bad) {
    TEEC_Operation op{};
    op.paramTypes = TEEC_PARAM_TYPES(b.type, TEEC_NONE, TEEC_NONE, TEEC_NONE);
    op.params[0].memref = {&in_only, b.size, b.offset};
    uint32_t origin = 0;
    EXPECT_OUTCOME(TEEC_InvokeCommand(c.session(), TEST_CMD_MIRROR, &op, &origin), origin,
                   TEEC_ERROR_BAD_PARAMETERS, TEEC_ORIGIN_API)
        << "type " << b.type << " offset " << b.offset << " size " << b.size;
  }
  TEEC_Operation edge{};
  edge.paramTypes = TEEC_PARAM_TYPES(TEEC_MEMREF_PARTIAL_INPUT, TEEC_NONE, TEEC_NONE, TEEC_NONE);
  edge.params[0].memref = {&in_only, 0, 100};
  uint32_t origin = 0;
  EXPECT_OUTCOME(TEEC_InvokeCommand(c.session(), TEST_CMD_MIRROR, &edge, &origin), origin,
                 TEEC_SUCCESS, TEEC_ORIGIN_TRUSTED_APP);
  TEEC_ReleaseSharedMemory(&in_only);
}

TEST_F(SharedMemory, AnotherContextsBlockIsRefused) {
  Client a, b;
  ASSERT_RESULT(a.open(kTestTa), TEEC_SUCCESS);
  ASSERT_RESULT(b.init_result(), TEEC_SUCCESS);
  TEEC_SharedMemory theirs{};
  theirs.size = 16;
  theirs.flags = kBoth;
  ASSERT_RESULT(TEEC_AllocateSharedMemory(b.ctx(), &theirs), TEEC_SUCCESS);
  TEEC_Operation op{};
  op.paramTypes = TEEC_PARAM_TYPES(TEEC_MEMREF_WHOLE, TEEC_NONE, TEEC_NONE, TEEC_NONE);
  op.params[0].memref.parent = &theirs;
  uint32_t origin = 0;
  EXPECT_OUTCOME(TEEC_InvokeCommand(a.session(), TEST_CMD_MIRROR, &op, &origin), origin,
                 TEEC_ERROR_BAD_PARAMETERS, TEEC_ORIGIN_API);
  TEEC_ReleaseSharedMemory(&theirs);
}

TEST_F(SharedMemory, ReleasedMemoryCannotBeUsed) {
  Client c;
  ASSERT_RESULT(c.open(kTestTa), TEEC_SUCCESS);
  TEEC_SharedMemory shm{};
  shm.size = 64;
  shm.flags = kBoth;
  ASSERT_RESULT(TEEC_AllocateSharedMemory(c.ctx(), &shm), TEEC_SUCCESS);
  TEEC_Operation op{};
  op.paramTypes = TEEC_PARAM_TYPES(TEEC_MEMREF_WHOLE, TEEC_NONE, TEEC_NONE, TEEC_NONE);
  op.params[0].memref.parent = &shm;
  uint32_t origin = 0;
  ASSERT_RESULT(TEEC_InvokeCommand(c.session(), TEST_CMD_MIRROR, &op, &origin), TEEC_SUCCESS);
  TEEC_SharedMemory copy = shm;
  TEEC_ReleaseSharedMemory(&shm);
  EXPECT_EQ(shm.buffer, nullptr);
  EXPECT_OUTCOME(TEEC_InvokeCommand(c.session(), TEST_CMD_MIRROR, &op, &origin), origin,
                 TEEC_ERROR_BAD_PARAMETERS, TEEC_ORIGIN_API);
  op.params[0].memref.parent = &copy; /* a stale copy of the handle */
  EXPECT_OUTCOME(TEEC_InvokeCommand(c.session(), TEST_CMD_MIRROR, &op, &origin), origin,
                 TEEC_ERROR_BAD_PARAMETERS, TEEC_ORIGIN_API);
  TEEC_ReleaseSharedMemory(&shm);
  TEEC_ReleaseSharedMemory(&copy);
  TEEC_ReleaseSharedMemory(nullptr);
  TEEC_SharedMemory never{};
  int junk;
  never.imp = &junk;
  TEEC_ReleaseSharedMemory(&never);
}

/* How many of libteec's shared memory blocks the session's TA instance maps. */
uint32_t instance_maps(Client& c) {
  static const char kName[] = "memfd:teec-shm";
  TEEC_Operation op{};
  op.paramTypes = TEEC_PARAM_TYPES(TEEC_MEMREF_TEMP_INPUT, TEEC_VALUE_OUTPUT, TEEC_NONE, TEEC_NONE);
  op.params[0].tmpref = {const_cast<char*>(kName), sizeof kName - 1};
  uint32_t origin = 0;
  EXPECT_RESULT(TEEC_InvokeCommand(c.session(), TEST_CMD_COUNT_MAPS, &op, &origin), TEEC_SUCCESS);
  return op.params[1].value.a;
}

TEST_F(SharedMemory, AllocatedMemoryIsSealedAndMappedByTheTaInstance) {
  Client c;
  ASSERT_RESULT(c.open(kTestTa), TEEC_SUCCESS);
  TEEC_SharedMemory shm{};
  shm.size = 8192;
  shm.flags = kBoth;
  ASSERT_RESULT(TEEC_AllocateSharedMemory(c.ctx(), &shm), TEEC_SUCCESS);
  /* Our mapping is a memfd that nobody can shrink or grow. */
  int memfd = -1;
  for (int fd = 3; fd < 1024 && memfd < 0; ++fd) {
    char link[256] = {};
    std::string path = "/proc/self/fd/" + std::to_string(fd);
    if (::readlink(path.c_str(), link, sizeof link - 1) > 0 && std::strstr(link, "memfd:teec-shm") != nullptr)
      memfd = fd;
  }
  ASSERT_GE(memfd, 0);
  int seals = ::fcntl(memfd, F_GET_SEALS);
  EXPECT_EQ(seals & (F_SEAL_SHRINK | F_SEAL_GROW | F_SEAL_SEAL), F_SEAL_SHRINK | F_SEAL_GROW | F_SEAL_SEAL);
  EXPECT_NE(::ftruncate(memfd, 100), 0);

  TEEC_Operation op{};
  op.paramTypes = TEEC_PARAM_TYPES(TEEC_MEMREF_PARTIAL_INOUT, TEEC_NONE, TEEC_NONE, TEEC_NONE);
  op.params[0].memref = {&shm, 8192, 0};
  static_cast<uint8_t*>(shm.buffer)[0] = 41;
  uint32_t origin = 0;
  ASSERT_RESULT(TEEC_InvokeCommand(c.session(), TEST_CMD_BUMP, &op, &origin), TEEC_SUCCESS);
  EXPECT_EQ(static_cast<uint8_t*>(shm.buffer)[0], 42);
  EXPECT_EQ(instance_maps(c), 1u) << "the TA instance maps the block";
  TEEC_ReleaseSharedMemory(&shm);
}

TEST_F(SharedMemory, ReleasedBlocksLeaveTheTaInstance) {
  Client c;
  ASSERT_RESULT(c.open(kTestTa), TEEC_SUCCESS);
  for (int i = 0; i < 50; ++i) {
    TEEC_SharedMemory shm{};
    shm.size = 4096;
    shm.flags = kBoth;
    ASSERT_RESULT(TEEC_AllocateSharedMemory(c.ctx(), &shm), TEEC_SUCCESS);
    TEEC_Operation op{};
    op.paramTypes = TEEC_PARAM_TYPES(TEEC_MEMREF_WHOLE, TEEC_NONE, TEEC_NONE, TEEC_NONE);
    op.params[0].memref.parent = &shm;
    uint32_t origin = 0;
    ASSERT_RESULT(TEEC_InvokeCommand(c.session(), TEST_CMD_BUMP, &op, &origin), TEEC_SUCCESS);
    TEEC_ReleaseSharedMemory(&shm);
  }
  /* This command comes after every release on the channel, so the instance
   * has seen them all. */
  EXPECT_EQ(instance_maps(c), 0u) << "released blocks stay mapped in the TA instance";
}

TEST_F(SharedMemory, AClientRewritingItsBufferCannotChangeWhatTheTaChecked) {
  Client c;
  ASSERT_RESULT(c.open(kTestTa), TEEC_SUCCESS);
  TEEC_SharedMemory shm{};
  shm.size = 4096;
  shm.flags = TEEC_MEM_INPUT;
  ASSERT_RESULT(TEEC_AllocateSharedMemory(c.ctx(), &shm), TEEC_SUCCESS);
  auto* mem = static_cast<uint8_t*>(shm.buffer);
  for (int i = 0; i < 4096; ++i) mem[i] = static_cast<uint8_t>(i);

  /* The vandal rewrites the block without pause while the TA reads its
   * input twice, 150 ms apart. A command during which the vandal never got
   * to run (a starved machine) proves nothing and is repeated. */
  std::atomic<bool> done{false};
  std::atomic<int> rewrites{0};
  std::thread vandal([&] {
    while (!done) {
      for (int i = 0; i < 4096; ++i) mem[i] = static_cast<uint8_t>(mem[i] + 1);
      ++rewrites;
      std::this_thread::yield();
    }
  });
  int commands = 0, during = 0;
  for (; commands < 20 && during == 0; ++commands) {
    TEEC_Operation op{};
    op.paramTypes = TEEC_PARAM_TYPES(TEEC_MEMREF_WHOLE, TEEC_VALUE_INPUT, TEEC_VALUE_OUTPUT, TEEC_NONE);
    op.params[0].memref.parent = &shm;
    op.params[1].value.a = 150; /* the TA pauses this long between its two reads */
    uint32_t origin = 0;
    int before = rewrites;
    TEEC_Result r = TEEC_InvokeCommand(c.session(), TEST_CMD_DOUBLE_READ, &op, &origin);
    during = rewrites - before;
    EXPECT_OUTCOME(r, origin, TEEC_SUCCESS, TEEC_ORIGIN_TRUSTED_APP);
    EXPECT_EQ(op.params[2].value.a, op.params[2].value.b) << "the TA saw its input change";
  }
  done = true;
  vandal.join();
  EXPECT_GT(during, 0) << "the buffer was not rewritten during any of " << commands
                       << " commands; the test proves nothing";
  TEEC_ReleaseSharedMemory(&shm);
}

TEST_F(SharedMemory, ShortBuffersReportTheNeededSizeAndLeaveTheBufferAlone) {
  Client c;
  ASSERT_RESULT(c.open(kTestTa), TEEC_SUCCESS);
  const std::string text = "twenty-six bytes of input!";
  ASSERT_EQ(text.size(), 26u);

  /* temporary */
  std::vector<uint8_t> small(10, 0xCC);
  TEEC_Operation op{};
  op.paramTypes = TEEC_PARAM_TYPES(TEEC_MEMREF_TEMP_INPUT, TEEC_MEMREF_TEMP_OUTPUT, TEEC_NONE, TEEC_NONE);
  op.params[0].tmpref = {const_cast<char*>(text.data()), text.size()};
  op.params[1].tmpref = {small.data(), small.size()};
  uint32_t origin = 0;
  EXPECT_OUTCOME(TEEC_InvokeCommand(c.session(), TEST_CMD_ECHO, &op, &origin), origin,
                 TEEC_ERROR_SHORT_BUFFER, TEEC_ORIGIN_TRUSTED_APP);
  EXPECT_EQ(op.params[1].tmpref.size, 26u);
  EXPECT_EQ(small, std::vector<uint8_t>(10, 0xCC));

  /* registered, partial */
  std::vector<uint8_t> reg_mem(64, 0xCC);
  TEEC_SharedMemory reg{};
  reg.buffer = reg_mem.data();
  reg.size = reg_mem.size();
  reg.flags = TEEC_MEM_OUTPUT;
  ASSERT_RESULT(TEEC_RegisterSharedMemory(c.ctx(), &reg), TEEC_SUCCESS);
  op.paramTypes = TEEC_PARAM_TYPES(TEEC_MEMREF_TEMP_INPUT, TEEC_MEMREF_PARTIAL_OUTPUT, TEEC_NONE, TEEC_NONE);
  op.params[1].memref = {&reg, 20, 8};
  EXPECT_OUTCOME(TEEC_InvokeCommand(c.session(), TEST_CMD_ECHO, &op, &origin), origin,
                 TEEC_ERROR_SHORT_BUFFER, TEEC_ORIGIN_TRUSTED_APP);
  EXPECT_EQ(op.params[1].memref.size, 26u);
  EXPECT_EQ(reg_mem, std::vector<uint8_t>(64, 0xCC));
  /* with room, the same call succeeds and writes where it was told */
  op.params[1].memref = {&reg, 30, 8};
  ASSERT_RESULT(TEEC_InvokeCommand(c.session(), TEST_CMD_ECHO, &op, &origin), TEEC_SUCCESS);
  EXPECT_EQ(op.params[1].memref.size, 26u);
  EXPECT_EQ(std::string(reg_mem.begin() + 8, reg_mem.begin() + 34), text);
  EXPECT_EQ(reg_mem[7], 0xCC);
  EXPECT_EQ(reg_mem[34], 0xCC);
  TEEC_ReleaseSharedMemory(&reg);

  /* allocated, whole */
  TEEC_SharedMemory shm{};
  shm.size = 16;
  shm.flags = TEEC_MEM_OUTPUT;
  ASSERT_RESULT(TEEC_AllocateSharedMemory(c.ctx(), &shm), TEEC_SUCCESS);
  std::memset(shm.buffer, 0xCC, 16);
  op.paramTypes = TEEC_PARAM_TYPES(TEEC_VALUE_INPUT, TEEC_MEMREF_WHOLE, TEEC_NONE, TEEC_NONE);
  op.params[0].value = {0x11, 40};
  op.params[1].memref.parent = &shm;
  EXPECT_OUTCOME(TEEC_InvokeCommand(c.session(), TEST_CMD_FILL, &op, &origin), origin,
                 TEEC_ERROR_SHORT_BUFFER, TEEC_ORIGIN_TRUSTED_APP);
  EXPECT_EQ(op.params[1].memref.size, 40u);
  EXPECT_EQ(static_cast<uint8_t*>(shm.buffer)[0], 0xCC);
  TEEC_ReleaseSharedMemory(&shm);
}

TEST_F(SharedMemory, ANullTemporaryReferenceAsksForTheSize) {
  Client c;
  ASSERT_RESULT(c.open(kTestTa), TEEC_SUCCESS);
  TEEC_Operation op{};
  op.paramTypes = TEEC_PARAM_TYPES(TEEC_VALUE_INPUT, TEEC_MEMREF_TEMP_OUTPUT, TEEC_NONE, TEEC_NONE);
  op.params[0].value = {0x61, 5};
  op.params[1].tmpref = {nullptr, 0};
  uint32_t origin = 0;
  EXPECT_OUTCOME(TEEC_InvokeCommand(c.session(), TEST_CMD_FILL, &op, &origin), origin,
                 TEEC_ERROR_SHORT_BUFFER, TEEC_ORIGIN_TRUSTED_APP);
  ASSERT_EQ(op.params[1].tmpref.size, 5u);
  std::string out(op.params[1].tmpref.size, '\0');
  op.params[1].tmpref.buffer = out.data();
  ASSERT_RESULT(TEEC_InvokeCommand(c.session(), TEST_CMD_FILL, &op, &origin), TEEC_SUCCESS);
  EXPECT_EQ(out, "aaaaa");
  op.params[1].tmpref = {nullptr, 10};
  EXPECT_OUTCOME(TEEC_InvokeCommand(c.session(), TEST_CMD_FILL, &op, &origin), origin,
                 TEEC_ERROR_BAD_PARAMETERS, TEEC_ORIGIN_API);
}

TEST_F(SharedMemory, LargeBlocksOfEveryKind) {
  Client c;
  ASSERT_RESULT(c.open(kTestTa), TEEC_SUCCESS);
  const size_t n = 3 * 1024 * 1024 + 17;
  TEEC_SharedMemory alloc{};
  alloc.size = n;
  alloc.flags = kBoth;
  ASSERT_RESULT(TEEC_AllocateSharedMemory(c.ctx(), &alloc), TEEC_SUCCESS);
  std::vector<uint8_t> reg_mem(n);
  TEEC_SharedMemory reg{};
  reg.buffer = reg_mem.data();
  reg.size = n;
  reg.flags = kBoth;
  ASSERT_RESULT(TEEC_RegisterSharedMemory(c.ctx(), &reg), TEEC_SUCCESS);
  for (size_t i = 0; i < n; ++i) {
    static_cast<uint8_t*>(alloc.buffer)[i] = static_cast<uint8_t>(i * 7);
    reg_mem[i] = static_cast<uint8_t>(i * 13);
  }
  for (TEEC_SharedMemory* shm : {&alloc, &reg}) {
    auto* mem = static_cast<uint8_t*>(shm->buffer);
    std::vector<uint8_t> before(mem, mem + n);
    TEEC_Operation op{};
    op.paramTypes = TEEC_PARAM_TYPES(TEEC_MEMREF_WHOLE, TEEC_NONE, TEEC_NONE, TEEC_NONE);
    op.params[0].memref.parent = shm;
    uint32_t origin = 0;
    ASSERT_RESULT(TEEC_InvokeCommand(c.session(), TEST_CMD_MIRROR, &op, &origin), TEEC_SUCCESS);
    EXPECT_EQ(mem[0], before[n - 1]);
    EXPECT_EQ(mem[n - 1], before[0]);
    EXPECT_EQ(mem[n / 2], before[n - 1 - n / 2]);
  }
  TEEC_ReleaseSharedMemory(&alloc);
  TEEC_ReleaseSharedMemory(&reg);
}

}  // namespace
}  // namespace conformance
