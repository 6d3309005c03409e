// The built-in test data and the indices that choose the current data set,
// account and PIN.
#ifndef TESSERA_CONSOLE_TESTDATA_H
#define TESSERA_CONSOLE_TESTDATA_H

#include "HDPath.h"

#include <cstdint>

namespace test {

/* The built-in test vectors and the three indices that choose the current
 * ones: data set (0..4), account (0..4) and test PIN (0..3).
 *
 * Every getter returns a value, or a pointer into constant tables that the
 * caller never frees. The getters do no bounds check of their own: the
 * setters keep the indices in range, silently ignoring a value that is not.
 * Per-account values come from row 5 * dataIndex + accountIndex: the key at
 * m/44'/60'/0'/0/accountIndex of the wallet whose seed is data set
 * dataIndex. The values themselves are in TestDataTables. */
class TestData {
 public:
  /* All three indices 0. */
  constexpr TestData() = default;

  /* Make `i` the current data set when i <= 4; otherwise change nothing. */
  void setDataIndex(unsigned int i);
  /* Make `i` the current account when i <= 4; otherwise change nothing. */
  void setAccountIndex(unsigned int i);
  /* Make `i` the current test PIN when i <= 3; otherwise change nothing. */
  void setPinIndex(unsigned int i);

  [[nodiscard]] unsigned int getDataIndex() const { return dataIndex; }
  [[nodiscard]] unsigned int getAccountIndex() const { return accountIndex; }
  [[nodiscard]] unsigned int getPinIndex() const { return pinIndex; }

  /* Returns: the path m/44'/60'/0'/0/accountIndex, i.e. the words 0x8000002C,
   *          0x8000003C, 0x80000000, 0, accountIndex. The data set does not
   *          enter the path. */
  [[nodiscard]] hd_path_param hd_path() const;

  /* Returns: the 16 seed bytes (BIP-39 entropy) of the current data set. */
  [[nodiscard]] const unsigned char* seed() const;
  /* Returns: the length of seed() in bytes (16). */
  [[nodiscard]] unsigned int seedSize() const;

  /* Returns: the 16 bytes of the seed the special transactions are signed
   *          with. */
  [[nodiscard]] const unsigned char* special_seed() const;
  /* Returns: 16. */
  [[nodiscard]] unsigned int special_seedSize() const;

  /* Returns: the NUL-terminated BIP-39 phrase of the current data set. */
  [[nodiscard]] const char* ex_mnemonic() const;
  /* Returns: the length of ex_mnemonic() without its terminator. */
  [[nodiscard]] unsigned int ex_mnemonicSize() const;

  /* Returns: the current test PIN, 6 NUL-terminated ASCII digits. */
  [[nodiscard]] const char* pin() const;
  /* Returns: the length of pin() without its terminator (6). */
  [[nodiscard]] unsigned int pinSize() const;

  /* Expected values of the current row:
   * ex_pkey    the 32-byte private key;
   * ex_address the 20-byte account address;
   * ex_sig_r, ex_sig_s the 32-byte big-endian r and s of the signature of the
   *            API test digest by that key, S in the lower half;
   * ex_sig_v   its recovery id, 0 or 1. */
  [[nodiscard]] const unsigned char* ex_pkey() const;
  [[nodiscard]] const unsigned char* ex_address() const;
  [[nodiscard]] const unsigned char* ex_sig_r() const;
  [[nodiscard]] const unsigned char* ex_sig_s() const;
  [[nodiscard]] unsigned char ex_sig_v() const;

  /* Returns: the 32 bytes of special transaction `i` when i <= 10, else null. */
  [[nodiscard]] const unsigned char* get_special_transaction(unsigned int i) const;

 private:
  [[nodiscard]] unsigned int row() const;

  uint32_t dataIndex = 0;
  uint32_t accountIndex = 0;
  uint32_t pinIndex = 0;
};

/* The one TestData of the process. Constant-initialised, so its indices are 0
 * before any code runs; the dispatcher moves them and the scenarios read
 * them. */
extern TestData testData;

/* Returns: the 32-byte digest that the API signing test signs (the data the
 *          expected signatures of TestData were made over). */
[[nodiscard]] const unsigned char* api_test_digest();

}  // namespace test

#endif  // TESSERA_CONSOLE_TESTDATA_H
