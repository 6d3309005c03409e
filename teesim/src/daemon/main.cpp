/*
 * teesim: start-up of the daemon. Checks folders and files, takes the locks
 * that make one daemon per socket (the pid file) and per storage folder,
 * loads or makes the installation key (refusing to replace a lost one while
 * objects depend on it), binds the socket and hands over to the event loop.
 * A storage folder that cannot be written is served read-only. SIGHUP
 * reopens the log file.
 * In the background the command returns only once the socket accepts
 * clients, or with the reason it could not; in the foreground it tells a
 * service manager the same through sd_notify (Type=notify units).
 */
#include <dirent.h>
#include <fcntl.h>
#include <grp.h>
#include <limits.h>
#include <signal.h>
#include <stdlib.h>
#include <sys/prctl.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <time.h>
#include <systemd/sd-daemon.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <string>
#include <vector>

#include "common/fs.h"
#include "common/log.h"
#include "daemon/daemon.h"
#include "daemon/keys.h"
#include "daemon/options.h"
#include "daemon/pid_file.h"
#include "daemon/storage_folder.h"
#include "teesim/paths.h"
#include "teesim/unique_fd.h"
#include "teesim/uuid.h"

#ifndef TEESIM_VERSION
#define TEESIM_VERSION "0"
#endif

namespace teesim::daemon {
namespace {

/* A start-up failure: what to tell the user and how to exit. */
struct Failure {
  int code = kExitOk;
  std::string message;
  bool failed() const { return code != kExitOk; }
};

Failure fail(int code, std::string message) { return Failure{code, std::move(message)}; }

std::string errno_text(int e) { return std::strerror(e); }

Failure resolve_dir(const std::string& dir, const char* what, std::string* out) {
  char real[PATH_MAX];
  if (::realpath(dir.c_str(), real) == nullptr)
    return fail(kExitUsage, std::string(what) + " " + dir + ": " + errno_text(errno));
  struct stat st{};
  if (::stat(real, &st) != 0 || !S_ISDIR(st.st_mode))
    return fail(kExitUsage, std::string(what) + " " + dir + " is not a folder");
  if (::access(real, R_OK | X_OK) != 0)
    return fail(kExitUsage, std::string(what) + " " + dir + ": " + errno_text(errno));
  *out = real;
  return {};
}

/* The socket's folder must not let another user replace our socket. */
Failure check_socket_dir(const std::string& dir) {
  struct stat st{};
  if (::stat(dir.c_str(), &st) != 0)
    return fail(kExitUsage, "socket folder " + dir + ": " + errno_text(errno));
  if (!S_ISDIR(st.st_mode)) return fail(kExitUsage, "socket folder " + dir + " is not a folder");
  bool ours = st.st_uid == ::geteuid() || st.st_uid == 0;
  bool shared_writable = (st.st_mode & (S_IWGRP | S_IWOTH)) && !(st.st_mode & S_ISVTX);
  if (!ours || shared_writable)
    return fail(kExitUsage, "socket folder " + dir +
                                " may be changed by other users; choose a private folder");
  return {};
}

/* The group whose members may connect, by name. */
Failure resolve_group(const std::string& name, gid_t* out) {
  long n = ::sysconf(_SC_GETGR_R_SIZE_MAX);
  std::vector<char> buf(n > 0 ? static_cast<size_t>(n) : 16384);
  group gr{};
  group* found = nullptr;
  int e = ::getgrnam_r(name.c_str(), &gr, buf.data(), buf.size(), &found);
  if (e != 0) return fail(kExitUsage, "cannot look up the group " + name + ": " + errno_text(e));
  if (found == nullptr) return fail(kExitUsage, "--socket-group: no group named " + name);
  *out = found->gr_gid;
  return {};
}

/* Binds and listens. With a group, the socket file gets that group and mode
 * 0660 before listen(), so no client connects while it is still private. */
Failure bind_socket(const std::string& path, const std::string& group_name, gid_t group,
                    UniqueFd* out) {
  sockaddr_un addr{};
  addr.sun_family = AF_UNIX;
  if (path.size() >= sizeof addr.sun_path)
    return fail(kExitUsage, "socket path " + path + " is too long (" + std::to_string(path.size()) +
                                " bytes, at most " + std::to_string(sizeof addr.sun_path - 1) + ")");
  std::memcpy(addr.sun_path, path.c_str(), path.size() + 1);

  struct stat st{};
  if (::lstat(path.c_str(), &st) == 0) {
    if (!S_ISSOCK(st.st_mode))
      return fail(kExitUsage, path + " exists and is not a socket; remove it or choose another path");
    /* We hold the socket's lock, so no teesim serves it; is anything else? */
    UniqueFd probe(::socket(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0));
    if (probe && ::connect(probe.get(), reinterpret_cast<sockaddr*>(&addr), sizeof addr) == 0)
      return fail(kExitAlreadyRunning, "socket " + path + " is in use by another program");
    if (::unlink(path.c_str()) != 0)
      return fail(kExitUsage, "cannot remove the stale socket " + path + ": " + errno_text(errno));
  }
  UniqueFd fd(::socket(AF_UNIX, SOCK_SEQPACKET | SOCK_NONBLOCK | SOCK_CLOEXEC, 0));
  if (!fd) return fail(kExitFailure, "cannot make a socket: " + errno_text(errno));
  mode_t old = ::umask(0077); /* the socket file is born mode 0600 */
  int r = ::bind(fd.get(), reinterpret_cast<sockaddr*>(&addr), sizeof addr);
  int e = errno;
  ::umask(old);
  if (r != 0) {
    if (e == EADDRINUSE) return fail(kExitAlreadyRunning, "socket " + path + " is already in use");
    return fail(kExitUsage, "cannot bind " + path + ": " + errno_text(e));
  }
  if (!group_name.empty()) {
    struct stat bound{};
    if (::lstat(path.c_str(), &bound) != 0)
      return fail(kExitFailure, "cannot inspect " + path + ": " + errno_text(errno));
    /* Only a change needs the right to chown (a member, or root). */
    if (bound.st_gid != group && ::lchown(path.c_str(), static_cast<uid_t>(-1), group) != 0)
      return fail(kExitUsage, "cannot give the socket " + path + " to the group " + group_name +
                                  ": " + errno_text(errno) + " (the daemon must belong to it)");
    if (::chmod(path.c_str(), 0660) != 0)
      return fail(kExitUsage, "cannot open the socket " + path + " to its group: " + errno_text(errno));
  }
  if (::listen(fd.get(), 64) != 0) return fail(kExitFailure, "cannot listen on " + path + ": " + errno_text(errno));
  *out = std::move(fd);
  return {};
}

bool is_uuid_name(const char* name) {
  Uuid u;
  return uuid_parse(name, &u);
}

/* Removes leftovers of interrupted writes and the storage the user asked to
 * wipe. Runs before any TA instance, under the storage lock. */
Failure tidy_storage(const std::string& storage, const Options& o) {
  bool wipe_all = false;
  for (const std::string& w : o.wipe) wipe_all = wipe_all || w == "all";
  std::vector<std::string> tas;
  if (DIR* d = ::opendir(storage.c_str())) {
    while (dirent* e = ::readdir(d)) {
      if (is_uuid_name(e->d_name)) tas.emplace_back(e->d_name);
    }
    ::closedir(d);
  }
  for (const std::string& ta : tas) {
    int removed = fs::remove_temp_files(storage + "/" + ta);
    if (removed > 0)
      TS_LOG_INFO("removed %d unfinished write(s) of TA %s left by a crash", removed, ta.c_str());
  }
  std::vector<std::string> targets = wipe_all ? tas : std::vector<std::string>();
  if (!wipe_all)
    for (const std::string& w : o.wipe) targets.push_back(w);
  for (const std::string& ta : targets) {
    int r = fs::remove_flat_dir(storage + "/" + ta);
    if (r == 0) {
      TS_LOG_WARN("wiped the persistent objects of TA %s", ta.c_str());
    } else if (r == -ENOENT) {
      TS_LOG_INFO("TA %s has no persistent objects to wipe", ta.c_str());
    } else {
      return fail(kExitUsage, "cannot wipe the storage of TA " + ta + ": " + errno_text(-r));
    }
  }
  return {};
}

/* The TA host: at its installed place in an installed layout, else beside
 * the teesim executable (the build tree). */
std::string host_executable() {
#ifdef TEESIM_INSTALLED_HOST
  return TEESIM_INSTALLED_HOST;
#else
  char self[PATH_MAX];
  ssize_t n = ::readlink("/proc/self/exe", self, sizeof self - 1);
  if (n <= 0) return "teesim-tahost";
  self[n] = '\0';
  return paths::parent_dir(self) + "/teesim-tahost";
#endif
}

/* What start-up found out that goes to the log once the log is open. */
struct StartNotes {
  bool key_created = false;
  bool key_present_anyway = false;   /* --new-installation-key with the key in place */
  std::string read_only;             /* why the storage cannot be written; "" when it can */
  std::string set_aside_in;          /* where a lost key's objects went; "" when nowhere */
  std::vector<std::string> set_aside_tas;
};

std::string join(const std::vector<std::string>& items) {
  std::string out;
  for (const std::string& i : items) out += (out.empty() ? "" : ", ") + i;
  return out;
}

/* "lost-key-20250102T030405Z": where a lost key's objects are set aside. */
std::string lost_key_folder_name() {
  time_t now = ::time(nullptr);
  tm t{};
  ::gmtime_r(&now, &t);
  char name[48];
  std::snprintf(name, sizeof name, "lost-key-%04d%02d%02dT%02d%02d%02dZ", t.tm_year + 1900,
                t.tm_mon + 1, t.tm_mday, t.tm_hour, t.tm_min, t.tm_sec);
  return name;
}

/* The installation key: read, or made when there is none. A missing key
 * while TAs still have objects is refused (kExitKeyLost): a new key would
 * silently orphan them (a wallet would read as "not found"). With
 * --new-installation-key those objects are set aside first. */
Failure prepare_installation_key(const Options& o, const std::string& storage, bool writable,
                                 Settings* settings, StartNotes* notes) {
  std::string why;
  if (!installation_key_missing(storage)) {
    notes->key_present_anyway = o.new_installation_key;
  } else {
    const std::string key_path = storage + "/" + kInstallationKeyFile;
    std::vector<std::string> orphans = tas_with_objects(storage);
    if (!orphans.empty()) {
      if (!o.new_installation_key)
        return fail(kExitKeyLost,
                    "the installation key " + key_path + " is missing, but TA(s) " + join(orphans) +
                        " have persistent objects in " + storage +
                        ", which nothing can read without it. Put the key back (from a backup) and "
                        "start again, or start with --new-installation-key to set those objects "
                        "aside and begin afresh");
      if (!writable)
        return fail(kExitUsage, "cannot set aside the objects of TA(s) " + join(orphans) + ": " +
                                    notes->read_only);
      const std::string aside = lost_key_folder_name();
      int r = set_aside(storage, orphans, aside);
      if (r != 0)
        return fail(kExitFailure, "cannot set aside the objects of TA(s) " + join(orphans) + " in " +
                                      storage + "/" + aside + ": " + errno_text(-r));
      notes->set_aside_in = storage + "/" + aside;
      notes->set_aside_tas = orphans;
    }
    if (!writable)
      return fail(kExitUsage, "there is no installation key in " + storage +
                                  " and none can be made there: " + notes->read_only);
  }
  if (!load_or_create_installation_key(storage, &settings->installation_key, &notes->key_created,
                                      &why))
    return fail(kExitUsage, "installation key: " + why);
  return {};
}

/* Everything between the options and the event loop. Fills settings and
 * listener, keeps the pid file and the storage folder's lock for the
 * daemon's lifetime, and collects in `notes` what to log once the log is
 * open. */
Failure prepare(const Options& o, Settings* settings, UniqueFd* listener, PidFile* pid_file,
                UniqueFd* storage_lock, std::string* socket_path, StartNotes* notes) {
  Failure f = resolve_dir(o.ta_dir, "TA folder", &settings->ta_dir);
  if (f.failed()) return f;

  int r = fs::make_dirs(o.storage_dir, 0700);
  if (r != 0) return fail(kExitUsage, "cannot make the storage folder " + o.storage_dir + ": " + errno_text(-r));
  f = resolve_dir(o.storage_dir, "storage folder", &settings->storage_dir);
  if (f.failed()) return f;
  std::string why;
  if (fs::check_private_dir(settings->storage_dir, &why) != 0)
    return fail(kExitUsage, "storage folder " + settings->storage_dir + " is " + why);

  std::string sock_dir = paths::parent_dir(o.socket_path);
  r = fs::make_dirs(sock_dir, 0700);
  if (r != 0) return fail(kExitUsage, "cannot make the socket folder " + sock_dir + ": " + errno_text(-r));
  std::string real_dir;
  f = resolve_dir(sock_dir, "socket folder", &real_dir);
  if (f.failed()) return f;
  f = check_socket_dir(real_dir);
  if (f.failed()) return f;
  size_t slash = o.socket_path.find_last_of('/');
  *socket_path = real_dir + "/" + (slash == std::string::npos ? o.socket_path : o.socket_path.substr(slash + 1));

  settings->host_path = host_executable();
  if (::access(settings->host_path.c_str(), X_OK) != 0)
    return fail(kExitUsage, "cannot run the TA host " + settings->host_path + " (" +
                                errno_text(errno) + ")");
  settings->emulator = o.emulator;

  switch (pid_file->take(*socket_path + ".lock", &why)) {
    case PidFile::Result::Taken: break;
    case PidFile::Result::Busy:
      return fail(kExitAlreadyRunning, "another teesim already serves " + *socket_path + " (" +
                                           pid_file->describe_holder() + ")");
    case PidFile::Result::Error: return fail(kExitUsage, why);
  }
  r = lock_storage_folder(settings->storage_dir, storage_lock);
  if (r == -EWOULDBLOCK)
    return fail(kExitUsage, "storage folder " + settings->storage_dir + " is in use by another teesim");
  if (r != 0)
    return fail(kExitUsage, "cannot lock the storage folder " + settings->storage_dir + ": " + errno_text(-r));
  r = probe_writable(settings->storage_dir);
  if (r != 0) notes->read_only = "storage folder " + settings->storage_dir + " cannot be written (" + errno_text(-r) + ")";

  f = prepare_installation_key(o, settings->storage_dir, r == 0, settings, notes);
  if (f.failed()) return f;
  f = tidy_storage(settings->storage_dir, o);
  if (f.failed()) return f;
  gid_t group = 0;
  if (!o.socket_group.empty()) {
    f = resolve_group(o.socket_group, &group);
    if (f.failed()) return f;
  }
  return bind_socket(*socket_path, o.socket_group, group, listener);
}

/* The background handshake: the parent waits on a pipe for one status byte
 * (and a message) from the daemon process. */
int wait_for_daemon(int status_fd) {
  std::string got;
  char buf[512];
  for (;;) {
    ssize_t n = ::read(status_fd, buf, sizeof buf);
    if (n < 0 && errno == EINTR) continue;
    if (n <= 0) break;
    got.append(buf, static_cast<size_t>(n));
  }
  if (got.empty()) {
    std::fprintf(stderr, "teesim: the daemon ended during start-up\n");
    return kExitFailure;
  }
  int code = static_cast<unsigned char>(got[0]);
  if (code != kExitOk) std::fprintf(stderr, "teesim: %s\n", got.c_str() + 1);
  return code;
}

void report_to_parent(int status_fd, int code, const std::string& message) {
  std::string msg(1, static_cast<char>(code));
  msg += message;
  (void)::write(status_fd, msg.data(), msg.size());
}

void on_hangup(int) { (void)log::reopen(); }

/* SIGHUP reopens the log file, so that it can be rotated (renamed, then
 * the daemon told). */
void reopen_log_on_hangup(const std::string& path) {
  log::set_file(path.c_str());
  struct sigaction sa{};
  sa.sa_handler = on_hangup;
  sa.sa_flags = SA_RESTART;
  sigemptyset(&sa.sa_mask);
  ::sigaction(SIGHUP, &sa, nullptr);
}

int redirect(int fd, const char* path, int flags) {
  int f = ::open(path, flags | O_CLOEXEC, 0600);
  if (f < 0) return -errno;
  int r = ::dup2(f, fd) < 0 ? -errno : 0;
  ::close(f);
  return r;
}

int run(int argc, char** argv) {
  Options o;
  std::string error;
  if (!parse_options(argc, argv, &o, &error)) {
    std::fprintf(stderr, "teesim: %s\nTry 'teesim --help'.\n", error.c_str());
    return kExitUsage;
  }
  if (o.help) {
    std::fputs(usage("teesim").c_str(), stdout);
    return kExitOk;
  }
  if (o.version) {
    std::printf("teesim %s\n", TEESIM_VERSION);
    return kExitOk;
  }
  bool to_syslog = !o.foreground && o.log_file.empty();
  log::init("teesim", o.log_level, to_syslog);

  if (o.has_random_seed) {
    std::fprintf(stderr,
                 "teesim: WARNING: --random-seed is set: TEE_GenerateRandom is DETERMINISTIC.\n"
                 "teesim: WARNING: every key and secret a TA makes is predictable. Tests only!\n");
  }

  /* In the background, the process that reports to the user waits here.
   * Such a daemon outlives whoever started it, so it tells no service
   * manager anything: that is the foreground's job. */
  int status_fd = -1;
  if (!o.foreground) {
    ::unsetenv("NOTIFY_SOCKET");
    int p[2];
    if (::pipe2(p, O_CLOEXEC) != 0) {
      std::fprintf(stderr, "teesim: cannot make a pipe: %s\n", std::strerror(errno));
      return kExitFailure;
    }
    pid_t pid = ::fork();
    if (pid < 0) {
      std::fprintf(stderr, "teesim: cannot fork: %s\n", std::strerror(errno));
      return kExitFailure;
    }
    if (pid > 0) {
      ::close(p[1]);
      return wait_for_daemon(p[0]);
    }
    ::close(p[0]);
    status_fd = p[1];
    ::setsid();
  }

  sigset_t set;
  sigemptyset(&set);
  sigaddset(&set, SIGTERM);
  sigaddset(&set, SIGINT);
  sigaddset(&set, SIGCHLD);
  ::sigprocmask(SIG_BLOCK, &set, nullptr);
  ::signal(SIGPIPE, SIG_IGN);
  ::signal(SIGHUP, SIG_IGN);
#ifndef TESSERA_SANITIZE
  ::prctl(PR_SET_DUMPABLE, 0); /* the installation key lives in this process */
#endif

  Settings settings;
  settings.log_level = o.log_level;
  settings.syslog = to_syslog;
  settings.deterministic_random = o.has_random_seed;
  settings.random_seed = o.random_seed;
  settings.max_clients_per_user = o.max_clients_per_user;
  settings.max_operation_bytes = o.max_operation_bytes;
  settings.max_session_shm_bytes = o.max_session_shm_bytes;
  UniqueFd listener, storage_lock;
  PidFile pid_file;
  std::string socket_path;
  StartNotes notes;
  Failure f = prepare(o, &settings, &listener, &pid_file, &storage_lock, &socket_path, &notes);
  if (!f.failed() && !o.log_file.empty()) {
    int r = redirect(STDERR_FILENO, o.log_file.c_str(), O_WRONLY | O_APPEND | O_CREAT);
    if (r != 0) f = fail(kExitUsage, "cannot open the log file " + o.log_file + ": " + errno_text(-r));
  }
  if (f.failed()) {
    if (status_fd >= 0) {
      report_to_parent(status_fd, f.code, f.message);
    } else {
      std::fprintf(stderr, "teesim: %s\n", f.message.c_str());
    }
    if (listener) ::unlink(socket_path.c_str());
    pid_file.remove();
    return f.code;
  }
  if (!o.log_file.empty()) reopen_log_on_hangup(o.log_file);

  // Logged only now, so that a --log-file receives it too.
  if (!notes.set_aside_in.empty())
    TS_LOG_WARN("--new-installation-key: the installation key was missing; the objects of TA(s) %s, "
                "which nothing can read without it, are set aside in %s",
                join(notes.set_aside_tas).c_str(), notes.set_aside_in.c_str());
  if (notes.key_present_anyway)
    TS_LOG_INFO("--new-installation-key: the installation key is in place; nothing was set aside");
  if (notes.key_created)
    TS_LOG_INFO("made a new installation key in %s/%s", settings.storage_dir.c_str(),
                kInstallationKeyFile);
  if (!notes.read_only.empty())
    TS_LOG_WARN("%s: TAs can read their objects, and every write answers "
                "TEE_ERROR_STORAGE_NOT_AVAILABLE", notes.read_only.c_str());
  if (o.has_random_seed)
    TS_LOG_WARN("TEE_GenerateRandom is DETERMINISTIC (--random-seed); TA keys are predictable");
  TS_LOG_INFO("teesim %s serving %s (TAs from %s, storage in %s)", TEESIM_VERSION,
              socket_path.c_str(), settings.ta_dir.c_str(), settings.storage_dir.c_str());

  if (o.foreground) {
    /* A service manager that started us (NOTIFY_SOCKET) learns that the
     * socket accepts clients; the variable goes, so TA hosts never see it. */
    std::string status = "STATUS=serving " + socket_path;
    (void)::sd_notify(1, ("READY=1\n" + status).c_str());
  }
  if (status_fd >= 0) {
    (void)redirect(STDIN_FILENO, "/dev/null", O_RDONLY);
    (void)redirect(STDOUT_FILENO, "/dev/null", O_WRONLY);
    if (o.log_file.empty()) (void)redirect(STDERR_FILENO, "/dev/null", O_WRONLY);
    report_to_parent(status_fd, kExitOk, "");
    ::close(status_fd);
  }

  int code = serve(std::move(settings), std::move(listener));
  ::unlink(socket_path.c_str());
  pid_file.remove();
  return code;
}

}  // namespace
}  // namespace teesim::daemon

int main(int argc, char** argv) { return teesim::daemon::run(argc, argv); }
