// The ten keystore API calls, each one TA command over the TEE connection.
#include "PocInterface.h"

#include <cstdlib>
#include <cstring>

#include "CTzfrWsm.h"
#include "TEEClient.h"
#include "TesseraLog.h"
#include "keystore_ta.h"

static_assert(sizeof(credential) >= KEYSTORE_CREDENTIAL_SIZE, "the credential's token is its first 32 bytes");
static_assert(sizeof(hd_path_param) == KEYSTORE_PATH_SIZE, "a path travels as a 20-byte blob");

namespace {

constexpr int32_t kSuccess = 0;
constexpr int32_t kEmptyParameters = -1;
constexpr int32_t kWriteOrAllocFailed = -2;
constexpr int32_t kNoConnection = -3;
constexpr int32_t kNoData = -4;
constexpr int32_t kCommandFailed = -99;

// selector_hi * 256 + selector_lo in 32-bit arithmetic; selector_lo is not
// masked, which matters for the PIN functions where it is an unsigned int.
uint32_t SelectorWord(unsigned char selector_hi, unsigned int selector_lo) {
  return (static_cast<uint32_t>(selector_hi) << 8) + static_cast<uint32_t>(selector_lo);
}

int32_t EmptyParameters(const char* func) {
  TESSERA_LOG_AS(DLOG_ERROR, func, "Empty parameters");
  return kEmptyParameters;
}

// Step 2: the connection, opened on every call (a no-op once it is up).
client::TEEClient* Connect(const char* func) {
  client::TEEClient& tee = client::TEEClient::getInstance();
  if (!tee.Open()) {
    TESSERA_LOG_AS(DLOG_ERROR, func, "TEE connection is not established");
    return nullptr;
  }
  return &tee;
}

// Steps 3 (the combined write result) and 4.
int32_t Send(const char* func, client::TEEClient& tee, bool all_written, unsigned int cmd) {
  if (!all_written) {
    TESSERA_LOG_AS(DLOG_ERROR, func, "Put data error!");
    return kWriteOrAllocFailed;
  }
  if (!tee.InvokeCommand(cmd)) {
    TESSERA_LOG_AS(DLOG_WARN, func, "InvokeCommand failed");
    return kCommandFailed;
  }
  return kSuccess;
}

// Steps 6 and 7 of a data command: length into *out_len, then the blob of
// that length, copied into a buffer of exactly that size.
template <typename Byte>
int32_t CopyOut(const char* func, CTzfrWsm& wsm, Byte** out, unsigned int* out_len) {
  wsm.PrepareReset(1);
  const bool have_len = wsm.GetUint(out_len);
  const void* blob = have_len && *out_len != 0 ? wsm.GetBlob(*out_len) : nullptr;
  if (blob == nullptr) {
    TESSERA_LOG_AS(DLOG_ERROR, func, "Data null from keystore TA");
    return kNoData;
  }
  *out = static_cast<Byte*>(std::malloc(*out_len));
  if (*out == nullptr) {
    TESSERA_LOG_AS(DLOG_ERROR, func, "Can't allocate memory");
    return kWriteOrAllocFailed;
  }
  std::memcpy(*out, blob, *out_len);
  return kSuccess;
}

// A command whose request is credential and selector word only.
int32_t CredentialOnlyCommand(const char* func, unsigned int cmd, const credential& cred,
                              unsigned char selector_hi, unsigned char selector_lo) {
  client::TEEClient* tee = Connect(func);
  if (tee == nullptr) return kNoConnection;
  CTzfrWsm wsm(tee->getSHMPtr());
  const bool cred_ok = wsm.PutBlob(&cred, KEYSTORE_CREDENTIAL_SIZE);
  const bool sel_ok = wsm.PutUint(SelectorWord(selector_hi, selector_lo));
  return Send(func, *tee, cred_ok && sel_ok, cmd);
}

// A command that takes a path and answers with one blob.
template <typename Byte>
int32_t PathDataCommand(const char* func, unsigned int cmd, const credential& cred,
                        unsigned char selector_hi, unsigned char selector_lo,
                        const hd_path_param& path, Byte** out, unsigned int* out_len) {
  if (out == nullptr || out_len == nullptr) return EmptyParameters(func);
  client::TEEClient* tee = Connect(func);
  if (tee == nullptr) return kNoConnection;
  CTzfrWsm wsm(tee->getSHMPtr());
  const bool cred_ok = wsm.PutBlob(&cred, KEYSTORE_CREDENTIAL_SIZE);
  const bool sel_ok = wsm.PutUint(SelectorWord(selector_hi, selector_lo));
  const bool path_ok = wsm.PutBlob(&path, KEYSTORE_PATH_SIZE);
  const int32_t sent = Send(func, *tee, cred_ok && sel_ok && path_ok, cmd);
  if (sent != kSuccess) return sent;
  return CopyOut(func, wsm, out, out_len);
}

// The two PIN commands share their request.
bool WritePinRequest(CTzfrWsm& wsm, const credential& cred, unsigned char selector_hi,
                     unsigned int selector_lo, const unsigned char* pin, unsigned int pin_len) {
  const bool cred_ok = wsm.PutBlob(&cred, KEYSTORE_CREDENTIAL_SIZE);
  const bool sel_ok = wsm.PutUint(SelectorWord(selector_hi, selector_lo));
  const bool len_ok = wsm.PutUint(pin_len);
  const bool pin_ok = wsm.PutBlob(pin, pin_len);
  return cred_ok && sel_ok && len_ok && pin_ok;
}

}  // namespace

int32_t poc_generate_seed(const credential& cred, unsigned char selector_hi,
                          unsigned char selector_lo) {
  return CredentialOnlyCommand(__func__, KEYSTORE_CMD_GENERATE_SEED, cred, selector_hi, selector_lo);
}

int32_t poc_restore_seed(const credential& cred, unsigned char selector_hi,
                         unsigned char selector_lo, const unsigned char* seed,
                         unsigned int seed_len) {
  if (seed == nullptr || seed_len == 0) return EmptyParameters(__func__);
  client::TEEClient* tee = Connect(__func__);
  if (tee == nullptr) return kNoConnection;
  CTzfrWsm wsm(tee->getSHMPtr());
  const bool cred_ok = wsm.PutBlob(&cred, KEYSTORE_CREDENTIAL_SIZE);
  const bool sel_ok = wsm.PutUint(SelectorWord(selector_hi, selector_lo));
  const bool len_ok = wsm.PutUint(seed_len);
  const bool seed_ok = wsm.PutBlob(seed, seed_len);
  return Send(__func__, *tee, cred_ok && sel_ok && len_ok && seed_ok, KEYSTORE_CMD_RESTORE_SEED);
}

int32_t poc_delete_seed(const credential& cred, unsigned char selector_hi,
                        unsigned char selector_lo) {
  return CredentialOnlyCommand(__func__, KEYSTORE_CMD_DELETE_SEED, cred, selector_hi, selector_lo);
}

int32_t poc_getMnemonic(const credential& cred, unsigned char selector_hi,
                        unsigned char selector_lo, char** mnemonic, unsigned int* mnemonic_len) {
  if (mnemonic == nullptr || mnemonic_len == nullptr) return EmptyParameters(__func__);
  client::TEEClient* tee = Connect(__func__);
  if (tee == nullptr) return kNoConnection;
  CTzfrWsm wsm(tee->getSHMPtr());
  const bool cred_ok = wsm.PutBlob(&cred, KEYSTORE_CREDENTIAL_SIZE);
  const bool sel_ok = wsm.PutUint(SelectorWord(selector_hi, selector_lo));
  const int32_t sent = Send(__func__, *tee, cred_ok && sel_ok, KEYSTORE_CMD_GET_MNEMONIC);
  if (sent != kSuccess) return sent;
  return CopyOut(__func__, wsm, mnemonic, mnemonic_len);
}

int32_t poc_check_mnemonic(const char* mnemonic, unsigned int mnemonic_len,
                           unsigned int* verdict) {
  if (mnemonic == nullptr || mnemonic_len == 0 || verdict == nullptr) {
    return EmptyParameters(__func__);
  }
  client::TEEClient* tee = Connect(__func__);
  if (tee == nullptr) return kNoConnection;
  CTzfrWsm wsm(tee->getSHMPtr());
  const bool len_ok = wsm.PutUint(mnemonic_len);
  const bool text_ok = wsm.PutBlob(mnemonic, mnemonic_len);
  const int32_t sent = Send(__func__, *tee, len_ok && text_ok, KEYSTORE_CMD_CHECK_MNEMONIC);
  if (sent != kSuccess) return sent;
  wsm.PrepareReset(1);
  (void)wsm.GetUint(verdict);  // the verdict is the TA's; its read is deliberately not tested
  return kSuccess;
}

int32_t poc_getAddress(const credential& cred, unsigned char selector_hi,
                       unsigned char selector_lo, const hd_path_param& path, unsigned char** out,
                       unsigned int* out_len) {
  return PathDataCommand(__func__, KEYSTORE_CMD_GET_ADDRESS, cred, selector_hi, selector_lo, path,
                         out, out_len);
}

int32_t poc_signTransaction(const credential& cred, unsigned char selector_hi,
                            unsigned char selector_lo, const hd_path_param& path,
                            const unsigned char* data, unsigned int data_len, unsigned char** out,
                            unsigned int* out_len) {
  if (out == nullptr || data == nullptr || out_len == nullptr || data_len == 0) {
    return EmptyParameters(__func__);
  }
  client::TEEClient* tee = Connect(__func__);
  if (tee == nullptr) return kNoConnection;
  CTzfrWsm wsm(tee->getSHMPtr());
  const bool cred_ok = wsm.PutBlob(&cred, KEYSTORE_CREDENTIAL_SIZE);
  const bool sel_ok = wsm.PutUint(SelectorWord(selector_hi, selector_lo));
  const bool path_ok = wsm.PutBlob(&path, KEYSTORE_PATH_SIZE);
  const bool len_ok = wsm.PutUint(data_len);
  const bool data_ok = wsm.PutBlob(data, data_len);
  const int32_t sent =
      Send(__func__, *tee, cred_ok && sel_ok && path_ok && len_ok && data_ok, KEYSTORE_CMD_SIGN);
  if (sent != kSuccess) return sent;
  return CopyOut(__func__, wsm, out, out_len);
}

int32_t poc_getPrivateKey(const credential& cred, unsigned char selector_hi,
                          unsigned char selector_lo, const hd_path_param& path,
                          unsigned char** out, unsigned int* out_len) {
  return PathDataCommand(__func__, KEYSTORE_CMD_GET_PRIVATE_KEY, cred, selector_hi, selector_lo,
                         path, out, out_len);
}

int32_t poc_save_pin(const credential& cred, unsigned char selector_hi, unsigned int selector_lo,
                     const unsigned char* pin, unsigned int pin_len) {
  if (pin == nullptr || pin_len == 0) return EmptyParameters(__func__);
  client::TEEClient* tee = Connect(__func__);
  if (tee == nullptr) return kNoConnection;
  CTzfrWsm wsm(tee->getSHMPtr());
  const bool written = WritePinRequest(wsm, cred, selector_hi, selector_lo, pin, pin_len);
  return Send(__func__, *tee, written, KEYSTORE_CMD_SAVE_PIN);
}

int32_t poc_check_pin(const credential& cred, unsigned char selector_hi, unsigned int selector_lo,
                      const unsigned char* pin, unsigned int pin_len, unsigned int* verdict) {
  if (pin == nullptr || pin_len == 0 || verdict == nullptr) return EmptyParameters(__func__);
  client::TEEClient* tee = Connect(__func__);
  if (tee == nullptr) return kNoConnection;
  CTzfrWsm wsm(tee->getSHMPtr());
  const bool written = WritePinRequest(wsm, cred, selector_hi, selector_lo, pin, pin_len);
  const int32_t sent = Send(__func__, *tee, written, KEYSTORE_CMD_CHECK_PIN);
  if (sent != kSuccess) return sent;
  wsm.PrepareReset(1);
  (void)wsm.GetUint(verdict);  // the verdict is the TA's; its read is deliberately not tested
  return kSuccess;
}
