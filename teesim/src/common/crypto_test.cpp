/* The crypto primitives against published vectors. */
#include "common/crypto.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "tessera/testing/hex.h"

namespace teesim::crypto {
namespace {

using ::tessera::testing::Unhex;

/* McGrew & Viega, "The Galois/Counter Mode of Operation", test case 16. */
const char* kGcmKey = "feffe9928665731c6d6a8f9467308308feffe9928665731c6d6a8f9467308308";
const char* kGcmPlain =
    "d9313225f88406e5a55909c5aff5269a86a7a9531534f7da2e4c303d8a318a72"
    "1c3c0c95956809532fcf0e2449a6b525b16aedf5aa0de657ba637b39";
const char* kGcmAad = "feedfacedeadbeeffeedfacedeadbeefabaddad2";
const char* kGcmIv = "cafebabefacedbaddecaf888";
const char* kGcmCipher =
    "522dc1f099567d07f47f37a32a84427d643a8cdcbfe5c0c97598a2bd2555d1aa"
    "8cb08e48590dbb3da7b08b1056828838c5f61e6393ba7a0abcc9f662";
const char* kGcmTag = "76fc6ece0f4e1768cddf8853bb2d551b";

TEST(Crypto, AesGcmMatchesPublishedVector) {
  auto key = Unhex(kGcmKey), plain = Unhex(kGcmPlain), aad = Unhex(kGcmAad), iv = Unhex(kGcmIv);
  std::vector<uint8_t> ct(plain.size());
  uint8_t tag[kGcmTagSize];
  ASSERT_TRUE(aes256gcm_seal(ct.data(), tag, key.data(), iv.data(), aad.data(), aad.size(),
                             plain.data(), plain.size()));
  EXPECT_EQ(ct, Unhex(kGcmCipher));
  EXPECT_EQ(std::vector<uint8_t>(tag, tag + kGcmTagSize), Unhex(kGcmTag));

  std::vector<uint8_t> back(ct.size());
  ASSERT_TRUE(aes256gcm_open(back.data(), key.data(), iv.data(), aad.data(), aad.size(), ct.data(),
                             ct.size(), tag));
  EXPECT_EQ(back, plain);
}

TEST(Crypto, AesGcmRefusesAnyAlteration) {
  auto key = Unhex(kGcmKey), aad = Unhex(kGcmAad), iv = Unhex(kGcmIv);
  auto ct = Unhex(kGcmCipher), tag = Unhex(kGcmTag);
  std::vector<uint8_t> out(ct.size(), 0xAA);
  auto bad = ct;
  bad[10] ^= 1;
  EXPECT_FALSE(aes256gcm_open(out.data(), key.data(), iv.data(), aad.data(), aad.size(), bad.data(),
                              bad.size(), tag.data()));
  for (uint8_t b : out) EXPECT_EQ(b, 0) << "plaintext of a forgery must be wiped";
  auto bad_aad = aad;
  bad_aad[0] ^= 0x80;
  EXPECT_FALSE(aes256gcm_open(out.data(), key.data(), iv.data(), bad_aad.data(), bad_aad.size(),
                              ct.data(), ct.size(), tag.data()));
  auto bad_tag = tag;
  bad_tag[15] ^= 1;
  EXPECT_FALSE(aes256gcm_open(out.data(), key.data(), iv.data(), aad.data(), aad.size(), ct.data(),
                              ct.size(), bad_tag.data()));
}

/* RFC 4231, test case 2. */
TEST(Crypto, HmacSha256MatchesRfc4231) {
  const std::string key = "Jefe", data = "what do ya want for nothing?";
  uint8_t mac[32];
  ASSERT_TRUE(hmac_sha256(mac, reinterpret_cast<const uint8_t*>(key.data()), key.size(),
                          data.data(), data.size()));
  EXPECT_EQ(std::vector<uint8_t>(mac, mac + 32),
            Unhex("5bdcc146bf60754e6a042426089575c75a003f089d2739839dec58b964ec3843"));
}

/* RFC 5869, test case 1. */
TEST(Crypto, HkdfSha256MatchesRfc5869) {
  auto ikm = Unhex("0b0b0b0b0b0b0b0b0b0b0b0b0b0b0b0b0b0b0b0b0b0b");
  auto salt = Unhex("000102030405060708090a0b0c");
  auto info = Unhex("f0f1f2f3f4f5f6f7f8f9");
  std::vector<uint8_t> okm(42);
  ASSERT_TRUE(hkdf_sha256(okm.data(), okm.size(), ikm.data(), ikm.size(), salt.data(), salt.size(),
                          info.data(), info.size()));
  EXPECT_EQ(okm, Unhex("3cb25f25faacd57a90434f64d0362f2a2d2d0a90cf1a5a4c5db02d56ecc4c5bf3400720"
                       "8d5b887185865"));
}

TEST(Crypto, Sha256OfAbc) {
  uint8_t d[32];
  ASSERT_TRUE(sha256(d, "abc", 3));
  EXPECT_EQ(std::vector<uint8_t>(d, d + 32),
            Unhex("ba7816bf8f01cfea414140de5dae2223b00361a396177a9cb410ff61f20015ad"));
}

TEST(Crypto, OsRandomFillsAndDiffers) {
  std::vector<uint8_t> a(64, 0), b(64, 0);
  ASSERT_TRUE(os_random(a.data(), a.size()));
  ASSERT_TRUE(os_random(b.data(), b.size()));
  EXPECT_NE(a, b);
}

}  // namespace
}  // namespace teesim::crypto
