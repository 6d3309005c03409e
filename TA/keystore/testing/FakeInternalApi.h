/*
 * An in-memory stand-in for the GP TEE Internal Core API functions the
 * keystore TA uses (persistent objects, random numbers, properties, trace),
 * for unit tests and fuzzing of the TA's logic without teesim. The end-to-end
 * tests run the real TA in the real daemon instead.
 *
 * Storage keeps whole objects in memory and can be told to fail or to "crash"
 * (throw) at a chosen call; random bytes come from a seeded generator; every
 * trace line is kept so tests can check that nothing secret was logged.
 *
 * Not thread-safe; one test at a time.
 */
#ifndef KEYSTORE_TESTING_FAKEINTERNALAPI_H
#define KEYSTORE_TESTING_FAKEINTERNALAPI_H

#include <cstddef>
#include <cstdint>
#include <map>
#include <string>
#include <vector>

#include "tee_internal_api.h"

namespace fake_tee {

enum class Op { kOpen, kRead, kCreate, kDelete };

/* Thrown by a storage call that was told to crash: it stands for the TA
 * process dying at that point (the call had its effect, or none, as given). */
struct Crash {};

/* Forgets objects, properties, scripted failures and traces; restarts the
 * random generator from `seed`. */
void Reset(uint64_t seed = 1);

/* Makes the next call of `op` fail with `result` (calls of one op queue). */
void FailNext(Op op, TEE_Result result);
/* Forgets scripted failures and crashes that have not happened yet. */
void ClearFailures();
/* Makes the n-th (1-based, counted from now) call of `op` take effect and
 * then throw Crash. */
void CrashAfter(Op op, int n);

/* The stored objects, by id. Tests may read and change them. */
std::map<std::string, std::vector<unsigned char>>& Objects();
/* How many times `op` was called since Reset(). */
int Count(Op op);

/* Sets (or with an empty optional value, removes) a TA property. */
void SetProperty(const std::string& name, const std::string& value);
void RemoveProperty(const std::string& name);

/* Every line given to TEE_Trace since Reset() or ClearTraces(). */
const std::vector<std::string>& Traces();
void ClearTraces();

}  // namespace fake_tee

#endif  // KEYSTORE_TESTING_FAKEINTERNALAPI_H
