#ifndef TESSERA_CONSOLE_APITEST_H
#define TESSERA_CONSOLE_APITEST_H

namespace test {

/* Runs one keystore API call chosen by `selection` (100 to 109) against the
 * current test data, prints what the keystore returned beside what is
 * expected, and reports whether the call succeeded.
 *
 * Returns: true when the selected call succeeded and its results were
 *          printed; false otherwise.
 * In:      selection: which call; values outside 100..109 give false.
 *
 * Not connected to the keystore yet: until the keystore client is linked in,
 * this returns false and does nothing else. */
[[nodiscard]] bool launchApiInterface(int selection);

}  // namespace test

#endif  // TESSERA_CONSOLE_APITEST_H
