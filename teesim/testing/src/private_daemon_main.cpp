/*
 * teesim-private-daemon: a PrivateDaemon driven over stdin and stdout, for
 * test harnesses that are not C++ (the Python end-to-end tests).
 *
 *   teesim-private-daemon [--daemon PATH] [--ta-dir DIR] [--parent DIR]
 *                         [-- extra daemon options...]
 *
 * Starts the daemon in a private folder and prints one line, flushed:
 *   ready socket=<path> folder=<dir> storage=<dir> log=<path> client_log=<path> pid=<n>
 * then answers commands read from stdin, one per line (blank lines are
 * ignored):
 *   stop    SIGTERM (SIGKILL after 60 s)  -> "stopped <exit status>" (-1: was not running)
 *   kill    SIGKILL                       -> "stopped <exit status>" (137, or -1)
 *   start   start again, same folder and storage -> the ready line, or
 *           "failed <reason>"
 *   other   -> "error unknown command"
 * At the end of stdin, or on SIGTERM or SIGINT, it stops the daemon,
 * removes the folder and exits 0. When the first start fails it prints
 * "failed <reason>" to stdout and the daemon's log to stderr, and exits 1.
 * Usage errors exit 2.
 */
#include <poll.h>
#include <signal.h>
#include <sys/signalfd.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <exception>
#include <string>
#include <vector>

#include "teesim/testing/private_daemon.h"

namespace {

using teesim::testing::PrivateDaemon;

constexpr int kUsage = 2;

void PrintUsage(std::FILE* to) {
  std::fprintf(to,
               "usage: teesim-private-daemon [--daemon PATH] [--ta-dir DIR] [--parent DIR]\n"
               "                             [-- extra daemon options...]\n"
               "Starts a teesim daemon in a private folder, prints a 'ready ...' line, then\n"
               "reads commands from stdin: stop, kill, start. End of input stops it.\n");
}

std::string FirstLine(const std::string& text) { return text.substr(0, text.find('\n')); }

void Reply(const std::string& line) {
  std::fputs((line + "\n").c_str(), stdout);
  std::fflush(stdout);
}

std::string ReadyLine(const PrivateDaemon& d) {
  return "ready socket=" + d.Socket() + " folder=" + d.Folder() + " storage=" + d.StorageDir() +
         " log=" + d.LogPath() + " client_log=" + d.ClientLogPath() + " pid=" + std::to_string(d.Pid());
}

/* Serves commands until the end of stdin or a stop signal (read through
 * `signals`, a signalfd). */
void Serve(PrivateDaemon& d, const std::vector<std::string>& extra, int signals) {
  std::string pending;
  for (;;) {
    pollfd fds[2] = {{0, POLLIN, 0}, {signals, POLLIN, 0}};
    if (::poll(fds, 2, -1) < 0) {
      if (errno == EINTR) continue;
      return;
    }
    if (fds[1].revents & POLLIN) return;
    if (!(fds[0].revents & (POLLIN | POLLHUP | POLLERR))) continue;
    char buf[512];
    ssize_t n = ::read(0, buf, sizeof buf);
    if (n < 0 && errno == EINTR) continue;
    if (n <= 0) return;
    pending.append(buf, static_cast<size_t>(n));
    size_t end;
    while ((end = pending.find('\n')) != std::string::npos) {
      std::string command = pending.substr(0, end);
      pending.erase(0, end + 1);
      if (!command.empty() && command.back() == '\r') command.pop_back();
      if (command.empty()) continue;
      if (command == "stop") {
        Reply("stopped " + std::to_string(d.Stop()));
      } else if (command == "kill") {
        /* Kill() reaps what it killed itself: sending SIGKILL here and
         * reaping in Stop() raced with the kernel ending the process (a
         * daemon already gone counts as not running: -1). */
        Reply("stopped " + std::to_string(d.Kill()));
      } else if (command == "start") {
        Reply(d.Start(extra) ? ReadyLine(d) : "failed " + FirstLine(d.Error()));
      } else {
        Reply("error unknown command");
      }
    }
  }
}

}  // namespace

int main(int argc, char** argv) {
  PrivateDaemon::Options options;
  std::vector<std::string> extra;
  for (int i = 1; i < argc; ++i) {
    const std::string arg = argv[i];
    if (arg == "--") {
      extra.assign(argv + i + 1, argv + argc);
      break;
    }
    std::string* value = arg == "--daemon"   ? &options.daemon
                         : arg == "--ta-dir" ? &options.ta_dir
                         : arg == "--parent" ? &options.parent
                                             : nullptr;
    if (value != nullptr) {
      if (i + 1 >= argc) {
        std::fprintf(stderr, "teesim-private-daemon: %s needs a value\n", arg.c_str());
        PrintUsage(stderr);
        return kUsage;
      }
      *value = argv[++i];
    } else if (arg == "-h" || arg == "--help") {
      PrintUsage(stdout);
      return 0;
    } else {
      std::fprintf(stderr, "teesim-private-daemon: unknown argument '%s'\n", arg.c_str());
      PrintUsage(stderr);
      return kUsage;
    }
  }

  /* Stop signals are read in the loop, so the daemon is always stopped and
   * the folder removed. The daemon's child process gets them unblocked. */
  sigset_t stop_signals;
  ::sigemptyset(&stop_signals);
  ::sigaddset(&stop_signals, SIGTERM);
  ::sigaddset(&stop_signals, SIGINT);
  ::sigprocmask(SIG_BLOCK, &stop_signals, nullptr);
  const int signals = ::signalfd(-1, &stop_signals, SFD_CLOEXEC);
  if (signals < 0) {
    std::fprintf(stderr, "teesim-private-daemon: signalfd: %s\n", std::strerror(errno));
    return 1;
  }
  ::signal(SIGPIPE, SIG_IGN); /* a harness that went away must not kill us before cleaning up */

  try {
    PrivateDaemon d(options);
    if (!d.Start(extra)) {
      Reply("failed " + FirstLine(d.Error()));
      std::fputs(d.LogText().c_str(), stderr);
      return 1;
    }
    Reply(ReadyLine(d));
    Serve(d, extra, signals);
    d.Stop();
  } catch (const std::exception& e) {
    Reply(std::string("failed ") + FirstLine(e.what()));
    return 1;
  }
  ::close(signals);
  return 0;
}
