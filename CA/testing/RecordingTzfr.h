/*
 * A recording stand-in for the CTzfrWsm serializer, for the unit test of the
 * keystore API's write discipline: it implements the same class (link it
 * instead of the real serializer), records every Put in order, and fails the
 * Puts that a test names. It stores nothing; reads always fail.
 */
#ifndef TESSERA_CLIENT_TESTING_RECORDINGTZFR_H
#define TESSERA_CLIENT_TESTING_RECORDINGTZFR_H

#include <cstddef>
#include <string>
#include <vector>

namespace recording_tzfr {

struct Put {
  std::string kind;  // "uint" or "blob"
  unsigned value;    // the value of a uint, the length of a blob
};

/* Forgets the recorded Puts and the scripted failures. */
void Reset();
/* Makes the Put with this 0-based index (counted since Reset) fail. */
void FailPut(std::size_t index);
/* Every Put since Reset, in order, failed ones included. */
const std::vector<Put>& Puts();

}  // namespace recording_tzfr

#endif  // TESSERA_CLIENT_TESTING_RECORDINGTZFR_H
