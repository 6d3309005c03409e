#!/usr/bin/python3
"""End-to-end tests of the console: the real binary, prepared menu files at
the fixed menu path (through console_harness), standard output and exit
status compared exactly.

Usage:
  console_e2e_test.py --binary PATH [--default-menu FILE] [--emulator CMD] [unittest args...]
  console_e2e_test.py --list        print the test ids, one per line
"""

import argparse
import json
import os
import pty
import subprocess
import sys
import time
import unittest

sys.path.insert(0, os.path.join(os.path.dirname(os.path.abspath(__file__)), "..", "..", "..", "..",
                                "testing"))
import console_harness  # noqa: E402

BINARY = None
DEFAULT_MENU = None

MENU_FILE = console_harness.MENU_FILE
FAILURE = "Failed to process menu file [/opt/data/tessera/menu.json], exception caused\n"
PARSE_FAILURE = "Failed to parse [/opt/data/tessera/menu.json] Error: "
# What the JSON library (jsoncpp 1.9) reports for empty input; the console
# passes the library's text through unchanged.
EMPTY_INPUT_ERROR = "* Line 1, Column 1\n  Syntax error: value, object or array expected.\n"


screen = console_harness.screen


EXAMPLE = """{
  "Keystore test": {
    "entry": {
      "Generate seed":         { "index": 1, "command": "launch_api_interface", "option": 100 },
      "Special transaction":   { "index": 2, "command": "special_transaction_test", "option": 0 },
      "Settings": {
        "index": 3,
        "entry": {
          "Data set 0":        { "index": 1, "command": "set_data_index", "option": 0 },
          "Data set 1":        { "index": 2, "command": "set_data_index", "option": 1 },
          "Account 2":         { "index": 3, "command": "set_account_index", "option": 2 },
          "Test PIN 1":        { "index": 4, "command": "set_pin_data", "option": 1 },
          "Timing on":         { "index": 5, "command": "set_time_measurement", "option": 1 },
          "Timing off":        { "index": 6, "command": "set_time_measurement", "option": 0 },
          "Back":              { "index": 9, "command": "exit" }
        }
      },
      "Quit":                  { "index": 9, "command": "exit" }
    }
  }
}"""

EXAMPLE_TOP = (
    "\n"
    "========== Keystore test ==========\n"
    " 1: Generate seed\n"
    " 2: Special transaction\n"
    " 3: Settings\n"
    " 9: Quit\n"
    "===================================\n")

EXAMPLE_SETTINGS = (
    "\n"
    "========== 3: Settings ==========\n"
    " 1: Data set 0\n"
    " 2: Data set 1\n"
    " 3: Account 2\n"
    " 4: Test PIN 1\n"
    " 5: Timing on\n"
    " 6: Timing off\n"
    " 9: Back\n"
    "=================================\n")


def menu(items, title="T"):
    """A one-level menu document from a dict of items."""
    return json.dumps({title: {"entry": items}})


QUIT = {"index": 9, "command": "exit"}
QUIT_LINE = " 9: Quit"


class ConsoleTestCase(unittest.TestCase):
    maxDiff = None

    def setUp(self):
        self.console = console_harness.Console(BINARY)

    def run_console(self, stdin, **kwargs):
        return self.console.run(stdin, **kwargs)

    def assertRun(self, result, stdout, status):
        self.assertEqual(result.stdout, stdout)
        self.assertEqual(result.status, status, "stderr: " + result.stderr)


class StartUp(ConsoleTestCase):
    def test_exit_item_at_the_top_ends_at_once_with_status_0(self):
        result = self.run_console("9\n", menu_text=menu({"Quit": QUIT}))
        self.assertRun(result, screen("T", QUIT_LINE), 0)

    def test_missing_file_prints_two_messages_and_status_255(self):
        result = self.run_console("9\n")
        self.assertRun(result, PARSE_FAILURE + EMPTY_INPUT_ERROR + "\n" + FAILURE, 255)

    def test_unreadable_file_is_read_as_empty_input(self):
        # A folder where the file should be: it opens, but nothing can be read.
        self.console.prelude = "rmdir /opt/data/tessera/menu.json 2>/dev/null || true; " \
                               "mkdir /opt/data/tessera/menu.json"
        result = self.run_console("9\n")
        self.assertRun(result, PARSE_FAILURE + EMPTY_INPUT_ERROR + "\n" + FAILURE, 255)

    def test_empty_file_is_a_parse_failure(self):
        result = self.run_console("9\n", menu_text="")
        self.assertRun(result, PARSE_FAILURE + EMPTY_INPUT_ERROR + "\n" + FAILURE, 255)

    def test_invalid_json_prints_the_parse_message_then_the_failure(self):
        result = self.run_console("9\n", menu_text='{"T": {"entry": }')
        self.assertTrue(result.stdout.startswith(PARSE_FAILURE), result.stdout)
        self.assertTrue(result.stdout.endswith("\n" + FAILURE), result.stdout)
        library_text = result.stdout[len(PARSE_FAILURE):-len(FAILURE) - 1]
        self.assertTrue(library_text.startswith("* Line 1, Column "), library_text)
        self.assertEqual(result.status, 255)

    def test_root_array_prints_only_the_failure(self):
        self.assertRun(self.run_console("9\n", menu_text="[]"), FAILURE, 255)

    def test_root_number_prints_only_the_failure(self):
        self.assertRun(self.run_console("9\n", menu_text="17"), FAILURE, 255)

    def test_root_with_two_members_prints_only_the_failure(self):
        text = json.dumps({"A": {"entry": {"Quit": QUIT}}, "B": {"entry": {"Quit": QUIT}}})
        self.assertRun(self.run_console("9\n", menu_text=text), FAILURE, 255)

    def test_root_whose_single_member_is_a_string_prints_only_the_failure(self):
        self.assertRun(self.run_console("9\n", menu_text='{"T": "menu"}'), FAILURE, 255)

    def test_empty_root_object_prints_only_the_failure(self):
        self.assertRun(self.run_console("9\n", menu_text="{}"), FAILURE, 255)

    def test_exception_while_running_uses_the_same_message(self):
        # Read and built fine; listing the submenu meets an index that does
        # not fit in an int, and the JSON library throws.
        text = menu({"Broken": {"index": 1, "entry": {"Huge": {"index": 3000000000,
                                                                "command": "exit"}}},
                     "Quit": QUIT})
        result = self.run_console("1\n9\n", menu_text=text)
        self.assertRun(result, screen("T", " 1: Broken", QUIT_LINE) + FAILURE, 255)

    def test_arguments_and_environment_do_not_move_the_menu_file(self):
        self.console.args = ["--menu", "/nonexistent.json", "/nonexistent.json"]
        result = self.run_console("9\n", menu_text=menu({"Quit": QUIT}),
                                  env={"TESSERA_MENU": "/nonexistent.json",
                                       "MENU": "/nonexistent.json"})
        self.assertRun(result, screen("T", QUIT_LINE), 0)

    def test_comments_are_accepted_by_the_default_reader(self):
        text = '// operator menu\n{ "T": { /* top */ "entry": { "Quit": {"index": 9, "command": "exit"} } } }'
        self.assertRun(self.run_console("9\n", menu_text=text), screen("T", QUIT_LINE), 0)


class Navigation(ConsoleTestCase):
    def test_example_menu_round_trip(self):
        result = self.run_console("3\n4\n9\n9\n", menu_text=EXAMPLE)
        self.assertRun(result,
                       EXAMPLE_TOP + EXAMPLE_SETTINGS + " >> Test PIN 1 : success\n"
                       + EXAMPLE_SETTINGS + EXAMPLE_TOP, 0)

    def test_exit_in_a_submenu_prints_nothing_and_shows_the_menu_above(self):
        result = self.run_console("3 9 9", menu_text=EXAMPLE)
        self.assertRun(result, EXAMPLE_TOP + EXAMPLE_SETTINGS + EXAMPLE_TOP, 0)

    def test_numbers_are_right_aligned_two_wide(self):
        text = menu({"Five": {"index": 5}, "Twelve": {"index": 12}, "Hundred": {"index": 100},
                     "Quit": QUIT})
        self.assertRun(self.run_console("9\n", menu_text=text),
                       screen("T", " 5: Five", " 9: Quit", "12: Twelve", "100: Hundred"), 0)

    def test_string_index_is_not_listed_and_not_chosen_by_its_number(self):
        text = menu({"Text": {"index": "2", "command": "set_data_index", "option": 1},
                     "Quit": QUIT})
        self.assertRun(self.run_console("2\n9\n", menu_text=text),
                       screen("T", QUIT_LINE) + " !! 2 : wrong selection\n" + screen("T", QUIT_LINE), 0)

    def test_minus_999_chooses_the_first_item_without_an_index(self):
        text = menu({"B silent": {"command": "set_data_index", "option": 2},
                     "A text index": {"index": "1", "command": "set_pin_data", "option": 1},
                     "Quit": QUIT})
        self.assertRun(self.run_console("-999\n9\n", menu_text=text),
                       screen("T", QUIT_LINE) + " >> A text index : success\n" + screen("T", QUIT_LINE), 0)

    def test_zero_and_negative_indices_are_hidden_but_chosen_by_number(self):
        text = menu({"Zero": {"index": 0, "command": "set_data_index", "option": 1},
                     "Minus": {"index": -4, "command": "set_data_index", "option": 2},
                     "Quit": QUIT})
        expected = (screen("T", QUIT_LINE) + " >> Zero : success\n" + screen("T", QUIT_LINE)
                    + " >> Minus : success\n" + screen("T", QUIT_LINE))
        self.assertRun(self.run_console("0 -4 9", menu_text=text), expected, 0)

    def test_duplicate_index_lists_the_last_name_and_runs_the_first(self):
        text = menu({"Alpha": {"index": 1, "command": "set_data_index", "option": 1},
                     "Beta": {"index": 1, "command": "set_data_index", "option": 2},
                     "Quit": QUIT})
        shown = screen("T", " 1: Beta", QUIT_LINE)
        self.assertRun(self.run_console("1\n9\n", menu_text=text),
                       shown + " >> Alpha : success\n" + shown, 0)

    def test_empty_entry_is_a_plain_item_and_without_command_a_wrong_selection(self):
        text = menu({"Hollow": {"index": 1, "entry": {}}, "Quit": QUIT})
        shown = screen("T", " 1: Hollow", QUIT_LINE)
        self.assertRun(self.run_console("1\n9\n", menu_text=text),
                       shown + " !! 1 : wrong selection\n" + shown, 0)

    def test_command_and_entry_together_run_the_command(self):
        text = menu({"Both": {"index": 1, "command": "set_account_index", "option": 2,
                              "entry": {"Inner": {"index": 1, "command": "exit"}}},
                     "Quit": QUIT})
        shown = screen("T", " 1: Both", QUIT_LINE)
        self.assertRun(self.run_console("1\n9\n", menu_text=text),
                       shown + " >> Both : success\n" + shown, 0)

    def test_explicit_entry_without_a_submenu_is_entered(self):
        # The item is entered; its menu lists its own members that carry an
        # index ("index" and "command" themselves are not items).
        text = menu({"Door": {"index": 1, "command": "entry",
                              "Back": {"index": 9, "command": "exit"}}, "Quit": QUIT})
        top = screen("T", " 1: Door", QUIT_LINE)
        self.assertRun(self.run_console("1\n9\n9\n", menu_text=text),
                       top + screen("1: Door", " 9: Back") + top, 0)

    def test_submenu_reached_through_an_item_without_command(self):
        text = menu({"Sub": {"index": 2, "entry": {"Back": {"index": 1, "command": "exit"}}},
                     "Quit": QUIT})
        top = screen("T", " 2: Sub", QUIT_LINE)
        self.assertRun(self.run_console("2 1 9", menu_text=text),
                       top + screen("2: Sub", " 1: Back") + top, 0)

    def test_words_without_a_leading_number_are_skipped_silently(self):
        result = self.run_console("hello -- x3 3abc 9xyz 9", menu_text=EXAMPLE)
        self.assertRun(result, EXAMPLE_TOP + EXAMPLE_SETTINGS + EXAMPLE_TOP, 0)

    def test_numbers_that_do_not_fit_are_skipped_silently(self):
        result = self.run_console("99999999999 -2147483649 +9", menu_text=EXAMPLE)
        self.assertRun(result, EXAMPLE_TOP, 0)

    def test_wrong_selection_shows_the_number_as_read(self):
        result = self.run_console("007 -12 4 9", menu_text=EXAMPLE)
        self.assertRun(result,
                       EXAMPLE_TOP + " !! 7 : wrong selection\n" + EXAMPLE_TOP
                       + " !! -12 : wrong selection\n" + EXAMPLE_TOP
                       + " !! 4 : wrong selection\n" + EXAMPLE_TOP, 0)

    def test_end_of_input_keeps_the_console_waiting_without_spinning(self):
        with self.console.start(menu_text=EXAMPLE) as running:
            running.process.stdin.write(b"3\n")
            running.process.stdin.close()
            # The second screen shows that the input has been read to its end.
            running.read_until(EXAMPLE_TOP + EXAMPLE_SETTINGS)
            cpu_before = running.cpu_seconds()
            time.sleep(1.0)
            self.assertIsNone(running.process.poll(), "the console ended at end of input")
            cpu = running.cpu_seconds() - cpu_before
            out, _ = running.kill()
        self.assertEqual(out, EXAMPLE_TOP + EXAMPLE_SETTINGS)
        # Waiting must not burn a core: a busy loop would use most of that
        # second (less on a loaded machine, but never next to nothing).
        self.assertLess(cpu, 0.3)

    def test_a_terminal_can_go_on_after_end_of_file(self):
        master, slave = pty.openpty()
        try:
            with self.console.start(menu_text=EXAMPLE, stdin=slave) as running:
                os.close(slave)
                slave = None
                os.write(master, b"3\n")
                running.read_until(EXAMPLE_TOP + EXAMPLE_SETTINGS)
                # End of file at the start of a line, then more input: the
                # terminal hands the console the end of file (a read of
                # nothing) before the next line, however late it reads.
                os.write(master, b"\x04")
                os.write(master, b"9\n")
                running.read_until(EXAMPLE_TOP + EXAMPLE_SETTINGS + EXAMPLE_TOP)
                os.write(master, b"9\n")
                status = running.process.wait(timeout=300)
                out, _ = running.kill()
        finally:
            os.close(master)
            if slave is not None:
                os.close(slave)
        self.assertEqual(out, EXAMPLE_TOP + EXAMPLE_SETTINGS + EXAMPLE_TOP)
        self.assertEqual(status, 0)


class Dispatch(ConsoleTestCase):
    def test_set_commands_succeed_even_when_out_of_range(self):
        text = menu({"PIN 4": {"index": 1, "command": "set_pin_data", "option": 4},
                     "PIN 3": {"index": 2, "command": "set_pin_data", "option": 3},
                     "Data -1": {"index": 3, "command": "set_data_index", "option": -1},
                     "Data none": {"index": 4, "command": "set_data_index"},
                     "Account 5": {"index": 5, "command": "set_account_index", "option": 5},
                     "Quit": QUIT})
        shown = screen("T", " 1: PIN 4", " 2: PIN 3", " 3: Data -1", " 4: Data none",
                       " 5: Account 5", QUIT_LINE)
        expected = shown
        for name in ("PIN 4", "PIN 3", "Data -1", "Data none", "Account 5"):
            expected += " >> %s : success\n" % name + shown
        self.assertRun(self.run_console("1 2 3 4 5 9", menu_text=text), expected, 0)

    def test_unknown_commands_are_wrong_selections(self):
        text = menu({"Capital": {"index": 1, "command": "Exit"},
                     "Empty": {"index": 2, "command": ""},
                     "Number": {"index": 3, "command": 7},
                     "Quit": QUIT})
        shown = screen("T", " 1: Capital", " 2: Empty", " 3: Number", QUIT_LINE)
        expected = shown
        for number in (1, 2, 3):
            expected += " !! %d : wrong selection\n" % number + shown
        self.assertRun(self.run_console("1 2 3 9", menu_text=text), expected, 0)

    def test_timing_prints_nothing_for_commands_that_measure_nothing(self):
        text = menu({"On": {"index": 1, "command": "set_time_measurement", "option": 1},
                     "Two": {"index": 2, "command": "set_time_measurement", "option": 2},
                     "Data": {"index": 3, "command": "set_data_index", "option": 1},
                     "Quit": QUIT})
        shown = screen("T", " 1: On", " 2: Two", " 3: Data", QUIT_LINE)
        expected = (shown + " >> On : success\n" + shown + " >> Data : success\n" + shown
                    + " >> Two : success\n" + shown + " >> Data : success\n" + shown)
        self.assertRun(self.run_console("1 3 2 3 9", menu_text=text), expected, 0)

    def test_exit_with_an_option_still_leaves(self):
        text = menu({"Quit": {"index": 9, "command": "exit", "option": 5}})
        self.assertRun(self.run_console("9", menu_text=text), screen("T", QUIT_LINE), 0)


REQUIRED_COMMANDS = (
    [("launch_api_interface", n) for n in range(100, 110)]
    + [("special_transaction_test", None)]
    + [("set_data_index", n) for n in range(5)]
    + [("set_account_index", n) for n in range(5)]
    + [("set_pin_data", n) for n in range(4)]
    + [("set_time_measurement", 1), ("set_time_measurement", 0)])


def reachable(node):
    """(command, option, depth) of every listed item reachable from a node,
    following the console's rules: items are the members of "entry" when it
    is a non-empty object, listed when "index" is an integer >= 1; an item
    without command but with a submenu is entered."""
    found = []
    entry = node.get("entry")
    items = entry if isinstance(entry, dict) and entry else node
    for item in items.values():
        if not isinstance(item, dict):
            continue
        index = item.get("index")
        if not isinstance(index, int) or isinstance(index, bool) or index < 1:
            continue
        command = item.get("command")
        sub = item.get("entry")
        if isinstance(command, str) and command:
            found.append((command, item.get("option")))
        elif isinstance(sub, dict) and sub:
            found.append(("entry", None))
            found.extend(reachable(item))
    return found


class DefaultMenu(ConsoleTestCase):
    def load(self):
        with open(DEFAULT_MENU, encoding="utf-8") as f:
            return json.load(f)

    def test_reaches_every_command(self):
        document = self.load()
        self.assertEqual(len(document), 1)
        (top,) = document.values()
        found = reachable(top)
        for command, option in REQUIRED_COMMANDS:
            if option is None:
                self.assertIn(command, [c for c, _ in found])
            else:
                self.assertIn((command, option), found)
        self.assertIn(("exit", None), found)  # quit at the top

    def test_every_submenu_has_a_way_back(self):
        (top,) = self.load().values()

        def check(node, name):
            items = node["entry"]
            self.assertTrue(any(isinstance(i, dict) and i.get("command") == "exit"
                                and isinstance(i.get("index"), int) and i["index"] >= 1
                                for i in items.values()), name)
            for child_name, child in items.items():
                if isinstance(child, dict) and isinstance(child.get("entry"), dict) and child["entry"]:
                    check(child, child_name)

        check(top, "top")

    def test_console_shows_and_walks_the_default_menu(self):
        top = screen("Keystore test console", " 1: Keystore API", " 2: Special transactions",
                     " 3: Data set", " 4: Account", " 5: Test PIN", " 6: Timing", "99: Quit")
        api = screen("1: Keystore API", " 1: Generate seed", " 2: Delete seed", " 3: Restore seed",
                     " 4: Get mnemonic", " 5: Sign transaction", " 6: Get address",
                     " 7: Get private key", " 8: Save PIN", " 9: Check PIN", "10: Check mnemonic",
                     "99: Back")
        data = screen("3: Data set", " 1: Data set 0", " 2: Data set 1", " 3: Data set 2",
                      " 4: Data set 3", " 5: Data set 4", "99: Back")
        account = screen("4: Account", " 1: Account 0", " 2: Account 1", " 3: Account 2",
                         " 4: Account 3", " 5: Account 4", "99: Back")
        pin = screen("5: Test PIN", " 1: Test PIN 0", " 2: Test PIN 1", " 3: Test PIN 2",
                     " 4: Test PIN 3", "99: Back")
        timing = screen("6: Timing", " 1: Timing on", " 2: Timing off", "99: Back")
        stdin = "1 99 3 5 99 4 4 99 5 2 99 6 1 2 99 99\n"
        expected = (top + api + top
                    + data + " >> Data set 4 : success\n" + data + top
                    + account + " >> Account 3 : success\n" + account + top
                    + pin + " >> Test PIN 1 : success\n" + pin + top
                    + timing + " >> Timing on : success\n" + timing
                    + " >> Timing off : success\n" + timing + top)
        self.assertRun(self.run_console(stdin, menu_file=DEFAULT_MENU), expected, 0)


SKIPPED = 77
NOBODY = "65534"


def run_as_nobody(binary, default_menu, emulator):
    """Runs the whole suite again as an unprivileged user, so the harness's
    `unshare --map-root-user` road is exercised too. Returns the suite's
    status, or SKIPPED when this process is not root or the machine does not
    let an unprivileged user reach the files or make a user namespace."""
    if os.geteuid() != 0:
        print("skipped: not root, so every other case already ran unprivileged")
        return SKIPPED
    drop = ["setpriv", "--reuid=" + NOBODY, "--regid=" + NOBODY, "--clear-groups"]
    script = os.path.abspath(__file__)
    probe = subprocess.run(drop + ["sh", "-c", 'test -x "$1" && test -r "$2" && test -r "$3" '
                                   "&& unshare --map-root-user --mount true",
                                   "probe", binary, script, default_menu],
                           stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL, check=False)
    if probe.returncode != 0:
        print("skipped: an unprivileged user cannot read the build or make a user namespace here")
        return SKIPPED
    env = dict(os.environ, HOME="/tmp", TMPDIR="/tmp")
    return subprocess.run(drop + [sys.executable, script, "--binary", binary,
                                  "--default-menu", default_menu, "--emulator", emulator or ""],
                          env=env, check=False).returncode


def main():
    global BINARY, DEFAULT_MENU
    parser = argparse.ArgumentParser(add_help=False)
    parser.add_argument("--binary")
    parser.add_argument("--default-menu")
    parser.add_argument("--list", action="store_true")
    parser.add_argument("--as-nobody", action="store_true")
    parser.add_argument("--emulator")  # what runs the binary when it was built for another CPU
    args, rest = parser.parse_known_args()
    if args.list:
        suite = unittest.defaultTestLoader.loadTestsFromModule(sys.modules[__name__])
        for group in suite:
            for case in group:
                print(case.id().split(".", 1)[1])
        return 0
    if not args.binary:
        parser.error("--binary is required")
    BINARY = args.binary
    console_harness.set_emulator(args.emulator)
    DEFAULT_MENU = args.default_menu or os.path.join(
        os.path.dirname(os.path.abspath(__file__)), "..", "..", "..", "data", "menu.json")
    if args.as_nobody:
        return run_as_nobody(os.path.abspath(BINARY), os.path.abspath(DEFAULT_MENU), args.emulator)
    program = unittest.main(argv=[sys.argv[0]] + rest, exit=False, verbosity=2)
    return 0 if program.result.wasSuccessful() else 1


if __name__ == "__main__":
    sys.exit(main())
