/* Every parameter type in every direction, in every slot, as the TA sees it
 * and as the client gets it back. */
#include <cstring>
#include <string>
#include <vector>

#include "support.h"
#include "tee_internal_api.h"

namespace conformance {
namespace {

enum class Mem { Value, Temp, Registered, Allocated };

struct Case {
  const char* name;
  uint32_t teec_type;
  Mem mem;
  uint32_t shm_flags; /* registered / allocated blocks */
  uint32_t ta_type;   /* what the TA must see */
};

constexpr uint32_t kIn = TEEC_MEM_INPUT, kOut = TEEC_MEM_OUTPUT, kBoth = TEEC_MEM_INPUT | TEEC_MEM_OUTPUT;

const Case kCases[] = {
    {"ValueInput", TEEC_VALUE_INPUT, Mem::Value, 0, TEE_PARAM_TYPE_VALUE_INPUT},
    {"ValueOutput", TEEC_VALUE_OUTPUT, Mem::Value, 0, TEE_PARAM_TYPE_VALUE_OUTPUT},
    {"ValueInout", TEEC_VALUE_INOUT, Mem::Value, 0, TEE_PARAM_TYPE_VALUE_INOUT},
    {"TempInput", TEEC_MEMREF_TEMP_INPUT, Mem::Temp, 0, TEE_PARAM_TYPE_MEMREF_INPUT},
    {"TempOutput", TEEC_MEMREF_TEMP_OUTPUT, Mem::Temp, 0, TEE_PARAM_TYPE_MEMREF_OUTPUT},
    {"TempInout", TEEC_MEMREF_TEMP_INOUT, Mem::Temp, 0, TEE_PARAM_TYPE_MEMREF_INOUT},
    {"WholeRegisteredInput", TEEC_MEMREF_WHOLE, Mem::Registered, kIn, TEE_PARAM_TYPE_MEMREF_INPUT},
    {"WholeRegisteredOutput", TEEC_MEMREF_WHOLE, Mem::Registered, kOut, TEE_PARAM_TYPE_MEMREF_OUTPUT},
    {"WholeRegisteredInout", TEEC_MEMREF_WHOLE, Mem::Registered, kBoth, TEE_PARAM_TYPE_MEMREF_INOUT},
    {"WholeAllocatedInput", TEEC_MEMREF_WHOLE, Mem::Allocated, kIn, TEE_PARAM_TYPE_MEMREF_INPUT},
    {"WholeAllocatedOutput", TEEC_MEMREF_WHOLE, Mem::Allocated, kOut, TEE_PARAM_TYPE_MEMREF_OUTPUT},
    {"WholeAllocatedInout", TEEC_MEMREF_WHOLE, Mem::Allocated, kBoth, TEE_PARAM_TYPE_MEMREF_INOUT},
    {"PartialRegisteredInput", TEEC_MEMREF_PARTIAL_INPUT, Mem::Registered, kBoth, TEE_PARAM_TYPE_MEMREF_INPUT},
    {"PartialRegisteredOutput", TEEC_MEMREF_PARTIAL_OUTPUT, Mem::Registered, kBoth, TEE_PARAM_TYPE_MEMREF_OUTPUT},
    {"PartialRegisteredInout", TEEC_MEMREF_PARTIAL_INOUT, Mem::Registered, kBoth, TEE_PARAM_TYPE_MEMREF_INOUT},
    {"PartialAllocatedInput", TEEC_MEMREF_PARTIAL_INPUT, Mem::Allocated, kIn, TEE_PARAM_TYPE_MEMREF_INPUT},
    {"PartialAllocatedOutput", TEEC_MEMREF_PARTIAL_OUTPUT, Mem::Allocated, kOut, TEE_PARAM_TYPE_MEMREF_OUTPUT},
    {"PartialAllocatedInout", TEEC_MEMREF_PARTIAL_INOUT, Mem::Allocated, kBoth, TEE_PARAM_TYPE_MEMREF_INOUT},
};

constexpr size_t kBlock = 256;          /* temp buffers and shared blocks */
constexpr size_t kPartialOffset = 16;   /* partial references: bytes 16..115 */
constexpr size_t kPartialSize = 100;

bool is_partial(uint32_t t) { return t >= TEEC_MEMREF_PARTIAL_INPUT && t <= TEEC_MEMREF_PARTIAL_INOUT; }

std::vector<uint8_t> pattern(size_t n, uint8_t seed) {
  std::vector<uint8_t> v(n);
  for (size_t i = 0; i < n; ++i) v[i] = static_cast<uint8_t>(seed + 3 * i);
  return v;
}

bool read_report(Client& c, uint32_t which, test_ta_report* out) {
  TEEC_Operation op{};
  op.paramTypes = TEEC_PARAM_TYPES(TEEC_VALUE_INPUT, TEEC_MEMREF_TEMP_OUTPUT, TEEC_NONE, TEEC_NONE);
  op.params[0].value.a = which;
  op.params[1].tmpref.buffer = out;
  op.params[1].tmpref.size = sizeof *out;
  uint32_t origin;
  return TEEC_InvokeCommand(c.session(), TEST_CMD_REPORT, &op, &origin) == TEEC_SUCCESS;
}

class ParamTypes : public WithDaemon, public ::testing::WithParamInterface<Case> {};

TEST_P(ParamTypes, ReachTheTaAndComeBackInEverySlot) {
  const Case& c = GetParam();
  Client client;
  ASSERT_RESULT(client.init_result(), TEEC_SUCCESS);
  ASSERT_RESULT(client.open(kTestTa), TEEC_SUCCESS);

  for (int slot = 0; slot < 4; ++slot) {
    SCOPED_TRACE("slot " + std::to_string(slot));
    const bool partial = is_partial(c.teec_type);
    const size_t ref_off = partial ? kPartialOffset : 0;
    const size_t ref_size = partial ? kPartialSize : kBlock;
    const std::vector<uint8_t> original = pattern(kBlock, static_cast<uint8_t>(0x40 + slot));

    std::vector<uint8_t> temp = original;   /* temp and registered memory */
    TEEC_SharedMemory shm{};
    uint8_t* mem = nullptr;                 /* where the client's bytes live */
    if (c.mem == Mem::Registered) {
      shm.buffer = temp.data();
      shm.size = kBlock;
      shm.flags = c.shm_flags;
      ASSERT_RESULT(TEEC_RegisterSharedMemory(client.ctx(), &shm), TEEC_SUCCESS);
      mem = temp.data();
    } else if (c.mem == Mem::Allocated) {
      shm.size = kBlock;
      shm.flags = c.shm_flags;
      ASSERT_RESULT(TEEC_AllocateSharedMemory(client.ctx(), &shm), TEEC_SUCCESS);
      mem = static_cast<uint8_t*>(shm.buffer);
      std::memcpy(mem, original.data(), kBlock);
    } else if (c.mem == Mem::Temp) {
      mem = temp.data();
    }

    TEEC_Operation op{};
    op.paramTypes = c.teec_type << (4 * slot);
    TEEC_Parameter& p = op.params[slot];
    if (c.mem == Mem::Value) {
      p.value.a = 0x11110000u + static_cast<uint32_t>(slot);
      p.value.b = 0x22220000u;
    } else if (c.mem == Mem::Temp) {
      p.tmpref.buffer = mem;
      p.tmpref.size = kBlock;
    } else {
      p.memref.parent = &shm;
      p.memref.offset = ref_off;
      p.memref.size = ref_size;
    }

    uint32_t origin = 0;
    TEEC_Result r = TEEC_InvokeCommand(client.session(), TEST_CMD_MIRROR, &op, &origin);
    ASSERT_OUTCOME(r, origin, TEEC_SUCCESS, TEEC_ORIGIN_TRUSTED_APP);
    EXPECT_EQ(op.started, 1u);

    test_ta_report rep{};
    ASSERT_TRUE(read_report(client, 0, &rep));
    EXPECT_EQ(rep.param_types, c.ta_type << (4 * slot)) << "the TA saw other parameter types";
    const test_ta_param_report& seen = rep.params[slot];
    const bool in = c.ta_type == TEE_PARAM_TYPE_MEMREF_INPUT || c.ta_type == TEE_PARAM_TYPE_MEMREF_INOUT;
    const bool out = c.ta_type == TEE_PARAM_TYPE_MEMREF_OUTPUT || c.ta_type == TEE_PARAM_TYPE_MEMREF_INOUT;

    if (c.mem == Mem::Value) {
      if (c.teec_type != TEEC_VALUE_OUTPUT) {
        EXPECT_EQ(seen.a, 0x11110000u + static_cast<uint32_t>(slot));
        EXPECT_EQ(seen.b, 0x22220000u);
      }
      if (c.teec_type == TEEC_VALUE_OUTPUT) {
        EXPECT_EQ(p.value.a, 0x1000u + static_cast<uint32_t>(slot));
        EXPECT_EQ(p.value.b, 0x2000u + static_cast<uint32_t>(slot));
      } else if (c.teec_type == TEEC_VALUE_INOUT) {
        EXPECT_EQ(p.value.a, 0x11110001u + static_cast<uint32_t>(slot));
        EXPECT_EQ(p.value.b, ~0x22220000u);
      } else {
        EXPECT_EQ(p.value.a, 0x11110000u + static_cast<uint32_t>(slot)) << "inputs stay as they were";
      }
    } else {
      EXPECT_EQ(seen.size, ref_size);
      if (in) {
        EXPECT_EQ(seen.checksum, test_ta_fnv1a(original.data() + ref_off, static_cast<uint32_t>(ref_size)));
      }
      size_t reported = c.mem == Mem::Temp ? p.tmpref.size : p.memref.size;
      EXPECT_EQ(reported, ref_size);
      for (size_t k = 0; k < kBlock; ++k) {
        uint8_t want = original[k];
        if (k >= ref_off && k < ref_off + ref_size && out) {
          size_t j = k - ref_off;
          want = c.ta_type == TEE_PARAM_TYPE_MEMREF_OUTPUT
                     ? static_cast<uint8_t>((16 * slot + j) & 0xFF)
                     : original[ref_off + ref_size - 1 - j]; /* in/out: reversed */
        }
        if (mem[k] != want) {
          ADD_FAILURE() << "byte " << k << " is " << int(mem[k]) << ", expected " << int(want);
          break;
        }
      }
    }
    if (c.mem == Mem::Registered || c.mem == Mem::Allocated) TEEC_ReleaseSharedMemory(&shm);
  }
}

void PrintTo(const Case& c, std::ostream* os) { *os << c.name; }

INSTANTIATE_TEST_SUITE_P(EveryKind, ParamTypes, ::testing::ValuesIn(kCases),
                         [](const ::testing::TestParamInfo<Case>& i) { return i.param.name; });

using Params = WithDaemon;

TEST_F(Params, FourKindsAtOnceSmallAndLarge) {
  Client client;
  ASSERT_RESULT(client.open(kTestTa), TEEC_SUCCESS);
  /* 3 x 20 KiB exceed what one frame carries inline: some must travel by
   * one-shot memfd, transparently. */
  const size_t big = 20 * 1024;
  std::vector<uint8_t> in = pattern(big, 1), inout = pattern(big, 2), out(big, 0xEE);
  TEEC_SharedMemory shm{};
  shm.size = 64 * 1024;
  shm.flags = kBoth;
  ASSERT_RESULT(TEEC_AllocateSharedMemory(client.ctx(), &shm), TEEC_SUCCESS);
  std::memset(shm.buffer, 0x5A, shm.size);
  TEEC_Operation op{};
  op.paramTypes = TEEC_PARAM_TYPES(TEEC_MEMREF_TEMP_INPUT, TEEC_MEMREF_TEMP_INOUT,
                                   TEEC_MEMREF_TEMP_OUTPUT, TEEC_MEMREF_PARTIAL_INOUT);
  op.params[0].tmpref = {in.data(), big};
  op.params[1].tmpref = {inout.data(), big};
  op.params[2].tmpref = {out.data(), big};
  op.params[3].memref = {&shm, 1000, 500};
  uint32_t origin = 0;
  ASSERT_OUTCOME(TEEC_InvokeCommand(client.session(), TEST_CMD_MIRROR, &op, &origin), origin,
                 TEEC_SUCCESS, TEEC_ORIGIN_TRUSTED_APP);
  test_ta_report rep{};
  ASSERT_TRUE(read_report(client, 0, &rep));
  EXPECT_EQ(rep.params[0].checksum, test_ta_fnv1a(pattern(big, 1).data(), big));
  EXPECT_EQ(rep.params[1].checksum, test_ta_fnv1a(pattern(big, 2).data(), big));
  EXPECT_EQ(rep.params[3].size, 1000u);
  auto original_inout = pattern(big, 2);
  EXPECT_EQ(inout[0], original_inout[big - 1]);
  EXPECT_EQ(inout[big - 1], original_inout[0]);
  for (size_t k = 0; k < big; ++k) {
    if (out[k] != static_cast<uint8_t>((32 + k) & 0xFF)) {
      ADD_FAILURE() << "output byte " << k;
      break;
    }
  }
  EXPECT_EQ(static_cast<uint8_t*>(shm.buffer)[499], 0x5A);
  EXPECT_EQ(static_cast<uint8_t*>(shm.buffer)[1500], 0x5A);
  TEEC_ReleaseSharedMemory(&shm);
}

TEST_F(Params, LargeTemporaryReferencesRoundTrip) {
  Client client;
  ASSERT_RESULT(client.open(kTestTa), TEEC_SUCCESS);
  const size_t n = 1024 * 1024;
  std::vector<uint8_t> in = pattern(n, 9), out(n, 0);
  TEEC_Operation op{};
  op.paramTypes = TEEC_PARAM_TYPES(TEEC_MEMREF_TEMP_INPUT, TEEC_MEMREF_TEMP_OUTPUT, TEEC_NONE, TEEC_NONE);
  op.params[0].tmpref = {in.data(), n};
  op.params[1].tmpref = {out.data(), n};
  uint32_t origin;
  ASSERT_OUTCOME(TEEC_InvokeCommand(client.session(), TEST_CMD_ECHO, &op, &origin), origin,
                 TEEC_SUCCESS, TEEC_ORIGIN_TRUSTED_APP);
  EXPECT_EQ(op.params[1].tmpref.size, n);
  EXPECT_EQ(in, out);
}

TEST_F(Params, ValuesAddWithWraparound) {
  Client client;
  ASSERT_RESULT(client.open(kTestTa), TEEC_SUCCESS);
  TEEC_Operation op{};
  op.paramTypes = TEEC_PARAM_TYPES(TEEC_VALUE_INPUT, TEEC_VALUE_OUTPUT, TEEC_NONE, TEEC_NONE);
  op.params[0].value = {0xFFFFFFFFu, 2};
  uint32_t origin;
  ASSERT_OUTCOME(TEEC_InvokeCommand(client.session(), TEST_CMD_ADD, &op, &origin), origin,
                 TEEC_SUCCESS, TEEC_ORIGIN_TRUSTED_APP);
  EXPECT_EQ(op.params[1].value.a, 1u);
  EXPECT_EQ(op.params[1].value.b, 0xFFFFFFFDu);
}

TEST_F(Params, WrongTypesAreTheTasToRefuse) {
  Client client;
  ASSERT_RESULT(client.open(kTestTa), TEEC_SUCCESS);
  TEEC_Operation op{};
  op.paramTypes = TEEC_PARAM_TYPES(TEEC_VALUE_OUTPUT, TEEC_NONE, TEEC_NONE, TEEC_NONE);
  uint32_t origin;
  EXPECT_OUTCOME(TEEC_InvokeCommand(client.session(), TEST_CMD_ADD, &op, &origin), origin,
                 TEEC_ERROR_BAD_PARAMETERS, TEEC_ORIGIN_TRUSTED_APP);
  EXPECT_OUTCOME(TEEC_InvokeCommand(client.session(), 0x7777, nullptr, &origin), origin,
                 TEEC_ERROR_NOT_SUPPORTED, TEEC_ORIGIN_TRUSTED_APP);
}

TEST_F(Params, UnknownParameterTypesAreRefusedByTheLibrary) {
  Client client;
  ASSERT_RESULT(client.open(kTestTa), TEEC_SUCCESS);
  for (uint32_t bad : {4u, 8u, 9u, 10u, 11u}) {
    TEEC_Operation op{};
    op.paramTypes = TEEC_PARAM_TYPES(TEEC_NONE, bad, TEEC_NONE, TEEC_NONE);
    uint32_t origin = 0;
    EXPECT_OUTCOME(TEEC_InvokeCommand(client.session(), TEST_CMD_MIRROR, &op, &origin), origin,
                   TEEC_ERROR_BAD_PARAMETERS, TEEC_ORIGIN_API)
        << "type " << bad;
  }
  TEEC_Operation op{};
  op.paramTypes = 0x10000u;
  uint32_t origin = 0;
  EXPECT_OUTCOME(TEEC_InvokeCommand(client.session(), TEST_CMD_MIRROR, &op, &origin), origin,
                 TEEC_ERROR_BAD_PARAMETERS, TEEC_ORIGIN_API);
}

}  // namespace
}  // namespace conformance
