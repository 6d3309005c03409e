// The special transaction test: the special seed and its eleven transactions.
#ifndef TESSERA_CONSOLE_SPECIALTRANSACTIONSCENARIO_H
#define TESSERA_CONSOLE_SPECIALTRANSACTIONSCENARIO_H

namespace test {

/* Restores the special seed in the keystore (replacing the seed it held, for
 * good), prints the private key of its account 0 (m/44'/60'/0'/0/0), then
 * signs the eleven special transactions with that key in order and prints
 * each signature's r, s and v. Nothing is compared: the special transactions
 * have no expected values.
 *
 * Like launchApiInterface it makes a credential first ("ss_init_credential:
 * FAIL" and false when that fails), passes the selector bytes 1 and 84, and
 * times each keystore call. The account index of test::testData is 0 while
 * the run lasts and is put back on every path; the data set and PIN indices
 * are not touched.
 *
 * Returns: true when every step succeeded; false at the first failing call,
 *          after its failure line ("Failed to restore seed", "Failed to get
 *          private key" or "Failed to sign transaction"); the transactions
 *          after a failing one are not signed.
 * In:      option: accepted and ignored; every call runs the same sequence.
 * Throws:  std::bad_alloc when memory runs out; nothing else. */
[[nodiscard]] bool specialTransactionTest(int option);

}  // namespace test

#endif  // TESSERA_CONSOLE_SPECIALTRANSACTIONSCENARIO_H
