// Test support of the keystore TA: requests written with the TA's own
// serializer, answers read back, and a fixture that runs the command handler
// through Invoke() (exactly as the TA entry point does) on the in-memory
// Internal API. Used by the TA's handler tests and by the integration test
// that runs the console's vectors through the handler.
#ifndef KEYSTORE_TESTING_KEYSTOREHARNESS_H
#define KEYSTORE_TESTING_KEYSTOREHARNESS_H

#include <gtest/gtest.h>

#include <array>
#include <cstdint>
#include <memory>
#include <sstream>
#include <string>
#include <vector>

#include "CTzfrWsm.h"
#include "FakeInternalApi.h"
#include "Keystore.h"
#include "keystore_ta.h"
#include "tessera/testing/hex.h"

namespace keystore_test {

using tessera::testing::Hex;
using tessera::testing::Unhex;

using Bytes = std::vector<unsigned char>;
using Token = std::array<unsigned char, 32>;
using fake_tee::Op;
using keystore::Keystore;

constexpr uint32_t kInOut = TEE_PARAM_TYPES(TEE_PARAM_TYPE_MEMREF_INOUT, TEE_PARAM_TYPE_NONE,
                                            TEE_PARAM_TYPE_NONE, TEE_PARAM_TYPE_NONE);
constexpr uint32_t kSel = 340;

inline Token MakeToken(unsigned char fill) {
  Token t;
  t.fill(fill);
  t[0] = 0x10;
  return t;
}

inline const Token kAlice = MakeToken(0xA1);
inline const Token kBob = MakeToken(0xB0);
inline const Token kMallory = MakeToken(0x66);  // never allowed

inline std::string TokenHex(const Token& t) { return Hex(Bytes(t.begin(), t.end())); }

struct Path {
  uint32_t level[5];
};

inline Path ParsePath(const std::string& text) {
  Path p{};
  std::stringstream in(text);
  std::string level;
  int i = 0;
  while (std::getline(in, level, '/') && i < 5) {
    const bool hardened = !level.empty() && level.back() == 'H';
    p.level[i++] = static_cast<uint32_t>(std::stoul(hardened ? level.substr(0, level.size() - 1) : level)) |
                   (hardened ? 0x80000000u : 0u);
  }
  return p;
}

inline const Path kAccount0 = ParsePath("44H/60H/0H/0/0");

// ---- Requests -------------------------------------------------------------------

class Request {
 public:
  Request() : buf_(8192, 0), w_(buf_.data(), buf_.size()) {}
  Request& Uint(unsigned v) {
    EXPECT_TRUE(w_.PutUint(v));
    return *this;
  }
  Request& Blob(const void* p, std::size_t n) {
    EXPECT_TRUE(w_.PutBlob(p, static_cast<unsigned>(n)));
    return *this;
  }
  Request& Blob(const Bytes& b) { return Blob(b.data(), b.size()); }
  Request& Sized(const Bytes& b) { return Uint(static_cast<unsigned>(b.size())).Blob(b); }
  Request& Cred(const Token& t, uint32_t selector = kSel) { return Blob(t.data(), 32).Uint(selector); }
  Request& PathBlob(const Path& p) { return Blob(p.level, sizeof p.level); }
  Bytes& bytes() { return buf_; }

 private:
  Bytes buf_;
  CTzfrWsm w_;
};

struct Reply {
  TEE_Result rc;
  Bytes shared;     // the caller's buffer after the call
  uint32_t size;    // params[0].memref.size after the call
  // Answer fields.
  bool Verdict(unsigned* v) {
    CTzfrWsm r(shared.data(), shared.size());
    return r.PrepareReset(1) && r.GetUint(v) && r.AtEnd();
  }
  bool Data(Bytes* out) {
    CTzfrWsm r(shared.data(), shared.size());
    unsigned n = 0;
    if (!r.PrepareReset(1) || !r.GetUint(&n)) return false;
    const auto* p = static_cast<const unsigned char*>(r.GetBlob(n));
    if (p == nullptr || !r.AtEnd()) return false;
    out->assign(p, p + n);
    return true;
  }
};

inline Reply Exchange(Keystore& ks, uint32_t cmd, Bytes request, uint32_t types = kInOut) {
  TEE_Param params[4] = {};
  params[0].memref.buffer = request.data();
  params[0].memref.size = static_cast<uint32_t>(request.size());
  const TEE_Result rc = ks.Invoke(cmd, types, params);
  return {rc, request, params[0].memref.size};
}

// ---- Fixture ----------------------------------------------------------------------

class KeystoreTest : public ::testing::Test {
 protected:
  void SetUp() override {
    fake_tee::Reset(42);
    fake_tee::SetProperty(KEYSTORE_PROP_ALLOWED_CREDENTIALS, TokenHex(kAlice) + ", " + TokenHex(kBob));
    Restart();
  }
  // A new TA instance over the same storage (as after the TA process died).
  void Restart() {
    ks_.reset();
    ASSERT_EQ(Keystore::Create(&ks_), TEE_SUCCESS);
  }

  Reply Call(uint32_t cmd, Request& r) { return Exchange(*ks_, cmd, r.bytes()); }

  TEE_Result Restore(const Bytes& entropy, const Token& t = kAlice, uint32_t sel = kSel) {
    Request r;
    r.Cred(t, sel).Sized(entropy);
    return Call(KEYSTORE_CMD_RESTORE_SEED, r).rc;
  }
  TEE_Result Simple(uint32_t cmd, const Token& t = kAlice, uint32_t sel = kSel) {
    Request r;
    r.Cred(t, sel);
    return Call(cmd, r).rc;
  }
  TEE_Result Mnemonic(std::string* phrase, const Token& t = kAlice, uint32_t sel = kSel) {
    Request r;
    r.Cred(t, sel);
    Reply reply = Call(KEYSTORE_CMD_GET_MNEMONIC, r);
    Bytes b;
    if (reply.rc == TEE_SUCCESS) {
      EXPECT_TRUE(reply.Data(&b));
      phrase->assign(b.begin(), b.end());
    }
    return reply.rc;
  }
  TEE_Result PathData(uint32_t cmd, const Path& p, Bytes* out, const Token& t = kAlice,
                      uint32_t sel = kSel) {
    Request r;
    r.Cred(t, sel).PathBlob(p);
    Reply reply = Call(cmd, r);
    if (reply.rc == TEE_SUCCESS) {
      EXPECT_TRUE(reply.Data(out));
    }
    return reply.rc;
  }
  TEE_Result Sign(const Path& p, const Bytes& digest, Bytes* out, const Token& t = kAlice) {
    Request r;
    r.Cred(t).PathBlob(p).Sized(digest);
    Reply reply = Call(KEYSTORE_CMD_SIGN, r);
    if (reply.rc == TEE_SUCCESS) {
      EXPECT_TRUE(reply.Data(out));
    }
    return reply.rc;
  }
  TEE_Result SavePin(const std::string& pin, const Token& t = kAlice) {
    Request r;
    r.Cred(t).Sized(Bytes(pin.begin(), pin.end()));
    return Call(KEYSTORE_CMD_SAVE_PIN, r).rc;
  }
  TEE_Result CheckPin(const std::string& pin, unsigned* verdict, const Token& t = kAlice) {
    Request r;
    r.Cred(t).Sized(Bytes(pin.begin(), pin.end()));
    Reply reply = Call(KEYSTORE_CMD_CHECK_PIN, r);
    if (reply.rc == TEE_SUCCESS) {
      EXPECT_TRUE(reply.Verdict(verdict));
    }
    return reply.rc;
  }
  unsigned CheckPhrase(const std::string& text) {
    Request r;
    r.Sized(Bytes(text.begin(), text.end()));
    Reply reply = Call(KEYSTORE_CMD_CHECK_MNEMONIC, r);
    EXPECT_EQ(reply.rc, TEE_SUCCESS);
    unsigned v = 99;
    EXPECT_TRUE(reply.Verdict(&v));
    return v;
  }
  // The one stored object (there is one wallet in most tests).
  Bytes& OnlyObject() {
    EXPECT_EQ(fake_tee::Objects().size(), 1u);
    return fake_tee::Objects().begin()->second;
  }

  std::unique_ptr<Keystore> ks_;
};

inline const Bytes kZeroEntropy(16, 0);
inline const std::string kZeroPhrase =
    "abandon abandon abandon abandon abandon abandon abandon abandon abandon abandon abandon about";

}  // namespace keystore_test

#endif  // KEYSTORE_TESTING_KEYSTOREHARNESS_H
