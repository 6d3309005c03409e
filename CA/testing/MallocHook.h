/*
 * A link-time seam on malloc for unit tests: a test program linked with
 * -Wl,--wrap=malloc sends every malloc call of its own object files (not of
 * shared libraries) through here, so a test can make one allocation fail and
 * see which sizes the code under test asked for.
 */
#ifndef TESSERA_CLIENT_TESTING_MALLOCHOOK_H
#define TESSERA_CLIENT_TESTING_MALLOCHOOK_H

#include <cstddef>
#include <vector>

namespace malloc_hook {

/* Makes the next malloc of exactly `size` bytes return null (once). */
void FailNextOfSize(std::size_t size);
/* Cancels a pending failure. */
void Disarm();
/* Starts recording the sizes of malloc calls (at most 64 are kept). */
void StartRecording();
/* Stops recording and returns the sizes asked for since StartRecording(). */
std::vector<std::size_t> StopRecording();

}  // namespace malloc_hook

#endif  // TESSERA_CLIENT_TESTING_MALLOCHOOK_H
