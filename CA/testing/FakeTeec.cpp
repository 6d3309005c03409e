// A scriptable GP TEE Client API for unit tests of the keystore client.
#include "FakeTeec.h"

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <deque>
#include <map>
#include <set>
#include <utility>

namespace fake_teec {
namespace {

struct Failure {
  Fn fn;
  TEEC_Result result;
  uint32_t origin;
};

struct State {
  std::vector<Call> calls;
  std::deque<Failure> failures;
  std::vector<std::string> misuse;
  Handler handler;
  std::set<const TEEC_Context*> contexts;
  std::map<const TEEC_Session*, const TEEC_Context*> sessions;
  std::map<const TEEC_SharedMemory*, const TEEC_Context*> memory;
  const TEEC_Operation* running = nullptr;  // while the handler answers it
};

// Never destroyed: the client's singleton may release its resources from a
// static destructor after this file's statics would be gone.
State& S() {
  static State* state = new State;
  return *state;
}

// Contexts, sessions and shared memory are known by their addresses alone:
// the structures' implementation-defined members differ from one GP Client
// library's header to another's, and the double compiles against any.

bool TakeFailure(Fn fn, TEEC_Result* result, uint32_t* origin) {
  for (auto it = S().failures.begin(); it != S().failures.end(); ++it) {
    if (it->fn == fn) {
      *result = it->result;
      if (origin != nullptr) *origin = it->origin;
      S().failures.erase(it);
      return true;
    }
  }
  return false;
}

void Misused(Fn fn, const std::string& what) {
  S().misuse.push_back(std::string(Name(fn)) + ": " + what);
}

void SetOrigin(uint32_t* origin, uint32_t value) {
  if (origin != nullptr) *origin = value;
}

}  // namespace

const char* Name(Fn fn) {
  switch (fn) {
    case Fn::kInitializeContext: return "InitializeContext";
    case Fn::kFinalizeContext: return "FinalizeContext";
    case Fn::kOpenSession: return "OpenSession";
    case Fn::kCloseSession: return "CloseSession";
    case Fn::kAllocateSharedMemory: return "AllocateSharedMemory";
    case Fn::kRegisterSharedMemory: return "RegisterSharedMemory";
    case Fn::kReleaseSharedMemory: return "ReleaseSharedMemory";
    case Fn::kInvokeCommand: return "InvokeCommand";
    case Fn::kRequestCancellation: return "RequestCancellation";
  }
  return "?";
}

void Reset() {
  State& s = S();
  for (auto& m : s.memory) {
    auto* shm = const_cast<TEEC_SharedMemory*>(m.first);
    std::free(shm->buffer);
    shm->buffer = nullptr;
  }
  s = State{};
}

void FailNext(Fn fn, TEEC_Result result, uint32_t origin) {
  S().failures.push_back({fn, result, origin});
}

void SetHandler(Handler handler) { S().handler = std::move(handler); }

const std::vector<Call>& Calls() { return S().calls; }

std::vector<std::string> CallNames() {
  std::vector<std::string> names;
  for (const Call& c : S().calls) names.emplace_back(Name(c.fn));
  return names;
}

std::size_t CountOf(Fn fn) {
  std::size_t n = 0;
  for (const Call& c : S().calls) n += c.fn == fn;
  return n;
}

const Call& LastInvoke() {
  for (auto it = S().calls.rbegin(); it != S().calls.rend(); ++it) {
    if (it->fn == Fn::kInvokeCommand) return *it;
  }
  std::fprintf(stderr, "fake_teec::LastInvoke: no command was invoked\n");
  std::abort();
}

const std::vector<std::string>& Misuse() { return S().misuse; }

}  // namespace fake_teec

using fake_teec::Call;
using fake_teec::Fn;
using fake_teec::S;

extern "C" {

TEEC_Result TEEC_InitializeContext(const char* name, TEEC_Context* context) {
  Call call{Fn::kInitializeContext};
  call.name_given = name != nullptr;
  S().calls.push_back(call);
  TEEC_Result result = TEEC_SUCCESS;
  if (fake_teec::TakeFailure(Fn::kInitializeContext, &result, nullptr)) return result;
  if (context == nullptr) {
    fake_teec::Misused(Fn::kInitializeContext, "null context");
    return TEEC_ERROR_BAD_PARAMETERS;
  }
  if (S().contexts.count(context) != 0) {
    fake_teec::Misused(Fn::kInitializeContext, "context initialised twice");
  }
  S().contexts.insert(context);
  return TEEC_SUCCESS;
}

void TEEC_FinalizeContext(TEEC_Context* context) {
  S().calls.push_back(Call{Fn::kFinalizeContext});
  if (context == nullptr) return;
  if (S().contexts.erase(context) == 0) {
    fake_teec::Misused(Fn::kFinalizeContext, "context not initialised");
    return;
  }
  for (const auto& s : S().sessions) {
    if (s.second == context) fake_teec::Misused(Fn::kFinalizeContext, "a session is still open");
  }
  for (const auto& m : S().memory) {
    if (m.second == context) fake_teec::Misused(Fn::kFinalizeContext, "memory is still allocated");
  }
}

TEEC_Result TEEC_OpenSession(TEEC_Context* context, TEEC_Session* session,
                             const TEEC_UUID* destination, uint32_t connectionMethod,
                             const void* connectionData, TEEC_Operation* operation,
                             uint32_t* returnOrigin) {
  Call call{Fn::kOpenSession};
  if (destination != nullptr) call.uuid = *destination;
  call.login = connectionMethod;
  call.connection_data_given = connectionData != nullptr;
  call.operation_given = operation != nullptr;
  S().calls.push_back(call);
  TEEC_Result result = TEEC_SUCCESS;
  if (fake_teec::TakeFailure(Fn::kOpenSession, &result, returnOrigin)) return result;
  if (context == nullptr || S().contexts.count(context) == 0 || session == nullptr ||
      destination == nullptr) {
    fake_teec::Misused(Fn::kOpenSession, "bad context, session or destination");
    fake_teec::SetOrigin(returnOrigin, TEEC_ORIGIN_API);
    return TEEC_ERROR_BAD_PARAMETERS;
  }
  if (S().sessions.count(session) != 0) fake_teec::Misused(Fn::kOpenSession, "session opened twice");
  S().sessions[session] = context;
  fake_teec::SetOrigin(returnOrigin, TEEC_ORIGIN_TRUSTED_APP);
  return TEEC_SUCCESS;
}

void TEEC_CloseSession(TEEC_Session* session) {
  S().calls.push_back(Call{Fn::kCloseSession});
  if (session == nullptr) return;
  if (S().sessions.erase(session) == 0) {
    fake_teec::Misused(Fn::kCloseSession, "session not open");
    return;
  }
}

TEEC_Result TEEC_AllocateSharedMemory(TEEC_Context* context, TEEC_SharedMemory* sharedMem) {
  Call call{Fn::kAllocateSharedMemory};
  if (sharedMem != nullptr) {
    call.size = sharedMem->size;
    call.flags = sharedMem->flags;
  }
  S().calls.push_back(call);
  TEEC_Result result = TEEC_SUCCESS;
  if (fake_teec::TakeFailure(Fn::kAllocateSharedMemory, &result, nullptr)) return result;
  if (context == nullptr || S().contexts.count(context) == 0 || sharedMem == nullptr) {
    fake_teec::Misused(Fn::kAllocateSharedMemory, "bad context or descriptor");
    return TEEC_ERROR_BAD_PARAMETERS;
  }
  if (S().memory.count(sharedMem) != 0) {
    fake_teec::Misused(Fn::kAllocateSharedMemory, "descriptor allocated twice");
    return TEEC_ERROR_BAD_PARAMETERS;
  }
  if (sharedMem->flags == 0 || (sharedMem->flags & ~(TEEC_MEM_INPUT | TEEC_MEM_OUTPUT)) != 0 ||
      sharedMem->size > TEEC_CONFIG_SHAREDMEM_MAX_SIZE) {
    fake_teec::Misused(Fn::kAllocateSharedMemory, "bad flags or size");
    return TEEC_ERROR_BAD_PARAMETERS;
  }
  // Filled with a pattern so that a test notices reads of bytes nobody wrote.
  sharedMem->buffer = std::malloc(sharedMem->size == 0 ? 1 : sharedMem->size);
  if (sharedMem->buffer == nullptr) return TEEC_ERROR_OUT_OF_MEMORY;
  std::memset(sharedMem->buffer, 0xCD, sharedMem->size);
  S().memory[sharedMem] = context;
  return TEEC_SUCCESS;
}

TEEC_Result TEEC_RegisterSharedMemory(TEEC_Context*, TEEC_SharedMemory*) {
  S().calls.push_back(Call{Fn::kRegisterSharedMemory});
  fake_teec::Misused(Fn::kRegisterSharedMemory, "the keystore client never registers memory");
  return TEEC_ERROR_NOT_IMPLEMENTED;
}

void TEEC_ReleaseSharedMemory(TEEC_SharedMemory* sharedMem) {
  S().calls.push_back(Call{Fn::kReleaseSharedMemory});
  if (sharedMem == nullptr) return;
  if (S().memory.erase(sharedMem) == 0) {
    fake_teec::Misused(Fn::kReleaseSharedMemory, "memory not allocated");
    return;
  }
  std::free(sharedMem->buffer);
  sharedMem->buffer = nullptr;
}

TEEC_Result TEEC_InvokeCommand(TEEC_Session* session, uint32_t commandID,
                               TEEC_Operation* operation, uint32_t* returnOrigin) {
  Call call{Fn::kInvokeCommand};
  call.command = commandID;
  if (operation != nullptr) call.operation = *operation;
  TEEC_SharedMemory* shm = nullptr;
  if (operation != nullptr &&
      TEEC_PARAM_TYPE_GET(operation->paramTypes, 0) == TEEC_MEMREF_PARTIAL_INOUT) {
    shm = operation->params[0].memref.parent;
    if (S().memory.count(shm) == 0) {
      shm = nullptr;
    } else {
      const auto* bytes = static_cast<const unsigned char*>(shm->buffer);
      call.request.assign(bytes, bytes + shm->size);
    }
  }
  S().calls.push_back(call);

  TEEC_Result result = TEEC_SUCCESS;
  if (fake_teec::TakeFailure(Fn::kInvokeCommand, &result, returnOrigin)) return result;
  if (session == nullptr || S().sessions.count(session) == 0) {
    fake_teec::Misused(Fn::kInvokeCommand, "session not open");
    fake_teec::SetOrigin(returnOrigin, TEEC_ORIGIN_API);
    return TEEC_ERROR_BAD_PARAMETERS;
  }
  if (operation == nullptr || shm == nullptr) {
    fake_teec::Misused(Fn::kInvokeCommand, "parameter 0 is no partial in/out reference to allocated memory");
    fake_teec::SetOrigin(returnOrigin, TEEC_ORIGIN_API);
    return TEEC_ERROR_BAD_PARAMETERS;
  }
  const TEEC_RegisteredMemoryReference& ref = operation->params[0].memref;
  if (ref.offset > shm->size || ref.size > shm->size - ref.offset) {
    fake_teec::Misused(Fn::kInvokeCommand, "reference passes the end of the memory");
    fake_teec::SetOrigin(returnOrigin, TEEC_ORIGIN_API);
    return TEEC_ERROR_BAD_PARAMETERS;
  }
  for (int i = 1; i < 4; ++i) {
    if (TEEC_PARAM_TYPE_GET(operation->paramTypes, i) != TEEC_NONE) {
      fake_teec::Misused(Fn::kInvokeCommand, "parameters 1 to 3 must be unused");
    }
  }
  if (!S().handler) {
    fake_teec::SetOrigin(returnOrigin, TEEC_ORIGIN_TRUSTED_APP);
    return TEEC_SUCCESS;
  }
  uint32_t origin = TEEC_ORIGIN_TRUSTED_APP;
  S().running = operation;
  result = S().handler(commandID, *shm, &origin);
  S().running = nullptr;
  fake_teec::SetOrigin(returnOrigin, origin);
  return result;
}

void TEEC_RequestCancellation(TEEC_Operation* operation) {
  Call call{Fn::kRequestCancellation};
  call.in_flight = operation != nullptr && operation == S().running;
  S().calls.push_back(call);
  if (!call.in_flight) {
    fake_teec::Misused(Fn::kRequestCancellation, "no command of this operation is running");
  }
}

}  // extern "C"
