/* Support of the conformance suite; see support.h. */
#include "support.h"

#include <sys/stat.h>

#include <chrono>
#include <fstream>
#include <sstream>
#include <thread>

#include "teesim/paths.h"

namespace conformance {

std::string read_text(const std::string& path) {
  std::ifstream in(path);
  std::stringstream ss;
  ss << in.rdbuf();
  return ss.str();
}

bool eventually(const std::function<bool()>& cond, int ms) {
  auto end = std::chrono::steady_clock::now() + std::chrono::milliseconds(ms);
  for (;;) {
    if (cond()) return true;
    if (std::chrono::steady_clock::now() > end) return cond();
    std::this_thread::sleep_for(std::chrono::milliseconds(10));
  }
}

PrivateDaemon& shared_daemon() {
  static PrivateDaemon d; /* stopped and removed at exit */
  if (!d.Running() && !d.Start({"--log-level", "debug"})) {
    ADD_FAILURE() << "the shared daemon did not start: " << d.Error();
  }
  return d;
}

void WithDaemon::SetUp() { client_log_ = use_daemon(shared_daemon()); }

Client::Client() { init_ = TEEC_InitializeContext(nullptr, &ctx_); }

Client::~Client() {
  close();
  if (init_ == TEEC_SUCCESS) TEEC_FinalizeContext(&ctx_);
}

TEEC_Result Client::open(const TEEC_UUID& ta, uint32_t* origin, TEEC_Operation* op) {
  close();
  uint32_t o = 0;
  TEEC_Result r = TEEC_OpenSession(&ctx_, &session_, &ta, TEEC_LOGIN_PUBLIC, nullptr, op, &o);
  if (origin != nullptr) *origin = o;
  open_ = r == TEEC_SUCCESS;
  return r;
}

void Client::close() {
  if (open_) TEEC_CloseSession(&session_);
  open_ = false;
}

bool Client::info(uint32_t out[4]) {
  TEEC_Operation op{};
  op.paramTypes = TEEC_PARAM_TYPES(TEEC_VALUE_OUTPUT, TEEC_VALUE_OUTPUT, TEEC_NONE, TEEC_NONE);
  uint32_t origin;
  if (TEEC_InvokeCommand(&session_, TEST_CMD_INFO, &op, &origin) != TEEC_SUCCESS) return false;
  out[0] = op.params[0].value.a;
  out[1] = op.params[0].value.b;
  out[2] = op.params[1].value.a;
  out[3] = op.params[1].value.b;
  return true;
}

std::string recording_emulator(const std::string& dir, const std::string& record) {
  std::string script = dir + "/recording-emulator";
  {
    std::ofstream out(script);
    out << "#!/bin/sh\necho \"$*\" >> '" << record << "'\nexec \"$@\"\n";
  }
  ::chmod(script.c_str(), 0700);
  std::string command = script;
  for (const std::string& word : teesim::paths::emulator()) command += " " + word;
  return command;
}

}  // namespace conformance
