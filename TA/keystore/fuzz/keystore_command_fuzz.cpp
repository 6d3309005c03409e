// libFuzzer target: arbitrary shared buffers and command numbers into the
// keystore TA's command handler, with storage failures injected at random.
//
// Input: byte 0 picks the command (0..9 one of the ten, otherwise the next
// four bytes are the raw command number); byte 1 holds flags (bit 0: the
// buffer is exactly the rest of the input instead of 8 KiB, bit 1: the next
// storage open fails, bit 2: the next storage write fails, bit 3: wrong
// parameter types); the rest is the buffer's content.
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <string>
#include <vector>

#include "CTzfrWsm.h"
#include "FakeInternalApi.h"
#include "Keystore.h"
#include "keystore_ta.h"

namespace {

constexpr uint32_t kCommands[10] = {
    KEYSTORE_CMD_RESTORE_SEED, KEYSTORE_CMD_DELETE_SEED,  KEYSTORE_CMD_SAVE_PIN,
    KEYSTORE_CMD_CHECK_PIN,    KEYSTORE_CMD_GET_MNEMONIC, KEYSTORE_CMD_CHECK_MNEMONIC,
    KEYSTORE_CMD_GET_ADDRESS,  KEYSTORE_CMD_SIGN,         KEYSTORE_CMD_GENERATE_SEED,
    KEYSTORE_CMD_GET_PRIVATE_KEY};

keystore::Keystore* Instance() {
  static keystore::Keystore* instance = [] {
    fake_tee::Reset(1);
    // The token of the seed corpus: 0x10 followed by 31 bytes 0xa1.
    std::string token = "10";
    for (int i = 0; i < 31; ++i) token += "a1";
    fake_tee::SetProperty(KEYSTORE_PROP_ALLOWED_CREDENTIALS, token);
    std::unique_ptr<keystore::Keystore> ks;
    if (keystore::Keystore::Create(&ks) != TEE_SUCCESS) std::abort();
    return ks.release();
  }();
  return instance;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, std::size_t size) {
  keystore::Keystore* ks = Instance();
  if (size < 2) return 0;
  uint32_t command = 0;
  std::size_t at = 2;
  if (data[0] < 10) {
    command = kCommands[data[0]];
  } else {
    if (size < 6) return 0;
    std::memcpy(&command, data + 2, 4);
    at = 6;
  }
  const uint8_t flags = data[1];
  const std::size_t body = size - at;
  std::vector<unsigned char> shared((flags & 1) != 0 ? body : std::max<std::size_t>(body, 8192), 0);
  if (body != 0) std::memcpy(shared.data(), data + at, body);
  if ((flags & 2) != 0) fake_tee::FailNext(fake_tee::Op::kOpen, TEE_ERROR_STORAGE_NOT_AVAILABLE);
  if ((flags & 4) != 0) fake_tee::FailNext(fake_tee::Op::kCreate, TEE_ERROR_STORAGE_NO_SPACE);

  TEE_Param params[4] = {};
  params[0].memref.buffer = shared.empty() ? nullptr : shared.data();
  params[0].memref.size = static_cast<uint32_t>(shared.size());
  const uint32_t types = (flags & 8) != 0
                             ? TEE_PARAM_TYPES(TEE_PARAM_TYPE_MEMREF_INPUT, 0, 0, 0)
                             : TEE_PARAM_TYPES(TEE_PARAM_TYPE_MEMREF_INOUT, 0, 0, 0);
  const TEE_Result rc = ks->Invoke(command, types, params);
  fake_tee::ClearFailures();
  fake_tee::ClearTraces();
  // Inputs may name any number of wallets; keep the fake storage small.
  if (fake_tee::Objects().size() > 256) fake_tee::Objects().clear();

  if (rc == TEE_SUCCESS) {
    // A success always leaves a well-formed answer within the buffer.
    if (params[0].memref.size > shared.size()) std::abort();
    CTzfrWsm answer(shared.data(), shared.size());
    if (!answer.PrepareReset(1)) std::abort();
  }
  return 0;
}
