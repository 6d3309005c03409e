// Link-time doubles of the keystore API and of ss_init_credential.
#include "KeystoreDoubles.h"

#include "TimeTracker.h"
#include "securestorage.h"

#include <cstdlib>
#include <cstring>
#include <deque>
#include <map>
#include <thread>
#include <utility>

extern "C" void __real_free(void* p);

namespace keystore_doubles {
namespace {

struct State {
  std::map<Fn, std::deque<Answer>> queued;
  std::map<Fn, Answer> defaults;
  int credential_result = 0;
  std::vector<Call> calls;
  std::vector<CredentialCall> credential_calls;
  std::vector<Buffer> buffers;
  std::vector<void*> pointers;  // pointers[i] belongs to buffers[i]
  std::size_t null_frees = 0;
};

// Never destroyed: frees may still arrive while static objects are torn down.
State& state() {
  static State* const s = new State;
  return *s;
}

Answer next(Fn fn) {
  State& s = state();
  std::deque<Answer>& queue = s.queued[fn];
  if (!queue.empty()) {
    Answer a = std::move(queue.front());
    queue.pop_front();
    return a;
  }
  return s.defaults[fn];
}

Call& record(Fn fn) {
  test::TimeTracker& tracker = test::TimeTracker::getInstance();
  Call call;
  call.fn = fn;
  call.measured_at_call = tracker.isMeasured();
  call.elapsed_at_call = tracker.getElapsedTime();
  state().calls.push_back(call);
  return state().calls.back();
}

Call& record(Fn fn, const credential& cred, unsigned int hi, unsigned int lo) {
  Call& call = record(fn);
  call.has_credential = true;
  std::memcpy(call.token.data(), &cred, call.token.size());
  call.selector_hi = hi;
  call.selector_lo = lo;
  return call;
}

void setPath(Call& call, const hd_path_param& path) {
  call.has_path = true;
  call.path = {static_cast<uint32_t>(path.purpose), static_cast<uint32_t>(path.coin_type),
               static_cast<uint32_t>(path.account), static_cast<uint32_t>(path.change),
               static_cast<uint32_t>(path.address_index)};
}

void setInput(Call& call, const void* data, unsigned int length) {
  if (data != nullptr) {
    const auto* bytes = static_cast<const unsigned char*>(data);
    call.input.assign(bytes, bytes + length);
  }
}

void wait(const Answer& answer) {
  if (answer.delay.count() > 0) {
    std::this_thread::sleep_for(answer.delay);
  }
}

// The common part of the four data functions.
template <typename T>
int32_t handOut(Fn fn, Call& call, T** out, unsigned int* out_len) {
  call.out_was_null = out == nullptr || *out == nullptr;
  call.out_len_was_zero = out_len == nullptr || *out_len == 0;
  const Answer answer = next(fn);
  wait(answer);
  const unsigned int length =
      answer.length ? *answer.length
                    : static_cast<unsigned int>(answer.hands_out ? answer.buffer.size() : 0);
  if (out_len != nullptr) {
    *out_len = length;
  }
  if (answer.hands_out && out != nullptr) {
    const std::vector<unsigned char>& bytes = answer.buffer;
    // At least one byte, so that even an empty buffer is a distinct pointer.
    void* p = std::malloc(bytes.empty() ? 1 : bytes.size());
    if (p == nullptr) {
      std::abort();
    }
    if (!bytes.empty()) {
      std::memcpy(p, bytes.data(), bytes.size());
    }
    state().buffers.push_back(Buffer{fn, bytes.size(), false, false});
    state().pointers.push_back(p);
    *out = static_cast<T*>(p);
  }
  return answer.result;
}

int32_t plain(Fn fn) {
  const Answer answer = next(fn);
  wait(answer);
  return answer.result;
}

int32_t verdict(Fn fn, unsigned int* out) {
  const Answer answer = next(fn);
  wait(answer);
  if (out != nullptr) {
    *out = answer.verdict;
  }
  return answer.result;
}

}  // namespace

const char* Name(Fn fn) {
  switch (fn) {
    case Fn::kGenerateSeed: return "poc_generate_seed";
    case Fn::kRestoreSeed: return "poc_restore_seed";
    case Fn::kDeleteSeed: return "poc_delete_seed";
    case Fn::kGetMnemonic: return "poc_getMnemonic";
    case Fn::kCheckMnemonic: return "poc_check_mnemonic";
    case Fn::kGetAddress: return "poc_getAddress";
    case Fn::kSignTransaction: return "poc_signTransaction";
    case Fn::kGetPrivateKey: return "poc_getPrivateKey";
    case Fn::kSavePin: return "poc_save_pin";
    case Fn::kCheckPin: return "poc_check_pin";
  }
  return "?";
}

Answer Success(std::vector<unsigned char> bytes) {
  Answer a;
  a.hands_out = true;
  a.buffer = std::move(bytes);
  return a;
}

Answer Failure(int32_t result) {
  Answer a;
  a.result = result;
  return a;
}

Answer Verdict(unsigned int value) {
  Answer a;
  a.verdict = value;
  return a;
}

void Reset() {
  State& s = state();
  for (std::size_t i = 0; i < s.buffers.size(); ++i) {
    if (!s.buffers[i].freed) {
      __real_free(s.pointers[i]);
    }
  }
  s.queued.clear();
  s.defaults.clear();
  s.credential_result = 0;
  s.calls.clear();
  s.credential_calls.clear();
  s.buffers.clear();
  s.pointers.clear();
  s.null_frees = 0;
}

void Queue(Fn fn, Answer answer) { state().queued[fn].push_back(std::move(answer)); }

void SetDefault(Fn fn, Answer answer) { state().defaults[fn] = std::move(answer); }

void SetCredentialResult(int result) { state().credential_result = result; }

std::array<unsigned char, 32> Token() {
  std::array<unsigned char, 32> token{};
  for (std::size_t i = 0; i < token.size(); ++i) {
    token[i] = static_cast<unsigned char>(0xC0 + i);
  }
  return token;
}

const std::vector<Call>& Calls() { return state().calls; }

std::vector<Fn> CalledFunctions() {
  std::vector<Fn> fns;
  for (const Call& c : state().calls) {
    fns.push_back(c.fn);
  }
  return fns;
}

const std::vector<CredentialCall>& CredentialCalls() { return state().credential_calls; }

const std::vector<Buffer>& Buffers() { return state().buffers; }

std::size_t Outstanding() {
  std::size_t n = 0;
  for (const Buffer& b : state().buffers) {
    n += b.freed ? 0 : 1;
  }
  return n;
}

std::size_t NullFrees() { return state().null_frees; }

}  // namespace keystore_doubles

using keystore_doubles::Fn;

// Allocates nothing: it runs for every free of the program's own objects.
extern "C" void __wrap_free(void* p) {
  keystore_doubles::State& s = keystore_doubles::state();
  if (p == nullptr) {
    ++s.null_frees;
    return;
  }
  for (std::size_t i = 0; i < s.pointers.size(); ++i) {
    if (s.pointers[i] == p && !s.buffers[i].freed) {
      keystore_doubles::Buffer& b = s.buffers[i];
      const auto* bytes = static_cast<const unsigned char*>(p);
      bool zero = true;
      for (std::size_t k = 0; k < b.size; ++k) {
        zero = zero && bytes[k] == 0;
      }
      b.wiped = zero;
      b.freed = true;
      break;
    }
  }
  __real_free(p);
}

extern "C" int ss_init_credential(credential* cred, uint32_t w0, uint32_t w1, uint32_t w2,
                                  uint32_t w3, uint32_t w4, uint32_t version, uint32_t flags) {
  keystore_doubles::State& s = keystore_doubles::state();
  s.credential_calls.push_back(keystore_doubles::CredentialCall{{w0, w1, w2, w3, w4}, version, flags});
  if (cred == nullptr) {
    return -1;
  }
  std::memset(cred, 0, sizeof *cred);
  if (s.credential_result != 0) {
    return s.credential_result;
  }
  const std::array<unsigned char, 32> token = keystore_doubles::Token();
  std::memcpy(cred->token, token.data(), token.size());
  cred->version = version;
  cred->flags = flags;
  return 0;
}

int32_t poc_generate_seed(const credential& cred, unsigned char selector_hi,
                          unsigned char selector_lo) {
  keystore_doubles::record(Fn::kGenerateSeed, cred, selector_hi, selector_lo);
  return keystore_doubles::plain(Fn::kGenerateSeed);
}

int32_t poc_restore_seed(const credential& cred, unsigned char selector_hi,
                         unsigned char selector_lo, const unsigned char* seed,
                         unsigned int seed_len) {
  keystore_doubles::Call& call =
      keystore_doubles::record(Fn::kRestoreSeed, cred, selector_hi, selector_lo);
  keystore_doubles::setInput(call, seed, seed_len);
  return keystore_doubles::plain(Fn::kRestoreSeed);
}

int32_t poc_delete_seed(const credential& cred, unsigned char selector_hi,
                        unsigned char selector_lo) {
  keystore_doubles::record(Fn::kDeleteSeed, cred, selector_hi, selector_lo);
  return keystore_doubles::plain(Fn::kDeleteSeed);
}

int32_t poc_getMnemonic(const credential& cred, unsigned char selector_hi,
                        unsigned char selector_lo, char** mnemonic, unsigned int* mnemonic_len) {
  keystore_doubles::Call& call =
      keystore_doubles::record(Fn::kGetMnemonic, cred, selector_hi, selector_lo);
  return keystore_doubles::handOut(Fn::kGetMnemonic, call, mnemonic, mnemonic_len);
}

int32_t poc_check_mnemonic(const char* mnemonic, unsigned int mnemonic_len,
                           unsigned int* verdict) {
  keystore_doubles::Call& call = keystore_doubles::record(Fn::kCheckMnemonic);
  keystore_doubles::setInput(call, mnemonic, mnemonic_len);
  return keystore_doubles::verdict(Fn::kCheckMnemonic, verdict);
}

int32_t poc_getAddress(const credential& cred, unsigned char selector_hi,
                       unsigned char selector_lo, const hd_path_param& path, unsigned char** out,
                       unsigned int* out_len) {
  keystore_doubles::Call& call =
      keystore_doubles::record(Fn::kGetAddress, cred, selector_hi, selector_lo);
  keystore_doubles::setPath(call, path);
  return keystore_doubles::handOut(Fn::kGetAddress, call, out, out_len);
}

int32_t poc_signTransaction(const credential& cred, unsigned char selector_hi,
                            unsigned char selector_lo, const hd_path_param& path,
                            const unsigned char* data, unsigned int data_len, unsigned char** out,
                            unsigned int* out_len) {
  keystore_doubles::Call& call =
      keystore_doubles::record(Fn::kSignTransaction, cred, selector_hi, selector_lo);
  keystore_doubles::setPath(call, path);
  keystore_doubles::setInput(call, data, data_len);
  return keystore_doubles::handOut(Fn::kSignTransaction, call, out, out_len);
}

int32_t poc_getPrivateKey(const credential& cred, unsigned char selector_hi,
                          unsigned char selector_lo, const hd_path_param& path,
                          unsigned char** out, unsigned int* out_len) {
  keystore_doubles::Call& call =
      keystore_doubles::record(Fn::kGetPrivateKey, cred, selector_hi, selector_lo);
  keystore_doubles::setPath(call, path);
  return keystore_doubles::handOut(Fn::kGetPrivateKey, call, out, out_len);
}

int32_t poc_save_pin(const credential& cred, unsigned char selector_hi, unsigned int selector_lo,
                     const unsigned char* pin, unsigned int pin_len) {
  keystore_doubles::Call& call =
      keystore_doubles::record(Fn::kSavePin, cred, selector_hi, selector_lo);
  keystore_doubles::setInput(call, pin, pin_len);
  return keystore_doubles::plain(Fn::kSavePin);
}

int32_t poc_check_pin(const credential& cred, unsigned char selector_hi, unsigned int selector_lo,
                      const unsigned char* pin, unsigned int pin_len, unsigned int* verdict) {
  keystore_doubles::Call& call =
      keystore_doubles::record(Fn::kCheckPin, cred, selector_hi, selector_lo);
  keystore_doubles::setInput(call, pin, pin_len);
  return keystore_doubles::verdict(Fn::kCheckPin, verdict);
}
