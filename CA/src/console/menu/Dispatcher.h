// The command dispatcher: from a menu item's command and option to its effect
// and result code.
#ifndef TESSERA_CONSOLE_DISPATCHER_H
#define TESSERA_CONSOLE_DISPATCHER_H

#include <string>

namespace test {

/* Results of runCommand: the whole contract between a menu item's command and
 * the menu loop. */
constexpr int kCommandSuccess = 0;   /* the menu prints the success line */
constexpr int kCommandFailure = -1;  /* a scenario failed; the fail line */
constexpr int kCommandLeave = 1;     /* leave the current menu level */
constexpr int kCommandEnter = 2;     /* enter the chosen item as a submenu */
constexpr int kCommandUnknown = -2;  /* the menu reports a wrong selection */

/* Carries out one menu command.
 *
 * Before looking at the command it resets the TimeTracker (state and elapsed
 * time to 0, mode kept), so every command is timed from nothing.
 *
 * Returns: for "launch_api_interface" and "special_transaction_test": the
 *          scenario's verdict, kCommandSuccess for true, kCommandFailure for
 *          false, with `option` passed on;
 *          for "set_data_index" (option <= 4), "set_account_index"
 *          (option <= 4) and "set_pin_data" (option <= 3): kCommandSuccess,
 *          also when the option, compared as unsigned (so -1, the value of a
 *          missing option, is out of range), was out of range and ignored;
 *          for "set_time_measurement": kCommandSuccess after storing `option`
 *          as the tracker's mode, whatever its value;
 *          kCommandLeave for "exit", kCommandEnter for "entry";
 *          kCommandUnknown for anything else, "" included. Names compare
 *          exactly and case-sensitively.
 * In:      command: the item's "command" text.
 *          option:  the item's "option" (-1 when it had none).
 * Throws:  whatever a scenario throws; nothing of its own. */
[[nodiscard]] int runCommand(const std::string& command, int option);

/* Store `index` in the process-wide TestData when, taken as unsigned, it is
 * within the table (data set and account <= 4, PIN <= 3).
 * Returns: true, whether the value was accepted or not. */
bool setDataIndex(int index);
bool setAccountIndex(int index);
bool setPinIndex(int index);

}  // namespace test

#endif  // TESSERA_CONSOLE_DISPATCHER_H
