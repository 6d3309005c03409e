/*
 * A teesim daemon of a test's own: private socket, storage and logs in a
 * fresh temporary folder, run in the foreground as a child of the test
 * process, so tests never meet each other's daemon or the user's.
 *
 * Layout of the private folder:
 *   <folder>/teesim.sock   the socket
 *   <folder>/storage/      the storage folder (survives Stop and Start)
 *   <folder>/teesim.log    the daemon's log (its standard output and error too)
 *   <folder>/client.log    where this process's client-side log goes once
 *                          UseFromThisProcess() was called (DLOG_FILE)
 *   <folder>/ta/           a copy of the TA folder, with Options::copy_tas
 *
 * Not thread-safe: one thread drives a PrivateDaemon. The daemon is told to
 * end (SIGTERM) when the thread that started it ends, which is the test
 * process's main thread in every use here.
 *
 * This header also brings in TempFolder (temp_folder.h) and the result and
 * origin names (names.h).
 */
#ifndef TEESIM_TESTING_PRIVATE_DAEMON_H
#define TEESIM_TESTING_PRIVATE_DAEMON_H

#include <sys/types.h>

#include <string>
#include <vector>

#include "teesim/testing/names.h"
#include "teesim/testing/temp_folder.h"

namespace teesim::testing {

/* Returns the teesim executable of this build (absolute path). */
std::string BuiltDaemon();

/* Returns this build's TA folder, where every TA of the build lands as
 * <uuid>.ta (absolute path). */
std::string BuiltTaDir();

/* How a PrivateDaemon is set up (PrivateDaemon::Options). */
struct PrivateDaemonOptions {
  /* The teesim executable to run. */
  std::string daemon = BuiltDaemon();
  /* Run `daemon` through TEESIM_EMULATOR when that is set (a build for
   * another CPU). False for a wrapper script that runs on this machine and
   * starts the emulated daemon itself. */
  bool through_emulator = true;
  /* The TA folder it serves (or copies, with copy_tas). */
  std::string ta_dir = BuiltTaDir();
  /* Where the private folder is made: "" for $TMPDIR or /tmp; a tmpfs such
   * as /dev/shm keeps disk latency out of timings. */
  std::string parent;
  /* Copy the TA folder's files into <folder>/ta and serve the copy, so a
   * test can add, break or remove TAs without touching the build. */
  bool copy_tas = false;
};

class PrivateDaemon {
 public:
  using Options = PrivateDaemonOptions;

  /* Makes the private folder (and the TA copy); does not start the daemon.
   * Throws std::system_error when the folder cannot be made, and
   * std::filesystem::filesystem_error when the TA folder cannot be copied. */
  explicit PrivateDaemon(Options options = Options());
  /* Stops the daemon (as Stop()) and removes the private folder. A forked
   * child of the test that exits normally touches neither. */
  ~PrivateDaemon();
  PrivateDaemon(const PrivateDaemon&) = delete;
  PrivateDaemon& operator=(const PrivateDaemon&) = delete;

  /* Starts, as a child of this process,
   *   <daemon> --foreground --socket <folder>/teesim.sock --ta-dir <ta>
   *            --storage-dir <folder>/storage --log-file <folder>/teesim.log
   *            <extra_args...>
   * (after the words of TEESIM_EMULATOR, when set: a build for another CPU)
   * and waits until the socket accepts a connection. The wait is bounded by
   * a generous deadline (60 s) that only a broken daemon reaches.
   * Returns true once the daemon serves; its start-up lines may reach the
   * log a moment later. Returns false, with Error() set,
   * when it is already running, cannot be run, exits during start-up or does
   * not serve before the deadline (it is then killed). */
  [[nodiscard]] bool Start(const std::vector<std::string>& extra_args = {});

  /* Sends SIGTERM and reaps the daemon; SIGKILL when it has not ended
   * within 60 s (only a hung daemon takes that long). Returns its exit
   * status (128 + signal number when a signal ended it), or -1 when it was
   * not running. */
  int Stop();

  /* Sends SIGKILL and reaps the daemon (the TA instances it started end
   * with it). Returns its exit status as Stop() does (137 when SIGKILL
   * ended it), or -1 when it was not running and nothing was sent. */
  int Kill();

  /* Returns true while the daemon started by Start() lives. A daemon found
   * to have ended on its own is reaped here and counts as not running. */
  bool Running() const;
  /* Returns the daemon's process id, or -1 when it is not running. */
  pid_t Pid() const;

  /* Paths, fixed for the object's life (see the layout above). */
  const std::string& Folder() const { return folder_.path(); }
  const std::string& Socket() const { return socket_; }
  const std::string& TaDir() const { return ta_dir_; }
  const std::string& StorageDir() const { return storage_; }
  const std::string& LogPath() const { return log_; }
  const std::string& ClientLogPath() const { return client_log_; }

  /* Returns the daemon's log so far ("" when it has none yet). */
  std::string LogText() const;

  /* Returns why the last Start() failed: the reason on the first line,
   * followed by the daemon's log when it wrote one; "" after a success. */
  const std::string& Error() const { return error_; }

  /* Points this process's client library at the daemon: sets TEESIM_SOCKET
   * to Socket(), TEESIM_DAEMON to "" (so the library never starts a daemon
   * of its own) and DLOG_FILE to ClientLogPath(). */
  void UseFromThisProcess() const;

  /* Runs the daemon executable with `args` (its own options, none of ours
   * added; through TEESIM_EMULATOR when set) and waits for it to exit.
   * Out: stderr_text (may be null), its standard error with its standard
   *      output merged in, in the order written.
   * Returns its exit status (128 + signal number when a signal ended it),
   * or -1 when it could not be started. */
  int RunCommand(const std::vector<std::string>& args, std::string* stderr_text) const;

 private:
  Options options_;
  pid_t owner_;
  TempFolder folder_;
  std::string socket_, ta_dir_, storage_, log_, client_log_;
  mutable pid_t pid_ = -1;
  std::string error_;
};

}  // namespace teesim::testing

#endif  // TEESIM_TESTING_PRIVATE_DAEMON_H
