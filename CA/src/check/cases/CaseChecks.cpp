// Comparisons shared by the case areas.
#include "cases/CaseChecks.h"

#include <array>
#include <cstring>
#include <memory>
#include <utility>

#include "TestData.h"
#include "cases/Describe.h"
#include "cases/KeystoreCalls.h"
#include "keystore_ta.h"

namespace check {

std::string AddressText(const Address& address) { return Hex(address.data(), address.size()); }

bool CheckBytes(CaseContext& ctx, const std::string& name, const unsigned char* expected,
                const unsigned char* actual, std::size_t size) {
  const bool same = SecretEqual(expected, size, actual, size);
  if (same) return ctx.Check(name, true);
  return ctx.Check(name, false, Hex(expected, size), Hex(actual, size));
}

bool CheckKeyGivesAddress(CaseContext& ctx, const std::string& name, const SecretBytes& key,
                          const Address& address) {
  if (key.size() != KEYSTORE_PRIVATE_KEY_SIZE) {
    return ctx.Check(name, false, "", "", "the private key is not 32 bytes");
  }
  const std::optional<Address> computed = AddressOfPrivateKey(key.data());
  if (!computed) return ctx.Check(name, false, "", "", "the private key is not a valid scalar");
  if (*computed == address) return ctx.Check(name, true);
  return ctx.Check(name, false, AddressText(*computed) + " (of the private key)",
                   AddressText(address));
}

bool CheckSigner(CaseContext& ctx, const std::string& name, const unsigned char digest[32],
                 const Signature& signature, const Address& signer) {
  const Address recovered = RecoverSigner(digest, signature);
  if (recovered == signer) return ctx.Check(name, true);
  return ctx.Check(name, false, AddressText(signer), AddressText(recovered));
}

void DeferKeyGivesAddress(CaseContext& ctx, std::string name, SecretBytes key, const Address& address) {
  // std::function needs a copyable callable: the key is shared, not copied.
  auto held = std::make_shared<SecretBytes>(std::move(key));
  ctx.Defer([name = std::move(name), held, address](CaseContext& c) {
    CheckKeyGivesAddress(c, name, *held, address);
  });
}

void DeferSigner(CaseContext& ctx, std::string name, const unsigned char digest[32],
                 const Signature& signature, const Address& signer) {
  std::array<unsigned char, KEYSTORE_DIGEST_SIZE> message;
  std::memcpy(message.data(), digest, message.size());
  ctx.Defer([name = std::move(name), message, signature, signer](CaseContext& c) {
    CheckSigner(c, name, message.data(), signature, signer);
  });
}

bool CheckSignatureForm(CaseContext& ctx, const std::string& name, const Signature& signature) {
  const unsigned char* s = signature.data() + KEYSTORE_SIGNATURE_R_SIZE;
  const unsigned char v = signature[KEYSTORE_SIGNATURE_V_OFFSET];
  const bool low =
      IsLowS(s) ? ctx.Check(name + ": low S", true)
                : ctx.Check(name + ": low S", false, "S in 1 .. n/2",
                            Hex(s, KEYSTORE_SIGNATURE_S_SIZE));
  const bool v_ok = v <= 1 ? ctx.Check(name + ": v is 0 or 1", true)
                           : ctx.Check(name + ": v is 0 or 1", false, "0 or 1", std::to_string(v));
  return low && v_ok;
}

void CheckAccountAgrees(CaseContext& ctx, unsigned account) {
  const std::string path = keystore::PathText(account);
  SecretBytes key = keystore::PrivateKey(ctx, account);
  const Address address = keystore::GetAddress(ctx, account);
  const unsigned char* digest = test::api_test_digest();
  const Signature signature = keystore::Sign(ctx, account, digest, "sign the test digest at " + path);
  CheckSignatureForm(ctx, "signature at " + path, signature);
  DeferKeyGivesAddress(ctx, "address at " + path + " is that of its private key", std::move(key),
                       address);
  DeferSigner(ctx, "signature at " + path + " recovers to its address", digest, signature, address);
}

}  // namespace check
