// A wallet's stored record: seed, PIN MAC and attempt count, read and written
// as one object.
#include "Wallet.h"

#include <cstring>

#include "Bip39.h"
#include "Hash.h"

namespace keystore {
namespace {

constexpr unsigned char kMagic[4] = {'T', 'K', 'S', 'W'};
constexpr unsigned char kVersion = 1;

}  // namespace

void CopyRecord(const WalletRecord& from, WalletRecord* to) {
  to->entropy_len = from.entropy_len;
  std::memcpy(to->entropy.data(), from.entropy.data(), to->entropy.size());
  to->pin_set = from.pin_set;
  to->pin_failures = from.pin_failures;
  std::memcpy(to->pin_salt.data(), from.pin_salt.data(), kPinSaltSize);
  std::memcpy(to->pin_mac.data(), from.pin_mac.data(), kPinMacSize);
}

void EncodeRecord(const WalletRecord& r, unsigned char out[kRecordSize]) {
  std::memset(out, 0, kRecordSize);
  std::memcpy(out, kMagic, 4);
  out[4] = kVersion;
  out[5] = r.entropy_len;
  out[6] = r.pin_set ? 1 : 0;
  out[7] = r.pin_failures;
  std::memcpy(out + 8, r.entropy.data(), 32);
  std::memcpy(out + 40, r.pin_salt.data(), kPinSaltSize);
  std::memcpy(out + 56, r.pin_mac.data(), kPinMacSize);
}

bool DecodeRecord(const unsigned char* in, std::size_t len, WalletRecord* out) {
  if (in == nullptr || len != kRecordSize || std::memcmp(in, kMagic, 4) != 0 || in[4] != kVersion ||
      !bip39::IsValidEntropyLength(in[5]) || in[6] > 1 || in[7] > kMaxPinFailures) {
    return false;
  }
  // Bytes past the entropy must be zero: a record is written one way only.
  for (std::size_t i = 8 + in[5]; i < 40; ++i) {
    if (in[i] != 0) return false;
  }
  out->entropy_len = in[5];
  out->pin_set = in[6] == 1;
  out->pin_failures = in[7];
  std::memcpy(out->entropy.data(), in + 8, 32);
  std::memcpy(out->pin_salt.data(), in + 40, kPinSaltSize);
  std::memcpy(out->pin_mac.data(), in + 56, kPinMacSize);
  return true;
}

bool WalletId::operator==(const WalletId& other) const {
  return std::memcmp(text, other.text, sizeof text) == 0;
}

bool MakeWalletId(const unsigned char token[32], uint32_t selector, WalletId* out) {
  static const char kDomain[] = "tessera.keystore.wallet";
  unsigned char msg[sizeof kDomain - 1 + 32 + 4];
  std::memcpy(msg, kDomain, sizeof kDomain - 1);
  std::memcpy(msg + sizeof kDomain - 1, token, 32);
  for (int i = 0; i < 4; ++i) {
    msg[sizeof kDomain - 1 + 32 + i] = static_cast<unsigned char>(selector >> (8 * i));
  }
  unsigned char hash[32];
  if (!Sha256(msg, sizeof msg, hash)) return false;
  static const char kHex[] = "0123456789abcdef";
  std::memcpy(out->text, "wallet:", 7);
  for (int i = 0; i < 24; ++i) {
    out->text[7 + 2 * i] = kHex[hash[i] >> 4];
    out->text[8 + 2 * i] = kHex[hash[i] & 15];
  }
  return true;
}

bool PinMac(const WalletRecord& record, const unsigned char* pin, std::size_t pin_len,
            const unsigned char salt[kPinSaltSize], unsigned char out[kPinMacSize]) {
  static const char kLabel[] = "tessera.keystore.pin-key";
  Secret<32> key;
  if (!HmacSha256(record.entropy.data(), record.entropy_len, kLabel, sizeof kLabel - 1, key.data())) {
    return false;
  }
  SecretBuffer msg(kPinSaltSize + pin_len);
  std::memcpy(msg.data(), salt, kPinSaltSize);
  if (pin_len != 0) std::memcpy(msg.data() + kPinSaltSize, pin, pin_len);
  return HmacSha256(key.data(), key.size(), msg.data(), msg.size(), out);
}

TEE_Result LoadRecord(const WalletId& id, WalletRecord* out) {
  TEE_ObjectHandle object = TEE_HANDLE_NULL;
  TEE_Result result = TEE_OpenPersistentObject(TEE_STORAGE_PRIVATE, id.text, id.size(),
                                               TEE_DATA_FLAG_ACCESS_READ | TEE_DATA_FLAG_SHARE_READ,
                                               &object);
  if (result != TEE_SUCCESS) return result;
  // One byte more than a record, to notice a longer object.
  Secret<kRecordSize + 1> bytes;
  uint32_t count = 0;
  result = TEE_ReadObjectData(object, bytes.data(), static_cast<uint32_t>(bytes.size()), &count);
  TEE_CloseObject(object);
  if (result != TEE_SUCCESS) return result;
  if (!DecodeRecord(bytes.data(), count, out)) return TEE_ERROR_CORRUPT_OBJECT;
  return TEE_SUCCESS;
}

TEE_Result StoreRecord(const WalletId& id, const WalletRecord& record) {
  Secret<kRecordSize> bytes;
  EncodeRecord(record, bytes.data());
  return TEE_CreatePersistentObject(
      TEE_STORAGE_PRIVATE, id.text, id.size(),
      TEE_DATA_FLAG_ACCESS_WRITE | TEE_DATA_FLAG_ACCESS_WRITE_META | TEE_DATA_FLAG_OVERWRITE,
      TEE_HANDLE_NULL, bytes.data(), static_cast<uint32_t>(bytes.size()), nullptr);
}

TEE_Result EraseRecord(const WalletId& id) {
  TEE_ObjectHandle object = TEE_HANDLE_NULL;
  const TEE_Result result = TEE_OpenPersistentObject(
      TEE_STORAGE_PRIVATE, id.text, id.size(), TEE_DATA_FLAG_ACCESS_WRITE_META, &object);
  if (result != TEE_SUCCESS) return result;
  return TEE_CloseAndDeletePersistentObject1(object);
}

}  // namespace keystore
