// The API test runner (menu option 100 to 109): one keystore call and its
// expected values.
#ifndef TESSERA_CONSOLE_APISCENARIO_H
#define TESSERA_CONSOLE_APISCENARIO_H

namespace test {

/* Runs one keystore API call chosen by `selection` against the current test
 * data (test::testData), times it, and prints on standard output what the
 * keystore returned beside what the data set expects.
 *
 * Every run first makes a credential with ss_init_credential; when that
 * fails it prints "ss_init_credential: FAIL" and returns false, whatever the
 * selection. Every call that takes a credential gets the selector bytes 1
 * and 84. The one keystore call, and nothing else, is timed with the
 * TimeTracker. The keystore's output buffers are wiped and freed before the
 * run returns, on every path.
 *
 *   100 poc_generate_seed          105 poc_getAddress
 *   101 none: always "Failed to delete seed", false
 *   102 poc_restore_seed           106 poc_getPrivateKey
 *   103 poc_getMnemonic            107 poc_save_pin
 *   104 poc_signTransaction of the 108 poc_check_pin
 *       API test digest, with the  109 poc_check_mnemonic (no credential)
 *       signer's recovered address
 *
 * Results are printed, not judged: the received and expected lines are for
 * the operator to compare, and 108/109 print the keystore's own verdict.
 *
 * Returns: true when the selected call succeeded (result 0 and, for data
 *          calls, a buffer; for 104-106 also a non-zero length) and its
 *          results were printed; false after the call's failure line, for
 *          101, or (silently) for a selection outside 100..109.
 * In:      selection: which call.
 * Throws:  std::bad_alloc when memory runs out; nothing else. */
[[nodiscard]] bool launchApiInterface(int selection);

}  // namespace test

#endif  // TESSERA_CONSOLE_APISCENARIO_H
