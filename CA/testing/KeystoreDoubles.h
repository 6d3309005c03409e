/*
 * Link-time doubles of the keystore API (the ten poc_* functions) and of
 * ss_init_credential, for unit tests of the console's scenarios. A test
 * program links this library instead of the keystore client and the
 * secure-storage library, scripts what each call answers, runs a scenario
 * and then reads back every call the scenario made and what became of every
 * buffer handed to it.
 *
 * Answers. Each function answers from its queue of scripted answers, in
 * order, and from its default answer once the queue is empty (the default
 * default: result 0, no buffer, length 0, verdict 1). A data function
 * (poc_getMnemonic, poc_getAddress, poc_signTransaction, poc_getPrivateKey)
 * writes the answer's length into *out_len and, when the answer has a
 * buffer, a fresh malloc'd copy of it into *out; it writes *out_len and *out
 * whatever the result, so a test can also hand over what a healthy keystore
 * never would. A verdict function writes the answer's verdict.
 *
 * Buffers. Every buffer handed out is tracked. A program linking this
 * library must route its own calls to free through __wrap_free (link option
 * -Wl,--wrap=free, which the CMake target adds): each free of a tracked
 * buffer is recorded together with whether its bytes were all zero at that
 * moment (wiped), and free(NULL) calls are counted.
 *
 * Not thread-safe; one test at a time.
 */
#ifndef TESSERA_CONSOLE_TESTING_KEYSTOREDOUBLES_H
#define TESSERA_CONSOLE_TESTING_KEYSTOREDOUBLES_H

#include <array>
#include <chrono>
#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "PocInterface.h"

namespace keystore_doubles {

enum class Fn {
  kGenerateSeed,
  kRestoreSeed,
  kDeleteSeed,
  kGetMnemonic,
  kCheckMnemonic,
  kGetAddress,
  kSignTransaction,
  kGetPrivateKey,
  kSavePin,
  kCheckPin,
};

/* The function's name, e.g. "poc_generate_seed". */
const char* Name(Fn fn);

/* What one call answers. */
struct Answer {
  int32_t result = 0;
  /* Data functions: when `hands_out`, `buffer`'s bytes are handed out in a
   * new malloc'd buffer; otherwise the pointer stays as the caller set it. */
  bool hands_out = false;
  std::vector<unsigned char> buffer;
  /* Data functions: the length reported; when not set, the buffer's size
   * (0 when nothing is handed out). */
  std::optional<unsigned int> length;
  /* Verdict functions: the verdict written. */
  unsigned int verdict = 1;
  /* How long the call takes before it answers. */
  std::chrono::milliseconds delay{0};
};

/* Shorthands: success handing out `bytes`; a failure with `result` and
 * nothing handed out. */
Answer Success(std::vector<unsigned char> bytes = {});
Answer Failure(int32_t result);
Answer Verdict(unsigned int verdict);

/* One call as the scenario made it. */
struct Call {
  Fn fn = Fn::kGenerateSeed;
  bool has_credential = false;
  std::array<unsigned char, 32> token{};  // first 32 bytes of the credential
  unsigned int selector_hi = 0;
  unsigned int selector_lo = 0;
  bool has_path = false;
  std::array<uint32_t, 5> path{};         // the five words of the hd_path_param
  std::vector<unsigned char> input;       // seed, PIN, data to sign or mnemonic
  bool out_was_null = true;               // *out (data functions) on entry
  bool out_len_was_zero = true;           // *out_len (data functions) on entry
  bool measured_at_call = false;          // TimeTracker::isMeasured() on entry
  unsigned long elapsed_at_call = 0;      // TimeTracker::getElapsedTime() on entry
};

/* A ss_init_credential call. */
struct CredentialCall {
  std::array<uint32_t, 5> words{};
  uint32_t version = 0;
  uint32_t flags = 0;
};

/* One buffer handed out. */
struct Buffer {
  Fn fn = Fn::kGenerateSeed;
  std::size_t size = 0;
  bool freed = false;
  bool wiped = false;  // all bytes zero when freed
};

/* Forgets every script, call and buffer (buffers still held are freed) and
 * puts ss_init_credential back to success. */
void Reset();

/* Scripting. */
void Queue(Fn fn, Answer answer);
void SetDefault(Fn fn, Answer answer);
/* Makes ss_init_credential return `result` (and leave the record zeroed
 * when it is not 0, as the real library does). */
void SetCredentialResult(int result);

/* The token ss_init_credential writes: a fixed pattern, so a test can see
 * that the keystore calls got exactly the credential that was made. */
std::array<unsigned char, 32> Token();

/* What happened. */
const std::vector<Call>& Calls();
std::vector<Fn> CalledFunctions();
const std::vector<CredentialCall>& CredentialCalls();
const std::vector<Buffer>& Buffers();
/* Buffers handed out and not freed yet. */
std::size_t Outstanding();
/* free(NULL) calls seen since Reset(). */
std::size_t NullFrees();

}  // namespace keystore_doubles

#endif  // TESSERA_CONSOLE_TESTING_KEYSTOREDOUBLES_H
