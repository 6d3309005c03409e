// The TEE connection: context, session and shared memory, opened once and
// released at exit.
#include "TEEClient.h"

#include "TesseraLog.h"
#include "keystore_ta.h"

namespace client {

const TEEC_UUID kKeystoreTaUuid = KEYSTORE_TA_UUID;

TEEClient& TEEClient::getInstance() {
  static TEEClient instance;
  return instance;
}

// The TEE structures start zeroed so that nothing reads an indeterminate
// value before the library has filled them (a serializer built on the
// descriptor before Open() sees a null buffer and refuses to work).
TEEClient::TEEClient()
    : context_{},
      session_{},
      sharedMemory_{},
      contextOpen_(false),
      sessionOpen_(false),
      memoryAllocated_(false),
      openNotice_(true),
      last_{TEEC_SUCCESS, 0},
      invokes_(0),
      inFlight_(nullptr) {}

TEEClient::~TEEClient() { Close(); }

bool TEEClient::Open() {
  if (!OpenContext() || !OpenSession() || !AllocateMemory()) return false;
  if (openNotice_) TESSERA_LOG(DLOG_INFO, "TEE connection has been set");
  return true;
}

void TEEClient::setOpenNotice(bool on) { openNotice_ = on; }

void TEEClient::Close() {
  FreeMemory();
  CloseSession();
  CloseContext();
}

bool TEEClient::OpenContext() {
  if (contextOpen_) return true;
  const TEEC_Result result = TEEC_InitializeContext(nullptr, &context_);
  last_ = {result, TEEC_ORIGIN_API};
  if (result != TEEC_SUCCESS) {
    TESSERA_LOG(DLOG_ERROR, "Failed to initialize TEE context, result = " << result);
    return false;
  }
  contextOpen_ = true;
  return true;
}

bool TEEClient::OpenSession() {
  if (sessionOpen_) return true;
  uint32_t origin = 0;
  const TEEC_Result result = TEEC_OpenSession(&context_, &session_, &kKeystoreTaUuid,
                                              TEEC_LOGIN_PUBLIC, nullptr, nullptr, &origin);
  last_ = {result, origin};
  if (result != TEEC_SUCCESS) {
    TESSERA_LOG(DLOG_ERROR, "Failed to open TEE session, result = " << result
                                << ", retOrigin = " << origin);
    return false;
  }
  sessionOpen_ = true;
  return true;
}

bool TEEClient::AllocateMemory() {
  if (memoryAllocated_) return true;
  sharedMemory_.size = kSharedMemorySize;
  sharedMemory_.flags = kSharedMemoryFlags;
  const TEEC_Result result = TEEC_AllocateSharedMemory(&context_, &sharedMemory_);
  last_ = {result, TEEC_ORIGIN_API};
  if (result != TEEC_SUCCESS) {
    TESSERA_LOG(DLOG_ERROR, "Failed to allocate shared memory, result = " << result);
    return false;
  }
  memoryAllocated_ = true;
  return true;
}

void TEEClient::CloseContext() {
  if (!contextOpen_) return;
  TEEC_FinalizeContext(&context_);
  contextOpen_ = false;
}

void TEEClient::CloseSession() {
  if (!sessionOpen_) return;
  TEEC_CloseSession(&session_);
  sessionOpen_ = false;
}

void TEEClient::FreeMemory() {
  if (!memoryAllocated_) return;
  TEEC_ReleaseSharedMemory(&sharedMemory_);
  memoryAllocated_ = false;
}

TEEC_SharedMemory* TEEClient::getSHMPtr() { return &sharedMemory_; }

bool TEEClient::InvokeCommand(unsigned int cmd) {
  TEEC_Operation operation{};
  operation.paramTypes = kParamTypes;
  operation.params[0].memref.parent = &sharedMemory_;
  operation.params[0].memref.size = sharedMemory_.size;
  operation.params[0].memref.offset = 0;
  uint32_t origin = 0;

  {
    std::lock_guard<std::mutex> lock(inFlightMutex_);
    inFlight_ = &operation;
  }
  const TEEC_Result result = TEEC_InvokeCommand(&session_, cmd, &operation, &origin);
  {
    std::lock_guard<std::mutex> lock(inFlightMutex_);
    inFlight_ = nullptr;
  }
  ++invokes_;
  last_ = {result, origin};
  if (result == TEEC_SUCCESS) return true;

  TESSERA_LOG(DLOG_ERROR, "TEEC_InvokeCommand() failed for cmd " << cmd << ", result = " << result
                              << ", retOrigin = " << origin);
  if (result == TEEC_ERROR_GENERIC && origin == TEEC_ORIGIN_COMMS) {
    TESSERA_LOG(DLOG_ERROR, "TZ reported recoverable error, session should be restarted");
  }
  return false;
}

TEEClient::Outcome TEEClient::lastOutcome() const { return last_; }

unsigned long TEEClient::invokeCount() const { return invokes_; }

void TEEClient::RequestCancellation() {
  // Under the lock the operation cannot go out of scope: InvokeCommand
  // clears the pointer under the same lock before it returns.
  std::lock_guard<std::mutex> lock(inFlightMutex_);
  if (inFlight_ != nullptr) TEEC_RequestCancellation(inFlight_);
}

}  // namespace client
