// Tests of BIP-39 against the published English vectors and the word list.
#include "Bip39.h"

#include <gtest/gtest.h>

#include <fstream>
#include <set>
#include <sstream>
#include <string>
#include <vector>

#include "Bip39Words.h"

#include "tessera/testing/hex.h"
#include "tessera/testing/vector_file.h"

namespace {

using tessera::testing::Hex;
using tessera::testing::Unhex;

using keystore::bip39::EntropyToPhrase;
using keystore::bip39::IsValidPhrase;
using keystore::bip39::kMaxPhraseLength;
using keystore::bip39::PhraseToSeed;



struct Vector {
  std::string entropy, phrase, seed;
};

std::vector<Vector> TrezorVectors() {
  std::vector<Vector> v;
  for (const auto& line :
       tessera::testing::ReadVectorFile(KEYSTORE_TESTDATA "/bip39_english_trezor.txt", '|')) {
    EXPECT_EQ(line.fields.size(), 3u) << "bad line " << line.number;
    if (line.fields.size() == 3) v.push_back(Vector{line.fields[0], line.fields[1], line.fields[2]});
  }
  return v;
}

bool Valid(const std::string& phrase) { return IsValidPhrase(phrase.data(), phrase.size()); }

TEST(Bip39, WordListIsTheEnglishList) {
  std::set<std::string> seen;
  for (const auto& w : keystore::bip39::kEnglishWords) {
    const std::string word(w);
    EXPECT_GE(word.size(), 3u);
    EXPECT_LE(word.size(), 8u);
    seen.insert(word);
  }
  EXPECT_EQ(seen.size(), 2048u) << "every word once";
  EXPECT_STREQ(keystore::bip39::kEnglishWords[0], "abandon");
  EXPECT_STREQ(keystore::bip39::kEnglishWords[3], "about");
  EXPECT_STREQ(keystore::bip39::kEnglishWords[2047], "zoo");
}

TEST(Bip39, PublishedVectorsEntropyToPhrase) {
  const std::vector<Vector> vectors = TrezorVectors();
  ASSERT_EQ(vectors.size(), 24u);
  for (const Vector& v : vectors) {
    const std::vector<unsigned char> entropy = Unhex(v.entropy);
    char out[kMaxPhraseLength];
    const std::size_t n = EntropyToPhrase(entropy.data(), entropy.size(), out, sizeof out);
    EXPECT_EQ(std::string(out, n), v.phrase) << v.entropy;
  }
}

TEST(Bip39, PublishedVectorsAreValidPhrases) {
  for (const Vector& v : TrezorVectors()) EXPECT_TRUE(Valid(v.phrase)) << v.phrase;
}

TEST(Bip39, PublishedVectorsSeedWithPassphraseTrezor) {
  for (const Vector& v : TrezorVectors()) {
    unsigned char seed[64];
    ASSERT_TRUE(PhraseToSeed(v.phrase.data(), v.phrase.size(), "TREZOR", 6, seed));
    EXPECT_EQ(Hex(seed, 64), v.seed) << v.phrase;
  }
}

TEST(Bip39, EmptyPassphraseSeedOfTheAllZeroPhrase) {
  // Published value for "abandon x11 about" with an empty passphrase.
  const std::string phrase =
      "abandon abandon abandon abandon abandon abandon abandon abandon abandon abandon abandon about";
  unsigned char seed[64];
  ASSERT_TRUE(PhraseToSeed(phrase.data(), phrase.size(), "", 0, seed));
  EXPECT_EQ(Hex(seed, 64),
            "5eb00bbddcf069084889a8ab9155568165f5c453ccb85e70811aaed6f6da5fc19a5ac40b389cd370d086206dec8a"
            "a6c43daea6690f20ad3d8d48b2d2ce9e38e4");
}

TEST(Bip39, EntropyOfEveryLengthRoundTrips) {
  for (std::size_t len : {16u, 20u, 24u, 28u, 32u}) {
    std::vector<unsigned char> entropy(len);
    for (std::size_t i = 0; i < len; ++i) entropy[i] = static_cast<unsigned char>(i * 37 + len);
    char out[kMaxPhraseLength];
    const std::size_t n = EntropyToPhrase(entropy.data(), len, out, sizeof out);
    ASSERT_GT(n, 0u);
    EXPECT_TRUE(IsValidPhrase(out, n));
    std::size_t words = 1;
    for (std::size_t i = 0; i < n; ++i) words += out[i] == ' ';
    EXPECT_EQ(words, len * 3 / 4) << "12, 15, 18, 21 or 24 words";
  }
}

TEST(Bip39, RefusesOtherEntropyLengthsAndSmallOutputs) {
  unsigned char entropy[33] = {};
  char out[kMaxPhraseLength];
  for (std::size_t len : {0u, 1u, 12u, 15u, 17u, 33u}) EXPECT_EQ(EntropyToPhrase(entropy, len, out, sizeof out), 0u);
  EXPECT_EQ(EntropyToPhrase(entropy, 16, out, kMaxPhraseLength - 1), 0u);
  EXPECT_EQ(EntropyToPhrase(nullptr, 16, out, sizeof out), 0u);
}

TEST(Bip39, LongestPhraseFitsTheMaximum) {
  // The longest words everywhere cannot exceed 24 * 8 + 23 characters.
  unsigned char entropy[32];
  for (auto& b : entropy) b = 0xFF;
  char out[kMaxPhraseLength];
  const std::size_t n = EntropyToPhrase(entropy, 32, out, sizeof out);
  EXPECT_GT(n, 0u);
  EXPECT_LE(n, kMaxPhraseLength);
}

TEST(Bip39, WrongChecksumIsInvalid) {
  EXPECT_FALSE(Valid("abandon abandon abandon abandon abandon abandon abandon abandon abandon abandon abandon abandon"));
  EXPECT_FALSE(Valid("legal winner thank year wave sausage worth useful legal winner thank year"));
  EXPECT_FALSE(Valid("zoo zoo zoo zoo zoo zoo zoo zoo zoo zoo zoo zoo zoo zoo zoo zoo zoo zoo zoo zoo zoo zoo zoo zoo"));
  // Every other last word of the all-zero entropy phrase: exactly 1 in 16 pass.
  int valid = 0;
  for (const auto& w : keystore::bip39::kEnglishWords) {
    valid += Valid("abandon abandon abandon abandon abandon abandon abandon abandon abandon abandon abandon " +
                   std::string(w));
  }
  EXPECT_EQ(valid, 2048 / 16);
}

TEST(Bip39, UnknownWordsAreInvalid) {
  EXPECT_FALSE(Valid("abandon abandon abandon abandon abandon abandon abandon abandon abandon abandon abandon abouts"));
  EXPECT_FALSE(Valid("abandon abandon abandon abandon abandon abandon abandon abandon abandon abandon abandon abut"));
  EXPECT_FALSE(Valid("abandonn abandon abandon abandon abandon abandon abandon abandon abandon abandon abandon about"));
  EXPECT_FALSE(Valid("abandoned abandon abandon abandon abandon abandon abandon abandon abandon abandon abandon about"));
}

TEST(Bip39, WrongWordCountsAreInvalid) {
  std::string p;
  for (int n = 1; n <= 27; ++n) {
    p += n == 1 ? "abandon" : " abandon";
    const int total = n + 1;
    if (total % 3 == 0 && total >= 12 && total <= 24) continue;  // a count that exists
    EXPECT_FALSE(Valid(p + " about")) << total << " words";
  }
}

TEST(Bip39, OnlyTheCanonicalFormIsValid) {
  const std::string good =
      "abandon abandon abandon abandon abandon abandon abandon abandon abandon abandon abandon about";
  ASSERT_TRUE(Valid(good));
  EXPECT_FALSE(Valid(" " + good));
  EXPECT_FALSE(Valid(good + " "));
  EXPECT_FALSE(Valid(good + "\n"));
  EXPECT_FALSE(Valid("abandon  abandon abandon abandon abandon abandon abandon abandon abandon abandon abandon about"));
  EXPECT_FALSE(Valid("Abandon abandon abandon abandon abandon abandon abandon abandon abandon abandon abandon about"));
  EXPECT_FALSE(Valid("abandon\tabandon abandon abandon abandon abandon abandon abandon abandon abandon abandon about"));
  EXPECT_FALSE(Valid(std::string("abandon abandon abandon abandon abandon abandon abandon abandon abandon abandon abandon ab\0ut", 94)));
  EXPECT_FALSE(Valid(""));
  EXPECT_FALSE(IsValidPhrase(nullptr, 5));
  EXPECT_FALSE(Valid(std::string(8000, 'a')));
}

}  // namespace
