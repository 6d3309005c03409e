#ifndef TESSERA_CONSOLE_SPECIALTRANSACTIONTEST_H
#define TESSERA_CONSOLE_SPECIALTRANSACTIONTEST_H

namespace test {

/* Restores the special seed in the keystore and signs every special
 * transaction with its account 0, printing each signature.
 *
 * Returns: true when every step succeeded, false at the first failure.
 * In:      option: accepted and ignored; every call runs the same sequence.
 *
 * Not connected to the keystore yet: until the keystore client is linked in,
 * this returns false and does nothing else. */
[[nodiscard]] bool specialTransactionTest(int option);

}  // namespace test

#endif  // TESSERA_CONSOLE_SPECIALTRANSACTIONTEST_H
