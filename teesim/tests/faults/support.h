/*
 * Support of the fault tests: private daemons with their own TA folder,
 * bounded waits that turn a hang into a failure, and what the daemon tells
 * its debug log about its descriptors.
 */
#ifndef TEESIM_FAULTS_SUPPORT_H
#define TEESIM_FAULTS_SUPPORT_H

#include <sys/types.h>

#include <functional>
#include <string>
#include <vector>

#include "tee_client_api.h"
#include "teesim/channel.h"
#include "teesim/unique_fd.h"
#include "teesim/wire.h"
#include "teesim/testing/private_daemon.h"
#include "teesim_test_ta.h"

namespace faults {

using teesim::testing::PrivateDaemon;

inline const TEEC_UUID kTestTa = TEST_TA_UUID;
inline const TEEC_UUID kFaultTa = TEST_FAULT_TA_UUID;

/* Options of a private daemon that serves a copy of the TA folder. */
PrivateDaemon::Options own_tas();

/* Polls `cond` every 10 ms until it holds, for at most `ms`; returns its
 * last value. The default bound is one only a broken system reaches. */
bool eventually(const std::function<bool()>& cond, int ms = 60000);

/* Runs body(0) ... body(workers - 1), each on a thread of its own, and waits
 * for all of them at most `ms` milliseconds: a bound that only a hang
 * reaches, there to fail a test instead of hanging it. When some have not
 * returned by then, calls release() (which must end whatever blocks them,
 * e.g. kill the daemon) and waits for them again; a worker that still does
 * not return aborts the test program. Returns how many had not returned
 * when the bound was reached (0: none hung). */
int run_bounded(int workers, const std::function<void(int)>& body, const std::function<void()>& release,
                int ms = 120000);

/* Writes the installation properties of TA `uuid_text` in d's TA folder
 * (which must be a copy: own_tas()). Returns false when it cannot. */
bool write_props(const PrivateDaemon& d, const char* uuid_text, const std::string& text);

/* The descriptors the daemon holds, as it reports them at debug level each
 * time its last client goes: connects and disconnects one client, then
 * reads the newest report. Returns -1 when there is none (the daemon must
 * run with --log-level debug). */
int daemon_descriptors(const PrivateDaemon& d);

/* Lowers the soft descriptor limit of process `pid` (a daemon this test
 * started) for the object's life, the hard limit untouched, so a test runs
 * the daemon out of descriptors cheaply. */
class DescriptorLimit {
 public:
  DescriptorLimit(pid_t pid, unsigned long soft);
  /* Puts the old soft limit back (also done by the destructor). */
  void restore();
  ~DescriptorLimit() { restore(); }
  bool ok() const { return ok_; }
  DescriptorLimit(const DescriptorLimit&) = delete;
  DescriptorLimit& operator=(const DescriptorLimit&) = delete;

 private:
  pid_t pid_;
  unsigned long old_soft_ = 0;
  bool ok_ = false;
};

/* Connections to a daemon that say nothing: up to `count`, made without
 * blocking (it stops early when the daemon's backlog is full). Closed when
 * the object dies or release() is called. */
class SilentConnections {
 public:
  SilentConnections(const std::string& socket, int count);
  ~SilentConnections() { release(); }
  void release();
  int count() const { return static_cast<int>(fds_.size()); }
  SilentConnections(const SilentConnections&) = delete;
  SilentConnections& operator=(const SilentConnections&) = delete;

 private:
  std::vector<int> fds_;
};

/* The CPU time a process has used so far, in clock ticks (user + system,
 * from /proc/<pid>/stat); -1 when it cannot be read. */
long long cpu_ticks(pid_t pid);

/* ---- the protocol by hand, as a hostile client speaks it ---- */

/* A connection to the daemon at `path`, or an invalid one. */
teesim::UniqueFd raw_connect(const std::string& path);

/* Encodes and sends one frame. Returns true when it was sent. */
template <typename M>
bool raw_send(int fd, const M& msg, uint32_t tag = 1) {
  std::vector<uint8_t> frame;
  return teesim::wire::encode(frame, tag, msg) == teesim::wire::Status::Ok &&
         teesim::send_frame(fd, frame.data(), frame.size()) == 0;
}

/* Greets the daemon on `fd` and opens a session with `ta` (public login, no
 * parameters). Returns true with the session channel in *channel. */
bool raw_open(int fd, const TEEC_UUID& ta, teesim::UniqueFd* channel);

/* Waits until the peer closes `fd` (true), reading and dropping what comes;
 * the bound (60 s) is one only a broken peer reaches. */
bool closed_by_peer(int fd);

/* A TA instance's peak resident memory in KiB (VmHWM of /proc/<pid>/status),
 * or -1 when it cannot be read. */
long peak_rss_kib(pid_t pid);

/* The whole text of a file ("" when missing). */
std::string read_text(const std::string& path);

}  // namespace faults

#endif  // TEESIM_FAULTS_SUPPORT_H
