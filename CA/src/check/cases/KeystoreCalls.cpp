// One poc_* call per function, with its answer checked for size and wiped.
#include "cases/KeystoreCalls.h"

#include <cstdlib>
#include <cstring>

#include "PocInterface.h"
#include "TestData.h"
#include "secure_wipe.h"

namespace check {
namespace keystore {
namespace {

// Owns one output buffer of a poc_* function (malloc'd, exactly length
// bytes) and wipes and frees it when it goes.
template <typename T>
class Answer {
 public:
  Answer() = default;
  ~Answer() {
    tessera_secure_wipe(data_, length_);
    std::free(data_);
  }
  Answer(const Answer&) = delete;
  Answer& operator=(const Answer&) = delete;
  T** out() { return &data_; }
  unsigned int* length() { return &length_; }
  [[nodiscard]] const unsigned char* bytes() const { return reinterpret_cast<const unsigned char*>(data_); }
  [[nodiscard]] unsigned int size() const { return length_; }

 private:
  T* data_ = nullptr;
  unsigned int length_ = 0;
};

// What a verdict reads when the TA's answer held none: poc_check_pin and
// poc_check_mnemonic leave it as it was.
constexpr unsigned kNoVerdict = 0xFFFFFFFFu;

void RequireVerdict(CaseContext& ctx, const std::string& what, unsigned verdict) {
  if (!ctx.Check(what + ": answer holds a verdict", verdict != kNoVerdict, "a verdict", "none")) {
    ctx.Stop();
  }
}

// The size check every answer passes before it is used.
void RequireSize(CaseContext& ctx, const std::string& what, unsigned got, unsigned wanted) {
  if (!ctx.Check(what + ": answer size", got == wanted, std::to_string(wanted) + " bytes",
                 std::to_string(got) + " bytes")) {
    ctx.Stop();
  }
}

}  // namespace

hd_path_param PathOf(unsigned account) {
  test::TestData data;
  data.setAccountIndex(account);
  return data.hd_path();
}

std::string PathText(unsigned account) { return hd_path_to_string(PathOf(account)); }

void Restore(CaseContext& ctx, const unsigned char* seed, unsigned len, const std::string& what) {
  const CallRecord call = ctx.Call("poc_restore_seed", [&] {
    return poc_restore_seed(ctx.cred(), kSelectorHi, kSelectorLo, seed, len);
  });
  ctx.RequireSuccess(call, what);
}

void Generate(CaseContext& ctx, const std::string& what) {
  const CallRecord call = ctx.Call("poc_generate_seed", [&] {
    return poc_generate_seed(ctx.cred(), kSelectorHi, kSelectorLo);
  });
  ctx.RequireSuccess(call, what);
}

void Delete(CaseContext& ctx, const std::string& what) {
  const CallRecord call = ctx.Call("poc_delete_seed", [&] {
    return poc_delete_seed(ctx.cred(), kSelectorHi, kSelectorLo);
  });
  ctx.RequireSuccess(call, what);
}

SecretBytes Mnemonic(CaseContext& ctx, const std::string& what) {
  Answer<char> phrase;
  const CallRecord call = ctx.Call("poc_getMnemonic", [&] {
    return poc_getMnemonic(ctx.cred(), kSelectorHi, kSelectorLo, phrase.out(), phrase.length());
  });
  ctx.RequireSuccess(call, what);
  if (!ctx.Check(what + ": answer size", phrase.size() >= 1 && phrase.size() <= KEYSTORE_PHRASE_MAX_SIZE,
                 "1 to " + std::to_string(KEYSTORE_PHRASE_MAX_SIZE) + " bytes",
                 std::to_string(phrase.size()) + " bytes")) {
    ctx.Stop();
  }
  return SecretBytes(phrase.bytes(), phrase.size());
}

unsigned CheckMnemonic(CaseContext& ctx, const char* text, unsigned len, const std::string& what) {
  unsigned verdict = kNoVerdict;
  const CallRecord call = ctx.Call("poc_check_mnemonic", [&] {
    return poc_check_mnemonic(text, len, &verdict);
  });
  ctx.RequireSuccess(call, what);
  RequireVerdict(ctx, what, verdict);
  return verdict;
}

Address GetAddress(CaseContext& ctx, unsigned account) {
  const std::string what = "read the address at " + PathText(account);
  const hd_path_param path = PathOf(account);
  Answer<unsigned char> answer;
  const CallRecord call = ctx.Call("poc_getAddress", [&] {
    return poc_getAddress(ctx.cred(), kSelectorHi, kSelectorLo, path, answer.out(), answer.length());
  });
  ctx.RequireSuccess(call, what);
  RequireSize(ctx, what, answer.size(), KEYSTORE_ADDRESS_SIZE);
  Address address;
  std::memcpy(address.data(), answer.bytes(), address.size());
  return address;
}

SecretBytes PrivateKey(CaseContext& ctx, unsigned account) {
  const std::string what = "read the private key at " + PathText(account);
  const hd_path_param path = PathOf(account);
  Answer<unsigned char> answer;
  const CallRecord call = ctx.Call("poc_getPrivateKey", [&] {
    return poc_getPrivateKey(ctx.cred(), kSelectorHi, kSelectorLo, path, answer.out(),
                             answer.length());
  });
  ctx.RequireSuccess(call, what);
  RequireSize(ctx, what, answer.size(), KEYSTORE_PRIVATE_KEY_SIZE);
  return SecretBytes(answer.bytes(), answer.size());
}

Signature Sign(CaseContext& ctx, unsigned account, const unsigned char digest[32],
               const std::string& what) {
  const hd_path_param path = PathOf(account);
  Answer<unsigned char> answer;
  const CallRecord call = ctx.Call("poc_signTransaction", [&] {
    return poc_signTransaction(ctx.cred(), kSelectorHi, kSelectorLo, path, digest,
                               KEYSTORE_DIGEST_SIZE, answer.out(), answer.length());
  });
  ctx.RequireSuccess(call, what);
  RequireSize(ctx, what, answer.size(), KEYSTORE_SIGNATURE_SIZE);
  Signature signature;
  std::memcpy(signature.data(), answer.bytes(), signature.size());
  return signature;
}

void SavePin(CaseContext& ctx, const char* pin, unsigned len, const std::string& what) {
  const CallRecord call = ctx.Call("poc_save_pin", [&] {
    return poc_save_pin(ctx.cred(), kSelectorHi, kSelectorLo,
                        reinterpret_cast<const unsigned char*>(pin), len);
  });
  ctx.RequireSuccess(call, what);
}

unsigned CheckPin(CaseContext& ctx, const char* pin, unsigned len, const std::string& what) {
  unsigned verdict = kNoVerdict;
  const CallRecord call = ctx.Call("poc_check_pin", [&] {
    return poc_check_pin(ctx.cred(), kSelectorHi, kSelectorLo,
                         reinterpret_cast<const unsigned char*>(pin), len, &verdict);
  });
  ctx.RequireSuccess(call, what);
  RequireVerdict(ctx, what, verdict);
  return verdict;
}

}  // namespace keystore
}  // namespace check
