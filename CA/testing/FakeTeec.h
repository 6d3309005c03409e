/*
 * A scriptable stand-in for the GP TEE Client API, for unit tests of the
 * keystore client. Linking it instead of libteec lets a test reach the paths
 * that a healthy TEE never takes: any call failing with any result and
 * origin, a TA that answers nothing, a zero length, a malformed answer.
 *
 * It keeps the state a real library would (contexts, sessions, shared
 * memory) and records every call in order. Use that is not allowed by the
 * API (a command on a session that is not open, memory released twice, a
 * wrong parameter type …) is recorded as misuse rather than crashing, so a
 * test can assert that the client under test never misuses the library.
 *
 * Commands are answered by a handler that plays the TA: it sees the command
 * number and the shared memory holding the request, may write an answer into
 * it, and returns the result (and origin) of the command.
 *
 * Not thread-safe; one test at a time.
 */
#ifndef TESSERA_CLIENT_TESTING_FAKETEEC_H
#define TESSERA_CLIENT_TESTING_FAKETEEC_H

#include <cstddef>
#include <cstdint>
#include <functional>
#include <string>
#include <vector>

#include "tee_client_api.h"

namespace fake_teec {

enum class Fn {
  kInitializeContext,
  kFinalizeContext,
  kOpenSession,
  kCloseSession,
  kAllocateSharedMemory,
  kRegisterSharedMemory,
  kReleaseSharedMemory,
  kInvokeCommand,
  kRequestCancellation,
};

/* The API function's name without its "TEEC_" prefix, e.g. "OpenSession". */
const char* Name(Fn fn);

/* One recorded call and what the client passed. */
struct Call {
  explicit Call(Fn f) : fn(f) {}
  Fn fn;
  // InitializeContext: whether a TEE name was given.
  bool name_given = false;
  // OpenSession: the destination, login method, connection data, operation.
  TEEC_UUID uuid{};
  uint32_t login = 0;
  bool connection_data_given = false;
  bool operation_given = false;
  // AllocateSharedMemory: the size and flags set before the call.
  std::size_t size = 0;
  uint32_t flags = 0;
  // InvokeCommand: the command, a copy of the operation as passed, and the
  // bytes of the referenced memory at the time of the call (the request).
  uint32_t command = 0;
  TEEC_Operation operation{};
  std::vector<unsigned char> request;
  // RequestCancellation: whether the operation was that of the command the
  // handler is answering at that moment (the only valid use).
  bool in_flight = false;
};

/* Plays the TA: gets the command and the shared memory (request inside),
 * writes the answer into it, returns the result and sets *origin. */
using Handler = std::function<TEEC_Result(uint32_t command, TEEC_SharedMemory& shm,
                                          uint32_t* origin)>;

/* Forgets calls, scripted failures, misuse and the handler, and drops every
 * context, session and memory block (their buffers are freed). */
void Reset();

/* Makes the next call of `fn` fail with `result`, reporting `origin` where
 * the function has one. Several failures of one function queue up.
 * For InvokeCommand this takes precedence over the handler. */
void FailNext(Fn fn, TEEC_Result result, uint32_t origin = TEEC_ORIGIN_API);

/* Installs the handler of InvokeCommand. Without one, every command
 * succeeds (origin TEEC_ORIGIN_TRUSTED_APP) and the memory is left as is. */
void SetHandler(Handler handler);

/* Every call since Reset(), in order. */
const std::vector<Call>& Calls();
/* The names of the calls since Reset(), in order. */
std::vector<std::string> CallNames();
/* How many times `fn` was called since Reset(). */
std::size_t CountOf(Fn fn);
/* The last InvokeCommand call; fails the test process if there was none. */
const Call& LastInvoke();

/* Descriptions of every misuse of the API seen since Reset(). */
const std::vector<std::string>& Misuse();

}  // namespace fake_teec

#endif  // TESSERA_CLIENT_TESTING_FAKETEEC_H
