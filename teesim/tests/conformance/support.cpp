#include "support.h"

#include <fcntl.h>
#include <signal.h>
#include <stdlib.h>
#include <sys/prctl.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <memory>
#include <fstream>
#include <sstream>
#include <thread>

#include "teesim/paths.h"

namespace conformance {

namespace fs = std::filesystem;

std::string result_name(uint32_t r) {
  switch (r) {
    case TEEC_SUCCESS: return "TEEC_SUCCESS";
    case TEEC_ERROR_GENERIC: return "TEEC_ERROR_GENERIC";
    case TEEC_ERROR_ACCESS_DENIED: return "TEEC_ERROR_ACCESS_DENIED";
    case TEEC_ERROR_CANCEL: return "TEEC_ERROR_CANCEL";
    case TEEC_ERROR_ACCESS_CONFLICT: return "TEEC_ERROR_ACCESS_CONFLICT";
    case TEEC_ERROR_EXCESS_DATA: return "TEEC_ERROR_EXCESS_DATA";
    case TEEC_ERROR_BAD_FORMAT: return "TEEC_ERROR_BAD_FORMAT";
    case TEEC_ERROR_BAD_PARAMETERS: return "TEEC_ERROR_BAD_PARAMETERS";
    case TEEC_ERROR_BAD_STATE: return "TEEC_ERROR_BAD_STATE";
    case TEEC_ERROR_ITEM_NOT_FOUND: return "TEEC_ERROR_ITEM_NOT_FOUND";
    case TEEC_ERROR_NOT_IMPLEMENTED: return "TEEC_ERROR_NOT_IMPLEMENTED";
    case TEEC_ERROR_NOT_SUPPORTED: return "TEEC_ERROR_NOT_SUPPORTED";
    case TEEC_ERROR_NO_DATA: return "TEEC_ERROR_NO_DATA";
    case TEEC_ERROR_OUT_OF_MEMORY: return "TEEC_ERROR_OUT_OF_MEMORY";
    case TEEC_ERROR_BUSY: return "TEEC_ERROR_BUSY";
    case TEEC_ERROR_COMMUNICATION: return "TEEC_ERROR_COMMUNICATION";
    case TEEC_ERROR_SECURITY: return "TEEC_ERROR_SECURITY";
    case TEEC_ERROR_SHORT_BUFFER: return "TEEC_ERROR_SHORT_BUFFER";
    case TEEC_ERROR_TARGET_DEAD: return "TEEC_ERROR_TARGET_DEAD";
    case 0xF0100001u: return "TEE_ERROR_CORRUPT_OBJECT";
    case 0xF0100003u: return "TEE_ERROR_STORAGE_NOT_AVAILABLE";
    default: {
      char buf[16];
      std::snprintf(buf, sizeof buf, "0x%08x", r);
      return buf;
    }
  }
}

std::string origin_name(uint32_t o) {
  switch (o) {
    case TEEC_ORIGIN_API: return "TEEC_ORIGIN_API";
    case TEEC_ORIGIN_COMMS: return "TEEC_ORIGIN_COMMS";
    case TEEC_ORIGIN_TEE: return "TEEC_ORIGIN_TEE";
    case TEEC_ORIGIN_TRUSTED_APP: return "TEEC_ORIGIN_TRUSTED_APP";
    default: return "origin " + std::to_string(o);
  }
}

std::string outcome(uint32_t result, uint32_t origin) {
  return result_name(result) + " from " + origin_name(origin);
}

std::string daemon_executable() { return TEESIM_DAEMON_PATH; }

std::vector<std::string> daemon_command() {
  std::vector<std::string> words = teesim::paths::emulator();
  words.push_back(daemon_executable());
  return words;
}
std::string built_ta_dir() { return TEESIM_BUILT_TA_DIR; }

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

TestDaemon::TestDaemon() : owner_(::getpid()) {
  char tmpl[] = "/tmp/teesim-conf-XXXXXX";
  dir_ = ::mkdtemp(tmpl);
  socket_ = dir_ + "/run/teesim.sock";
  ta_dir_ = dir_ + "/ta";
  storage_dir_ = dir_ + "/storage";
  log_ = dir_ + "/teesim.log";
  fs::create_directories(dir_ + "/run");
  fs::create_directories(ta_dir_);
  for (const auto& e : fs::directory_iterator(built_ta_dir())) {
    std::string name = e.path().filename();
    if (name.rfind("7e57a000-", 0) == 0) fs::copy_file(e.path(), ta_dir_ + "/" + name);
  }
}

TestDaemon::~TestDaemon() {
  /* A forked child that exits normally must not tear down its parent's daemon. */
  if (::getpid() != owner_) return;
  if (running()) stop();
  std::error_code ec;
  fs::remove_all(dir_, ec);
}

std::vector<std::string> TestDaemon::folder_args() const {
  return {"--socket", socket_, "--ta-dir", ta_dir_, "--storage-dir", storage_dir_};
}

static bool socket_answers(const std::string& path) {
  int fd = ::socket(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0);
  sockaddr_un addr{};
  addr.sun_family = AF_UNIX;
  std::snprintf(addr.sun_path, sizeof addr.sun_path, "%s", path.c_str());
  bool ok = ::connect(fd, reinterpret_cast<sockaddr*>(&addr), sizeof addr) == 0;
  ::close(fd);
  return ok;
}

bool TestDaemon::start(const std::vector<std::string>& extra) {
  std::vector<std::string> args = daemon_command();
  args.insert(args.end(), {"--foreground", "--log-level", "debug", "--log-file", log_});
  for (const std::string& a : folder_args()) args.push_back(a);
  for (const std::string& a : extra) args.push_back(a);
  pid_t pid = ::fork();
  if (pid == 0) {
    std::vector<char*> argv;
    for (std::string& a : args) argv.push_back(a.data());
    argv.push_back(nullptr);
    int err = ::open(log_.c_str(), O_WRONLY | O_APPEND | O_CREAT, 0600);
    if (err >= 0) ::dup2(err, 2);
    /* A test process that is killed must not leave its daemon behind. */
    ::prctl(PR_SET_PDEATHSIG, SIGTERM);
    ::execvp(argv[0], argv.data());
    ::_exit(127);
  }
  pid_ = pid;
  bool up = eventually([&] {
    int status;
    if (::waitpid(pid_, &status, WNOHANG) == pid_) {
      pid_ = -1;
      return true;
    }
    return socket_answers(socket_);
  }, 10000);
  if (!up || pid_ < 0) {
    if (pid_ > 0) kill9();
    pid_ = -1;
    return false;
  }
  return true;
}

int TestDaemon::stop() {
  if (pid_ <= 0) return -1;
  ::kill(pid_, SIGTERM);
  int status = 0;
  ::waitpid(pid_, &status, 0);
  pid_ = -1;
  return WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
}

void TestDaemon::kill9() {
  if (pid_ <= 0) return;
  ::kill(pid_, SIGKILL);
  ::waitpid(pid_, nullptr, 0);
  pid_ = -1;
}

int TestDaemon::run_command(const std::vector<std::string>& args, std::string* err) const {
  std::string errfile = dir_ + "/command.err";
  std::vector<std::string> full = daemon_command();
  full.insert(full.end(), args.begin(), args.end());
  pid_t pid = ::fork();
  if (pid == 0) {
    std::vector<char*> argv;
    for (std::string& a : full) argv.push_back(a.data());
    argv.push_back(nullptr);
    int fd = ::open(errfile.c_str(), O_WRONLY | O_TRUNC | O_CREAT, 0600);
    ::dup2(fd, 2);
    ::dup2(fd, 1);
    ::execvp(argv[0], argv.data());
    ::_exit(127);
  }
  int status = 0;
  ::waitpid(pid, &status, 0);
  if (err != nullptr) *err = read_text(errfile);
  return WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
}

std::string TestDaemon::log_text() const { return read_text(log_); }

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

std::string use_daemon(const TestDaemon& d) {
  ::setenv("TEESIM_SOCKET", d.socket().c_str(), 1);
  ::setenv("TEESIM_DAEMON", "", 1);
  std::string dlog = d.dir() + "/client.log";
  ::setenv("DLOG_FILE", dlog.c_str(), 1);
  return dlog;
}

TestDaemon& shared_daemon() {
  static std::unique_ptr<TestDaemon> d = [] {
    auto t = std::make_unique<TestDaemon>(); /* stopped at exit */
    if (!t->start()) {
      ADD_FAILURE() << "the shared daemon did not start:\n" << t->log_text();
    }
    return t;
  }();
  if (!d->running() && !d->start()) {
    ADD_FAILURE() << "the shared daemon did not restart";
  }
  return *d;
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

}  // namespace conformance
