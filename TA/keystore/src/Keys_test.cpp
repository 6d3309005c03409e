// Tests of key derivation, addresses and signatures against published and
// independent vectors.
#include "Keys.h"

#include <gtest/gtest.h>
#include <openssl/evp.h>
#include <secp256k1_recovery.h>

#include <cstring>
#include <fstream>
#include <memory>
#include <sstream>
#include <string>
#include <vector>

#include "keccak.h"

#include "tessera/testing/hex.h"
#include "tessera/testing/vector_file.h"

namespace {

using tessera::testing::Hex;
using tessera::testing::Unhex;

using Bytes = std::vector<unsigned char>;
using keystore::Curve;
using keystore::Node;



std::unique_ptr<Curve> MakeCurve() {
  unsigned char blinding[32] = {7};
  return std::unique_ptr<Curve>(Curve::Create(blinding));
}

// Base58Check decoding of a serialized extended key (78 bytes), test-side.
bool DecodeBase58Check(const std::string& text, Bytes* out) {
  static const std::string kAlphabet = "123456789ABCDEFGHJKLMNPQRSTUVWXYZabcdefghijkmnopqrstuvwxyz";
  Bytes num;  // big-endian
  for (char c : text) {
    const std::size_t digit = kAlphabet.find(c);
    if (digit == std::string::npos) return false;
    unsigned carry = static_cast<unsigned>(digit);
    for (auto it = num.rbegin(); it != num.rend(); ++it) {
      carry += 58u * *it;
      *it = static_cast<unsigned char>(carry);
      carry >>= 8;
    }
    while (carry != 0) {
      num.insert(num.begin(), static_cast<unsigned char>(carry));
      carry >>= 8;
    }
  }
  for (char c : text) {
    if (c != '1') break;
    num.insert(num.begin(), 0);
  }
  if (num.size() < 4) return false;
  unsigned char h1[32], h2[32];
  unsigned int n = 0;
  EVP_Digest(num.data(), num.size() - 4, h1, &n, EVP_sha256(), nullptr);
  EVP_Digest(h1, 32, h2, &n, EVP_sha256(), nullptr);
  if (std::memcmp(h2, num.data() + num.size() - 4, 4) != 0) return false;
  out->assign(num.begin(), num.end() - 4);
  return true;
}

uint32_t Be32(const unsigned char* p) {
  return static_cast<uint32_t>(p[0]) << 24 | static_cast<uint32_t>(p[1]) << 16 |
         static_cast<uint32_t>(p[2]) << 8 | p[3];
}

TEST(Keys, Bip32PublishedVectorsOneToFour) {
  auto curve = MakeCurve();
  ASSERT_NE(curve, nullptr);
  Bytes seed;
  int chains = 0, seeds = 0;
  for (const auto& line : tessera::testing::ReadVectorFile(KEYSTORE_TESTDATA "/bip32_vectors.txt")) {
    ASSERT_EQ(line.fields.size(), 2u) << "bad line " << line.number;
    const std::string& first = line.fields[0];
    const std::string& second = line.fields[1];
    if (first == "seed") {
      seed = Unhex(second);
      ++seeds;
      continue;
    }
    SCOPED_TRACE(first);
    Bytes xprv;
    ASSERT_TRUE(DecodeBase58Check(second, &xprv));
    ASSERT_EQ(xprv.size(), 78u);

    Node node;
    ASSERT_TRUE(curve->Master(seed.data(), seed.size(), &node));
    uint32_t depth = 0, last = 0;
    std::stringstream levels(first.substr(1));
    std::string level;
    while (std::getline(levels, level, '/')) {
      if (level.empty()) continue;
      const bool hardened = level.back() == 'H';
      last = static_cast<uint32_t>(std::stoul(hardened ? level.substr(0, level.size() - 1) : level)) |
             (hardened ? 0x80000000u : 0u);
      Node child;
      ASSERT_TRUE(curve->Child(node, nullptr, last, &child));
      std::memcpy(node.key.data(), child.key.data(), 32);
      std::memcpy(node.chain.data(), child.chain.data(), 32);
      ++depth;
    }
    EXPECT_EQ(xprv[4], depth);
    EXPECT_EQ(Be32(xprv.data() + 9), last);
    EXPECT_EQ(Hex(node.chain.data(), 32), Hex(xprv.data() + 13, 32)) << "chain code";
    EXPECT_EQ(xprv[45], 0);
    EXPECT_EQ(Hex(node.key.data(), 32), Hex(xprv.data() + 46, 32)) << "private key";
    ++chains;
  }
  EXPECT_EQ(seeds, 4);
  EXPECT_EQ(chains, 17);
}

TEST(Keys, ChildWithAndWithoutAGivenParentKeyAgree) {
  auto curve = MakeCurve();
  const Bytes seed = Unhex("000102030405060708090a0b0c0d0e0f");
  Node master;
  ASSERT_TRUE(curve->Master(seed.data(), seed.size(), &master));
  secp256k1_pubkey pub;
  ASSERT_TRUE(curve->PublicKey(master.key.data(), &pub));
  Node a, b;
  ASSERT_TRUE(curve->Child(master, &pub, 7, &a));
  ASSERT_TRUE(curve->Child(master, nullptr, 7, &b));
  EXPECT_EQ(Hex(a.key.data(), 32), Hex(b.key.data(), 32));
  EXPECT_EQ(Hex(a.chain.data(), 32), Hex(b.chain.data(), 32));
}

TEST(Keys, KeccakOfAbcIsThePublishedDigest) {
  keccak_ctx k;
  unsigned char d[32];
  keccak_init(&k);
  keccak_update(&k, reinterpret_cast<const unsigned char*>("abc"), 3);
  keccak_final(&k, d);
  EXPECT_EQ(Hex(d, 32), "4e03657aea45a94fc7d47ba826c8d667c0d1e6e33a64a036ec44f58fa12d6c45");
}

TEST(Keys, KnownPrivateKeysGiveTheirPublishedAddresses) {
  auto curve = MakeCurve();
  const struct {
    const char* key;
    const char* address;
  } cases[] = {
      {"0000000000000000000000000000000000000000000000000000000000000001",
       "7e5f4552091a69125d5dfcb7b8c2659029395bdf"},
      {"4c0883a69102937d6231471b5dbb6204fe5129617082792ae468d01a3f362318",
       "2c7536e3605d9c16a7a3d7b1898e529396a65c23"},
      // Account 0 of the all-zero-entropy phrase (m/44'/60'/0'/0/0).
      {"1ab42cc412b618bdea3a599e3c9bae199ebf030895b039e9db1e30dafb12b727",
       "9858effd232b4033e47d90003d41ec34ecaeda94"},
  };
  for (const auto& c : cases) {
    const Bytes key = Unhex(c.key);
    secp256k1_pubkey pub;
    ASSERT_TRUE(curve->PublicKey(key.data(), &pub));
    unsigned char address[20];
    ASSERT_TRUE(curve->Address(pub, address));
    EXPECT_EQ(Hex(address, 20), c.address);
  }
}

TEST(Keys, SignaturesRecoverToTheSignerAreLowSAndDeterministic) {
  auto curve = MakeCurve();
  secp256k1_context* verify = secp256k1_context_create(SECP256K1_CONTEXT_NONE);
  // n / 2, the largest low S.
  const Bytes half_n = Unhex("7fffffffffffffffffffffffffffffff5d576e7357a4501ddfe92f46681b20a0");
  for (int i = 1; i <= 40; ++i) {
    unsigned char key[32] = {}, digest[32];
    key[31] = static_cast<unsigned char>(i);
    key[0] = static_cast<unsigned char>(i * 3);
    for (int j = 0; j < 32; ++j) digest[j] = static_cast<unsigned char>(i * 7 + j);
    unsigned char sig[65], again[65];
    ASSERT_TRUE(curve->Sign(key, digest, sig));
    ASSERT_TRUE(curve->Sign(key, digest, again));
    EXPECT_EQ(Hex(sig, 65), Hex(again, 65)) << "RFC 6979 nonces are deterministic";
    EXPECT_LE(sig[64], 1);
    EXPECT_LE(std::memcmp(sig + 32, half_n.data(), 32), 0) << "low S";

    secp256k1_ecdsa_recoverable_signature rsig;
    ASSERT_EQ(secp256k1_ecdsa_recoverable_signature_parse_compact(verify, &rsig, sig, sig[64]), 1);
    secp256k1_pubkey recovered, expected;
    ASSERT_EQ(secp256k1_ecdsa_recover(verify, &recovered, &rsig, digest), 1);
    ASSERT_TRUE(curve->PublicKey(key, &expected));
    EXPECT_EQ(secp256k1_ec_pubkey_cmp(verify, &recovered, &expected), 0);
  }
  secp256k1_context_destroy(verify);
}

TEST(Keys, InvalidKeysAreRefused) {
  auto curve = MakeCurve();
  const Bytes zero(32, 0);
  const Bytes n = Unhex("fffffffffffffffffffffffffffffffebaaedce6af48a03bbfd25e8cd0364141");
  secp256k1_pubkey pub;
  unsigned char sig[65];
  const unsigned char digest[32] = {1};
  EXPECT_FALSE(curve->PublicKey(zero.data(), &pub));
  EXPECT_FALSE(curve->PublicKey(n.data(), &pub));
  EXPECT_FALSE(curve->Sign(zero.data(), digest, sig));
  EXPECT_FALSE(curve->Sign(n.data(), digest, sig));
}

}  // namespace
