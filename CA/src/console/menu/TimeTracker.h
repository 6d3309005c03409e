// The time tracker that measures a console command's keystore calls.
#ifndef TESSERA_CONSOLE_TIMETRACKER_H
#define TESSERA_CONSOLE_TIMETRACKER_H

#include <chrono>
#include <cstdint>

namespace test {

/* Measures how long the keystore calls of one console command take, in whole
 * milliseconds of the steady clock.
 *
 * The scenarios bracket each call they want timed with startMeasuring() and
 * stopMeasuring(); several pairs within one command add up. The dispatcher
 * resets the tracker before every command, and the menu prints the total
 * after the command's result line is due (printElapsedTime).
 *
 * mode:  0 measuring off; any other value measures; only 1 also makes the
 *        result printable, so mode 2 measures silently.
 * state: 0 idle (nothing since the last reset), 1 running, 2 stopped.
 *
 * One instance per process, made on first use. Single-threaded: only its
 * creation is synchronised. start and stop read the clock once and store a
 * few words; they neither allocate nor print. */
class TimeTracker {
 public:
  using Clock = std::chrono::steady_clock;

  /* Returns: the process-wide tracker (mode 0, state 0, nothing elapsed when
   *          first made). */
  static TimeTracker& getInstance();

  /* Forgets any measurement: state 0, elapsed time 0. The mode is kept. */
  void reset();

  /* Stores the mode (any value; see the class comment). Returns: true. */
  bool setMode(int mode);

  /* Returns: the mode last stored. */
  [[nodiscard]] int getMode() const { return mode; }

  /* Returns: true exactly when the mode is 1 and a measurement has stopped,
   *          i.e. when printElapsedTime will print. */
  [[nodiscard]] bool isMeasured() const;

  /* Returns: the milliseconds accumulated since the last reset. */
  [[nodiscard]] unsigned long getElapsedTime() const { return elapsedMs; }

  /* Starts an interval now. Ignored when the mode is 0 or an interval is
   * already running (the earlier start time is kept). */
  void startMeasuring();

  /* Ends the running interval now and adds its length, truncated to whole
   * milliseconds, to the elapsed time. Ignored when the mode is 0 or nothing
   * is running. */
  void stopMeasuring();

  /* The same two steps with the clock reading supplied by the caller; used
   * by the two above and by tests that need exact intervals. */
  void startMeasuringAt(Clock::time_point now);
  void stopMeasuringAt(Clock::time_point now);

  TimeTracker(const TimeTracker&) = delete;
  TimeTracker& operator=(const TimeTracker&) = delete;

 private:
  TimeTracker() = default;

  int32_t mode = 0;
  int32_t state = 0;
  unsigned long elapsedMs = 0;
};

/* Prints the elapsed time of the last command when the tracker isMeasured():
 * an empty line, " ! Elapsed time: <ms> ms.", and one more empty line, each
 * line flushed. Prints nothing otherwise. */
void printElapsedTime();

}  // namespace test

#endif  // TESSERA_CONSOLE_TIMETRACKER_H
