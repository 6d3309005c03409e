/*
 * client::TEEClient: the console's one connection to the keystore TA.
 *
 * It holds the three GlobalPlatform TEE Client API resources that a
 * conversation with the TA needs — a context, a session and one 8192-byte
 * block of shared memory — and runs TA commands on that memory: the caller
 * writes a request into the shared buffer (getSHMPtr()), calls
 * InvokeCommand(cmd), and finds the TA's answer in the same buffer.
 *
 * Resources are acquired lazily and resumably: Open() makes whichever of the
 * three is still missing, in the order context, session, memory, and stops at
 * the first failure without undoing what succeeded, so the next Open()
 * resumes there. Each resource's flag is true exactly while it is held. They
 * are released only by Close(), which the destructor runs at program exit.
 * A failing command never closes or reopens anything (not even after a
 * communication error; whoever reads the log decides about a restart).
 *
 * Every failure is written to the platform log (tag "TESSERA", see
 * TesseraLog.h) with the TEE result and, where there is one, its origin.
 * The outcome of the last TEE Client API call and the number of commands
 * run are also kept, for a caller that reports failures by name
 * (lastOutcome(), invokeCount()).
 *
 * Threads: getInstance() is safe to race, and RequestCancellation() may be
 * called from any thread while a command runs; nothing else locks. Use the
 * connection from one thread at a time.
 */
#ifndef TESSERA_CLIENT_TEECLIENT_H
#define TESSERA_CLIENT_TEECLIENT_H

#include <cstddef>
#include <cstdint>
#include <mutex>

#include "tee_client_api.h"

namespace client {

/* The keystore TA: 58d50001-1105-000b-af0c-c12fb6edecca. */
extern const TEEC_UUID kKeystoreTaUuid;

class TEEClient {
 public:
  /* Fixed settings of the connection. */
  static constexpr std::size_t kSharedMemorySize = 8192;
  static constexpr uint32_t kSharedMemoryFlags = TEEC_MEM_INPUT | TEEC_MEM_OUTPUT;  // 3
  /* Parameter 0 a partial in/out reference to the shared memory, 1-3 none. */
  static constexpr uint32_t kParamTypes =
      TEEC_PARAM_TYPES(TEEC_MEMREF_PARTIAL_INOUT, TEEC_NONE, TEEC_NONE, TEEC_NONE);  // 0xF

  /* Returns the process's one connection, created on first use and
   * destroyed (closing it) at program exit. */
  static TEEClient& getInstance();

  /* Makes an instance that holds nothing. The keystore functions use
   * getInstance(); separate instances are for tests and tools. */
  TEEClient();
  /* Runs Close(). */
  ~TEEClient();
  TEEClient(const TEEClient&) = delete;
  TEEClient& operator=(const TEEClient&) = delete;

  /* Makes the connection usable: OpenContext(), OpenSession(),
   * AllocateMemory(), stopping at the first that fails.
   * Returns true when all three resources are held; then it also logs
   * "TEE connection has been set" (information), on every call, unless
   * setOpenNotice(false) turned that line off. On false the failing step
   * has logged why; resources already held are kept. */
  [[nodiscard]] bool Open();

  /* Turns the information line of a successful Open() on (the default) or
   * off. The keystore functions open the connection on every call, so a
   * tool that makes thousands of calls turns it off to keep the platform
   * log readable (and each call free of a log write); failures are logged
   * either way. */
  void setOpenNotice(bool on);

  /* Releases the shared memory, closes the session and finalises the
   * context, each only if held. Safe to call any number of times. */
  void Close();

  /* Each step returns true at once when its resource is already held;
   * otherwise it calls the TEE Client API and returns true on TEEC_SUCCESS,
   * or logs the result (and for the session the origin) and returns false.
   * OpenContext: the default TEE (no name).
   * OpenSession: the keystore TA, TEEC_LOGIN_PUBLIC, no connection data,
   *   no operation.
   * AllocateMemory: sets the descriptor's size to 8192 and flags to 3. */
  [[nodiscard]] bool OpenContext();
  [[nodiscard]] bool OpenSession();
  [[nodiscard]] bool AllocateMemory();

  /* Release one resource if held, then clear its flag. */
  void CloseContext();
  void CloseSession();
  void FreeMemory();

  /* Returns the shared-memory descriptor itself (not its buffer); the same
   * pointer on every call, owned by this object. Its `buffer` is valid only
   * while the memory is allocated. */
  TEEC_SharedMemory* getSHMPtr();

  /* Runs TA command `cmd` with parameter 0 referring to the whole shared
   * memory (offset 0, size 8192) and parameters 1-3 unused.
   * Returns true when the TEE reported success (the answer is then in the
   * shared memory). On false the result and origin have been logged; for
   * TEEC_ERROR_GENERIC from TEEC_ORIGIN_COMMS a second line says that the
   * session should be restarted. The session stays as it is. */
  [[nodiscard]] bool InvokeCommand(unsigned int cmd);

  /* What the TEE Client API reported for one call. */
  struct Outcome {
    TEEC_Result result;
    uint32_t origin;
  };

  /* Returns the result and origin of the most recent TEE Client API call
   * this object made: TEEC_InitializeContext, TEEC_OpenSession,
   * TEEC_AllocateSharedMemory or TEEC_InvokeCommand, successful or not.
   * The first and the third report no origin of their own; for them the
   * origin is TEEC_ORIGIN_API (the client library answered). Before the
   * first call: {TEEC_SUCCESS, 0}. Steps that find their resource already
   * held make no call and leave it as it was. */
  [[nodiscard]] Outcome lastOutcome() const;

  /* Returns how many times this object has called TEEC_InvokeCommand,
   * whatever the result. */
  [[nodiscard]] unsigned long invokeCount() const;

  /* Asks the TEE to cancel the command that InvokeCommand is running now
   * (TEEC_RequestCancellation on its operation); does nothing when no
   * command runs. Meant for a watchdog on another thread. Whether and when
   * the command ends early is up to the TEE and the TA; InvokeCommand then
   * returns false with what the TEE answered (typically TEEC_ERROR_CANCEL),
   * which lastOutcome() tells. */
  void RequestCancellation();

 private:
  TEEC_Context context_;
  TEEC_Session session_;
  TEEC_SharedMemory sharedMemory_;
  bool contextOpen_;
  bool sessionOpen_;
  bool memoryAllocated_;
  bool openNotice_;
  Outcome last_;
  unsigned long invokes_;
  // The operation of the command in flight, for RequestCancellation(); the
  // mutex guards only this pointer.
  std::mutex inFlightMutex_;
  TEEC_Operation* inFlight_;
};

}  // namespace client

#endif  // TESSERA_CLIENT_TEECLIENT_H
