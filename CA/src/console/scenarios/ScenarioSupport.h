// Support shared by the two keystore scenarios.
#ifndef TESSERA_CONSOLE_SCENARIOSUPPORT_H
#define TESSERA_CONSOLE_SCENARIOSUPPORT_H

/* What the two keystore scenarios (ApiTest, SpecialTransactionTest) share:
 * the selector bytes, the credential, ownership of the keystore's output
 * buffers, the timing bracket and the output lines. Internal to the
 * console. */

#include "TimeTracker.h"
#include "keystore_ta.h"
#include "secure_wipe.h"
#include "securestorage.h"

#include <cstdlib>
#include <string>

namespace test {
namespace scenario {

/* The wallet selector every keystore call of the scenarios passes (the
 * selector word 1 * 256 + 84 = 340). */
constexpr unsigned char kSelectorHi = 1;
constexpr unsigned char kSelectorLo = 84;

/* A signature as the keystore returns it: r (32 bytes, big-endian), s (32
 * bytes, big-endian), v (1 byte, the recovery id). */
constexpr unsigned int kSignatureSize = KEYSTORE_SIGNATURE_SIZE;
constexpr unsigned int kSignatureRSize = KEYSTORE_SIGNATURE_R_SIZE;
constexpr unsigned int kSignatureSSize = KEYSTORE_SIGNATURE_S_SIZE;

/* The caller's credential for one scenario run, wiped when the run ends. */
class Credential {
 public:
  Credential();
  ~Credential();
  Credential(const Credential&) = delete;
  Credential& operator=(const Credential&) = delete;

  /* Fills the credential with ss_init_credential from the deployment's
   * identity words (tessera::kCredentialWords), version 1 and flags 0.
   * Returns: true when it is ready; false after printing
   *          "ss_init_credential: FAIL" on its own line. */
  [[nodiscard]] bool init();

  /* Returns: the record to hand to the keystore functions. */
  [[nodiscard]] const credential& get() const { return cred_; }

 private:
  credential cred_;
};

/* Owns one output buffer of a keystore function (malloc'd by it, exactly
 * `length` bytes) and on destruction wipes those bytes and frees it. The
 * wipe matters for private keys and mnemonics; it is done for every buffer
 * so no caller can forget it. `free` runs also on a null pointer, which it
 * ignores. */
template <typename T>
class KeystoreBuffer {
 public:
  KeystoreBuffer() = default;
  ~KeystoreBuffer() { release(); }
  KeystoreBuffer(const KeystoreBuffer&) = delete;
  KeystoreBuffer& operator=(const KeystoreBuffer&) = delete;

  /* Out-arguments for the keystore function: both start null / 0. */
  T** out() { return &data_; }
  unsigned int* outLength() { return &length_; }

  [[nodiscard]] const T* data() const { return data_; }
  [[nodiscard]] const unsigned char* bytes() const {
    return reinterpret_cast<const unsigned char*>(data_);
  }
  [[nodiscard]] unsigned int length() const { return length_; }

  /* Wipes and frees the buffer now; out-arguments are null / 0 again. */
  void release();

 private:
  T* data_ = nullptr;
  unsigned int length_ = 0;
};

template <typename T>
void KeystoreBuffer<T>::release() {
  // The keystore allocated exactly the length it reported; with a null
  // pointer (no buffer handed over) only `free` runs, which accepts it.
  if (data_ != nullptr) {
    tessera_secure_wipe(data_, length_);
  }
  std::free(data_);
  data_ = nullptr;
  length_ = 0;
}

/* Runs `call` (one keystore function) inside the TimeTracker's bracket:
 * started just before, stopped as soon as it returns.
 * Returns: what `call` returned. */
template <typename Call>
auto timed(Call&& call) {
  TimeTracker& tracker = TimeTracker::getInstance();
  tracker.startMeasuring();
  const auto result = call();
  tracker.stopMeasuring();
  return result;
}

/* Writes `text` and a newline to standard output and flushes. */
void printLine(const std::string& text);

/* Writes `label`, `length` bytes of `text` as they are, "]" and a newline,
 * and flushes. No copy of the text is made (it may be a mnemonic). */
void printTextLine(const std::string& label, const char* text, unsigned int length);

/* Writes `label`, the lower-case hex of `length` bytes at `data` (nothing
 * when `data` is null), "]" and a newline, and flushes. The hex text is
 * wiped after use, since the bytes may be a private key. */
void printHexLine(const std::string& label, const unsigned char* data, unsigned int length);

/* Copies a signature the keystore returned into a fixed 65-byte layout.
 * Only the first 65 bytes count; a shorter answer (which a healthy keystore
 * never gives) is read as far as it goes and the rest is zero, so nothing
 * past the end of the keystore's buffer is ever read.
 * Out: signature, kSignatureSize bytes. */
void copySignature(unsigned char (&signature)[kSignatureSize], const unsigned char* data,
                   unsigned int length);

}  // namespace scenario
}  // namespace test

#endif  // TESSERA_CONSOLE_SCENARIOSUPPORT_H
