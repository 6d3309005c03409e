/*
 * A private teesim daemon for end-to-end tests and benchmarks: its own
 * socket, storage and log in a fresh temporary folder, the build's TA folder,
 * started in the foreground as a child process and stopped with SIGTERM.
 * Start() also points this process's libteec at it (TEESIM_SOCKET) and, on
 * request, the platform log at a file of the folder (DLOG_FILE).
 */
#ifndef KEYSTORE_TESTS_TEESIMDAEMON_H
#define KEYSTORE_TESTS_TEESIMDAEMON_H

#include <sys/types.h>

#include <string>

namespace keystore_test {

class TeesimDaemon {
 public:
  /* In: daemon, the teesim executable; ta_dir, the folder of the built TAs;
   *     storage_parent, where the private folder is made ("" for $TMPDIR or
   *     /tmp; a tmpfs such as /dev/shm keeps disk latency out of timings). */
  TeesimDaemon(std::string daemon, std::string ta_dir, std::string storage_parent = "");
  /* Stops the daemon and removes the private folder. */
  ~TeesimDaemon();
  TeesimDaemon(const TeesimDaemon&) = delete;
  TeesimDaemon& operator=(const TeesimDaemon&) = delete;

  /* Starts the daemon (the storage survives Stop/Start) and waits until its
   * socket accepts connections. Returns false, with the reason in error(),
   * when it does not come up within 10 s. */
  bool Start();
  /* Stops the daemon with SIGTERM (SIGKILL when `kill`) and reaps it. */
  void Stop(bool kill = false);

  const std::string& folder() const { return folder_; }
  const std::string& socket_path() const { return socket_; }
  const std::string& storage_dir() const { return storage_; }
  const std::string& log_path() const { return log_; }
  const std::string& error() const { return error_; }
  pid_t pid() const { return pid_; }

 private:
  std::string daemon_, ta_dir_, folder_, socket_, storage_, log_, error_;
  pid_t pid_ = -1;
};

/* The whole content of a file ("" when it cannot be read). */
std::string ReadFile(const std::string& path);

}  // namespace keystore_test

#endif  // KEYSTORE_TESTS_TEESIMDAEMON_H
