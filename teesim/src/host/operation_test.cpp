/* Parameters in and out of a TA, for every carrier, and the refusals. */
#include "host/operation.h"

#include <fcntl.h>
#include <sys/mman.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include <cstring>
#include <string>
#include <vector>

namespace teesim::host {
namespace {

using wire::ParamKind;

/* A sealed memfd like libteec makes, mapped here as the client would. */
struct Memfd {
  UniqueFd fd;
  uint8_t* map = nullptr;
  size_t size = 0;
  explicit Memfd(size_t n, int seals = F_SEAL_SHRINK | F_SEAL_GROW | F_SEAL_SEAL) : size(n) {
    fd.reset(::memfd_create("test", MFD_CLOEXEC | MFD_ALLOW_SEALING));
    EXPECT_EQ(::ftruncate(fd.get(), static_cast<off_t>(n)), 0);
    map = static_cast<uint8_t*>(::mmap(nullptr, n, PROT_READ | PROT_WRITE, MAP_SHARED, fd.get(), 0));
    if (seals != 0) {
      EXPECT_EQ(::fcntl(fd.get(), F_ADD_SEALS, seals), 0);
    }
  }
  ~Memfd() { ::munmap(map, size); }
};

void attach(FdList* fds, int fd) { fds->fds[fds->count++].reset(::dup(fd)); }

TEST(Operation, ValuesPassBothWays) {
  wire::Params req;
  req[0].kind = ParamKind::ValueIn;
  req[0].a = 1;
  req[0].b = 2;
  req[1].kind = ParamKind::ValueOut;
  req[1].a = 99; /* must not reach the TA */
  req[2].kind = ParamKind::ValueInOut;
  req[2].a = 5;
  Operation op;
  ShmCache cache;
  FdList fds;
  std::string why;
  ASSERT_EQ(op.prepare(req, fds, 0, cache, &why), TEE_SUCCESS) << why;
  EXPECT_EQ(op.param_types(), TEE_PARAM_TYPES(TEE_PARAM_TYPE_VALUE_INPUT, TEE_PARAM_TYPE_VALUE_OUTPUT,
                                               TEE_PARAM_TYPE_VALUE_INOUT, TEE_PARAM_TYPE_NONE));
  TEE_Param* p = op.ta_params();
  EXPECT_EQ(p[0].value.a, 1u);
  EXPECT_EQ(p[0].value.b, 2u);
  EXPECT_EQ(p[1].value.a, 0u);
  EXPECT_EQ(p[2].value.a, 5u);
  p[1].value.a = 10;
  p[1].value.b = 11;
  p[2].value.a = 6;
  wire::Params reply;
  op.finish(&reply);
  EXPECT_EQ(reply[0].kind, ParamKind::ValueIn);
  EXPECT_EQ(reply[1].a, 10u);
  EXPECT_EQ(reply[1].b, 11u);
  EXPECT_EQ(reply[2].a, 6u);
  EXPECT_EQ(reply[3].kind, ParamKind::None);
}

TEST(Operation, InlineBuffersArePrivateCopiesAndOutputsComeBackWhenTheyFit) {
  std::vector<uint8_t> frame_bytes = {1, 2, 3, 4};
  wire::Params req;
  req[0].kind = ParamKind::BufIn;
  req[0].size = 4;
  req[0].data = frame_bytes.data();
  req[1].kind = ParamKind::BufOut;
  req[1].size = 8;
  req[2].kind = ParamKind::BufOut;
  req[2].size = 2;
  req[3].kind = ParamKind::BufInOut;
  req[3].size = 0;
  req[3].data = frame_bytes.data();
  Operation op;
  ShmCache cache;
  FdList fds;
  std::string why;
  ASSERT_EQ(op.prepare(req, fds, 0, cache, &why), TEE_SUCCESS);
  TEE_Param* p = op.ta_params();
  EXPECT_NE(p[0].memref.buffer, frame_bytes.data());
  EXPECT_EQ(0, std::memcmp(p[0].memref.buffer, frame_bytes.data(), 4));
  frame_bytes[0] = 0xEE; /* the source changing later does not reach the TA */
  EXPECT_EQ(static_cast<uint8_t*>(p[0].memref.buffer)[0], 1);
  ASSERT_EQ(p[1].memref.size, 8u);
  for (int i = 0; i < 8; ++i) EXPECT_EQ(static_cast<uint8_t*>(p[1].memref.buffer)[i], 0);
  EXPECT_EQ(p[3].memref.buffer, nullptr);
  EXPECT_EQ(p[3].memref.size, 0u);

  std::memcpy(p[1].memref.buffer, "abcde", 5);
  p[1].memref.size = 5;
  p[2].memref.size = 40; /* needs more than the 2 offered */
  wire::Params reply;
  op.finish(&reply);
  EXPECT_EQ(reply[0].kind, ParamKind::BufIn);
  EXPECT_EQ(reply[1].size, 5u);
  ASSERT_EQ(reply[1].data_len, 5u);
  EXPECT_EQ(0, std::memcmp(reply[1].data, "abcde", 5));
  EXPECT_EQ(reply[2].size, 40u);
  EXPECT_EQ(reply[2].data_len, 0u);
}

TEST(Operation, SharedMemoryIsCopiedInOnceAndWrittenBackAfter) {
  Memfd shm(4096);
  for (size_t i = 0; i < shm.size; ++i) shm.map[i] = static_cast<uint8_t>(i);
  wire::Params req;
  req[0].kind = ParamKind::ShmInOut;
  req[0].shm_id = 5;
  req[0].shm_flags = wire::kShmFdAttached;
  req[0].offset = 100;
  req[0].size = 16;
  FdList fds;
  attach(&fds, shm.fd.get());
  Operation op;
  ShmCache cache;
  std::string why;
  ASSERT_EQ(op.prepare(req, fds, 0, cache, &why), TEE_SUCCESS) << why;
  EXPECT_EQ(cache.size(), 1u);
  auto* ta = static_cast<uint8_t*>(op.ta_params()[0].memref.buffer);
  EXPECT_EQ(ta[0], 100);
  /* A client rewriting its buffer during the command does not reach the TA. */
  std::memset(shm.map + 100, 0xFF, 16);
  EXPECT_EQ(ta[0], 100);
  EXPECT_EQ(ta[15], 115);
  for (int i = 0; i < 16; ++i) ta[i] = static_cast<uint8_t>(0xA0 + i);
  op.ta_params()[0].memref.size = 10;
  wire::Params reply;
  op.finish(&reply);
  EXPECT_EQ(reply[0].size, 10u);
  EXPECT_EQ(reply[0].data_len, 0u) << "shm outputs travel in the shm";
  EXPECT_EQ(shm.map[100], 0xA0);
  EXPECT_EQ(shm.map[109], 0xA9);
  EXPECT_EQ(shm.map[110], 0xFF) << "only the reported size is written back";
  EXPECT_EQ(shm.map[99], 99);
  op.release();

  /* The next command names the cached block without sending it again. */
  req[0].shm_flags = 0;
  req[0].kind = ParamKind::ShmIn;
  req[0].offset = 0;
  req[0].size = 4;
  FdList none;
  ASSERT_EQ(op.prepare(req, none, 0, cache, &why), TEE_SUCCESS) << why;
  EXPECT_EQ(static_cast<uint8_t*>(op.ta_params()[0].memref.buffer)[1], 1);
  cache.forget(5);
  EXPECT_EQ(op.prepare(req, none, 0, cache, &why), TEE_ERROR_BAD_PARAMETERS);
  EXPECT_NE(why.find("unknown shared memory id 5"), std::string::npos) << why;
}

TEST(Operation, OneShotBlocksAreNotCached) {
  Memfd shm(64);
  wire::Params req;
  req[1].kind = ParamKind::ShmOut;
  req[1].shm_id = 0;
  req[1].shm_flags = wire::kShmFdAttached;
  req[1].size = 64;
  FdList fds;
  attach(&fds, shm.fd.get());
  Operation op;
  ShmCache cache;
  std::string why;
  ASSERT_EQ(op.prepare(req, fds, 0, cache, &why), TEE_SUCCESS) << why;
  EXPECT_EQ(cache.size(), 0u);
  std::memset(op.ta_params()[1].memref.buffer, 7, 64);
  wire::Params reply;
  op.finish(&reply);
  op.release();
  EXPECT_EQ(shm.map[63], 7);
}

TEST(Operation, UnsafeOrWrongSharedMemoryIsRefused) {
  struct Case {
    const char* name;
    int seals;
    uint64_t offset;
    uint32_t size;
    ParamKind kind;
    const char* reason;
  } cases[] = {
      {"unsealed", 0, 0, 16, ParamKind::ShmIn, "not sealed"},
      {"shrinkable", F_SEAL_GROW, 0, 16, ParamKind::ShmIn, "not sealed"},
      {"past the end", F_SEAL_SHRINK | F_SEAL_GROW, 4000, 200, ParamKind::ShmIn, "outside"},
      {"read-only", F_SEAL_SHRINK | F_SEAL_GROW | F_SEAL_WRITE, 0, 16, ParamKind::ShmOut, "read-only"},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    Memfd shm(4096, 0);
    if (c.seals & F_SEAL_WRITE) {
      /* a write seal needs every writable shared mapping gone */
      ::munmap(shm.map, shm.size);
      shm.map = static_cast<uint8_t*>(::mmap(nullptr, shm.size, PROT_READ, MAP_PRIVATE, shm.fd.get(), 0));
    }
    if (c.seals != 0) {
      ASSERT_EQ(::fcntl(shm.fd.get(), F_ADD_SEALS, c.seals), 0);
    }
    wire::Params req;
    req[0].kind = c.kind;
    req[0].shm_id = 1;
    req[0].shm_flags = wire::kShmFdAttached;
    req[0].offset = c.offset;
    req[0].size = c.size;
    FdList fds;
    attach(&fds, shm.fd.get());
    Operation op;
    ShmCache cache;
    std::string why;
    EXPECT_EQ(op.prepare(req, fds, 0, cache, &why), TEE_ERROR_BAD_PARAMETERS);
    EXPECT_NE(why.find(c.reason), std::string::npos) << why;
  }
  int p[2];
  ASSERT_EQ(::pipe(p), 0);
  wire::Params req;
  req[0].kind = ParamKind::ShmIn;
  req[0].shm_id = 2;
  req[0].shm_flags = wire::kShmFdAttached;
  req[0].size = 1;
  FdList fds;
  fds.fds[fds.count++].reset(p[0]);
  Operation op;
  ShmCache cache;
  std::string why;
  EXPECT_EQ(op.prepare(req, fds, 0, cache, &why), TEE_ERROR_BAD_PARAMETERS);
  EXPECT_NE(why.find("not a memfd"), std::string::npos) << why;
  ::close(p[1]);
}

TEST(Operation, MemoryReferencesPastTheBoundAreRefusedBeforeAnythingIsMapped) {
  Memfd block(8192);
  wire::Params req;
  req[0].kind = ParamKind::BufOut;
  req[0].size = 4096;
  req[1].kind = ParamKind::ShmIn;
  req[1].shm_id = 3;
  req[1].shm_flags = wire::kShmFdAttached;
  req[1].size = 4097;
  Operation op(8192);
  ShmCache cache;
  FdList fds;
  attach(&fds, block.fd.get());
  std::string why;
  EXPECT_EQ(op.prepare(req, fds, 0, cache, &why), TEE_ERROR_EXCESS_DATA);
  EXPECT_NE(why.find("8193 bytes"), std::string::npos) << why;
  EXPECT_EQ(cache.size(), 0u) << "nothing was mapped";
  req[1].size = 4096;
  EXPECT_EQ(op.prepare(req, fds, 0, cache, &why), TEE_SUCCESS) << "at the bound: " << why;
  op.release();
}

TEST(ShmCache, KeepsNoMoreThanItsCapMapped) {
  Memfd a(4096), b(4096), c(8192);
  std::string why;
  ShmCache cache(12288);
  ASSERT_TRUE(cache.put(1, ShmMap::map(a.fd.get(), &why)));
  ASSERT_TRUE(cache.put(2, ShmMap::map(b.fd.get(), &why)));
  EXPECT_FALSE(cache.put(3, ShmMap::map(c.fd.get(), &why))) << "16 KiB would pass 12 KiB";
  EXPECT_EQ(cache.find(3), nullptr);
  EXPECT_EQ(cache.bytes(), 8192u);
  EXPECT_TRUE(cache.put(2, ShmMap::map(c.fd.get(), &why))) << "replacing a block counts the new one only";
  EXPECT_EQ(cache.bytes(), 12288u);
  cache.forget(1);
  EXPECT_EQ(cache.bytes(), 8192u);
  EXPECT_TRUE(cache.put(3, ShmMap::map(a.fd.get(), &why)));
}

}  // namespace
}  // namespace teesim::host
