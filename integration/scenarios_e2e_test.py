#!/usr/bin/python3
"""End-to-end tests of the keystore scenarios: the real console binary, the
real libteec, a private teesim daemon and the reference keystore TA. Each
test class starts its own daemon (fresh storage folder, private socket, the
build's TA folder); each run of the console gets a prepared menu at the
fixed menu path (console_harness), typed menu numbers, and its whole
standard output is compared.

Every expected value comes from the test-vector generator
(CA/src/console/scenarios/testdata/make_test_vectors.py), which derives it with independent,
well-known implementations; the checks the console cannot make itself
(a generated phrase is valid BIP-39, a signature recovers to the right
signer) are made with the same implementations, never with this project's
own crypto. Elapsed times vary: only they are matched by pattern.

Usage:
  scenarios_e2e_test.py --binary PATH --teesim PATH --ta-dir DIR --private-daemon PATH
                        --generator PATH [--default-menu FILE] [--valgrind PATH]
                        [--emulator CMD]
                        [unittest args...]
  scenarios_e2e_test.py --list        print the test classes, one per line
"""

import argparse
import importlib.util
import json
import os
import re
import shutil
import sys
import tempfile
import unittest

sys.path.insert(0, os.path.join(os.path.dirname(os.path.abspath(__file__)), "..", "CA", "testing"))
import console_harness  # noqa: E402

ARGS = None
GEN = None       # the generator module
VECTORS = None   # its derivation of every test vector

TIME_PATTERN = re.compile(r"\n ! Elapsed time: \d+ ms\.\n\n")
TIME_MARK = "\n ! Elapsed time: <ms> ms.\n\n"

# ---- the menu the tests drive ---------------------------------------------------

API_ITEMS = [
    ("Generate seed", 100), ("Delete seed", 101), ("Restore seed", 102),
    ("Get mnemonic", 103), ("Sign transaction", 104), ("Get address", 105),
    ("Get private key", 106), ("Save PIN", 107), ("Check PIN", 108),
    ("Check mnemonic", 109),
]


def _menu_items():
    items = {}
    for name, number in API_ITEMS:
        items[name] = {"index": number, "command": "launch_api_interface", "option": number}
    items["Special transactions"] = {"index": 50, "command": "special_transaction_test",
                                     "option": 0}
    for d in range(5):
        items["Data set %d" % d] = {"index": 10 + d, "command": "set_data_index", "option": d}
    for a in range(5):
        items["Account %d" % a] = {"index": 20 + a, "command": "set_account_index", "option": a}
    for p in range(4):
        items["Test PIN %d" % p] = {"index": 30 + p, "command": "set_pin_data", "option": p}
    items["Timing on"] = {"index": 40, "command": "set_time_measurement", "option": 1}
    items["Timing off"] = {"index": 41, "command": "set_time_measurement", "option": 0}
    items["Quit"] = {"index": 99, "command": "exit"}
    return items


ITEMS = _menu_items()
TITLE = "Scenarios"
MENU_TEXT = json.dumps({TITLE: {"entry": ITEMS}})
# The console lists items by ascending index, "%2d: name" (indices are unique here).
SCREEN = console_harness.screen(
    TITLE, *["%2d: %s" % (ITEMS[name]["index"], name)
             for name in sorted(ITEMS, key=lambda n: ITEMS[n]["index"])])


class Session:
    """The menu numbers to type and the output they must give."""

    def __init__(self, items=None, screen=None):
        self.items = items or ITEMS
        self.screen = screen or SCREEN
        self.keys = []
        self.expected = self.screen

    def run(self, name, lines=(), ok=True, timed=False):
        """Choose item `name`; the command prints `lines`, then (when
        `timed`) the elapsed time, then its success or fail line."""
        self.keys.append(str(self.items[name]["index"]))
        self.expected += "".join(line + "\n" for line in lines)
        if timed:
            self.expected += TIME_MARK
        self.expected += (" >> %s : success\n" if ok else " !! %s : fail\n") % name
        self.expected += self.screen
        return self

    def quit(self):
        self.keys.append(str(self.items["Quit"]["index"]))
        return self

    def stdin(self):
        return " ".join(self.keys) + "\n"


# ---- expected lines, from the generator's values ----------------------------------

def data_set(d):
    return VECTORS["data_sets"][d]


def account(d, a):
    return data_set(d)["accounts"][a]


def restore_lines(seed):
    return ["Seed successfully restored: ", " seed: [%s]" % seed.hex()]


def mnemonic_lines(received, d):
    return ["Received mnemonic: [%s]" % received,
            "Expected mnemonic: [%s]" % data_set(d)["mnemonic"]]


def sign_lines(d, a, received=None, restored=None):
    """Lines of 104 with the expected rows of (d, a); received (r, s, v)
    and the restored address default to the expected ones."""
    row = account(d, a)
    r, s, v = received or (row["r"], row["s"], row["v"])
    return ["Received:",
            " sig_r: [%s]" % r.hex(), " sig_s: [%s]" % s.hex(), " sig_v: [%02x]" % v,
            " Restored address: [%s]" % (restored or row["address"]).hex(),
            "Expected:",
            " sig_r: [%s]" % row["r"].hex(), " sig_s: [%s]" % row["s"].hex(),
            " sig_v: [%02x]" % row["v"],
            " Original address: [%s]" % row["address"].hex()]


def address_lines(d, a, received=None):
    expected = account(d, a)["address"]
    return ["Received address: [%s]" % (received or expected).hex(),
            "Expected address: [%s]" % expected.hex()]


def key_lines(d, a, received=None):
    expected = account(d, a)["private_key"]
    return ["Received private key: [%s]" % (received or expected).hex(),
            "Expected private key: [%s]" % expected.hex()]


def pin_saved_lines(p):
    return ["Pin successfully saved: ", " pin: [%s]" % VECTORS["pins"][p]]


def pin_checked_lines(p, correct):
    return ["Pin successfully checked: ",
            " pin: [%s] is %s" % (VECTORS["pins"][p], "CORRECT" if correct else "INCORRECT")]


def mnemonic_checked_lines(d):
    return ["Mnemonic successfully checked: ",
            " mnemonic: [%s] is CORRECT" % data_set(d)["mnemonic"]]


# ---- the independent implementations ----------------------------------------------

def wallet_of_phrase(phrase):
    """(private key, address) of account 0..4 of the wallet of a BIP-39
    phrase, derived by the generator's libraries."""
    seed = GEN.Mnemonic.to_seed(phrase, passphrase="")
    keys = []
    for a in range(5):
        key = GEN.derive_private_key(seed, a).PrivateKey()
        keys.append((key, GEN.address_of(GEN.public_point(key))))
    return keys


def recovered_signer(digest, r, s, v):
    """The address that (digest, r, s, v) recovers to, by the generator's
    recovery on python-ecdsa's curve arithmetic; None when none."""
    point = GEN.recover(digest, int.from_bytes(r, "big"), int.from_bytes(s, "big"), v)
    if point is None:
        return None
    return GEN.keccak256(GEN.int32(point.x()) + GEN.int32(point.y()))[-20:]


def special_phrase():
    return GEN.Mnemonic("english").to_mnemonic(VECTORS["special_seed"])


# ---- the test base -------------------------------------------------------------------

class ScenarioTestCase(unittest.TestCase):
    """One private daemon for the whole class (fresh storage)."""

    maxDiff = None

    @classmethod
    def setUpClass(cls):
        cls.daemon = console_harness.started_daemon(ARGS.teesim, ARGS.ta_dir)

    @classmethod
    def tearDownClass(cls):
        cls.daemon.close()

    def console(self, daemon=None):
        return console_harness.Console(ARGS.binary,
                                       env=(daemon or self.daemon).client_environment())

    def run_session(self, session, daemon=None, **kwargs):
        return self.console(daemon).run(session.stdin(), menu_text=MENU_TEXT, **kwargs)

    def assertOutput(self, result, session, status=0):
        """The whole output equals the session's, elapsed times aside (an
        elapsed-time block must stand exactly where one is expected)."""
        self.assertEqual(TIME_PATTERN.sub(TIME_MARK, result.stdout), session.expected,
                         "stderr: " + result.stderr)
        self.assertEqual(result.status, status, "stderr: " + result.stderr)

    def captured(self, pattern, text, count=1):
        found = re.findall(pattern, text)
        self.assertEqual(len(found), count, "%r in:\n%s" % (pattern, text))
        return found


# ---- every data set and account -------------------------------------------------------

class DataSets(ScenarioTestCase):
    """Restore each data set, then every account's key, address and
    signature equal the generator's, and the recovered signer is the
    original address."""

    def check_data_set(self, d):
        session = Session()
        session.run("Data set %d" % d)
        session.run("Restore seed", restore_lines(data_set(d)["seed"]))
        session.run("Get mnemonic", mnemonic_lines(data_set(d)["mnemonic"], d))
        for a in range(5):
            session.run("Account %d" % a)
            session.run("Sign transaction", sign_lines(d, a))
            session.run("Get address", address_lines(d, a))
            session.run("Get private key", key_lines(d, a))
        session.run("Check mnemonic", mnemonic_checked_lines(d))
        self.assertOutput(self.run_session(session.quit()), session)

    def test_data_set_0(self):
        self.check_data_set(0)

    def test_data_set_1(self):
        self.check_data_set(1)

    def test_data_set_2(self):
        self.check_data_set(2)

    def test_data_set_3(self):
        self.check_data_set(3)

    def test_data_set_4(self):
        self.check_data_set(4)

    def test_data_set_changes_only_what_is_expected_not_what_the_keystore_holds(self):
        session = Session()
        session.run("Data set 1")
        session.run("Restore seed", restore_lines(data_set(1)["seed"]))
        session.run("Data set 4")
        held = data_set(1)["mnemonic"]
        session.run("Get mnemonic", mnemonic_lines(held, 4))
        session.run("Get address", address_lines(4, 0, received=account(1, 0)["address"]))
        self.assertOutput(self.run_session(session.quit()), session)


# ---- generated seeds, phrases and PINs ---------------------------------------------------

class SeedsAndPins(ScenarioTestCase):

    def test_generated_seed_is_a_fresh_valid_12_word_phrase(self):
        phrases = []
        for _ in range(2):
            session = Session()
            session.run("Generate seed", ["Seed successfully generated"])
            run = self.run_session(session.quit())
            self.assertOutput(run, session)

            session = Session().run("Get mnemonic", mnemonic_lines("<phrase>", 0)).quit()
            run = self.run_session(session)
            (phrase,) = self.captured(r"Received mnemonic: \[([^\]]*)\]", run.stdout)
            session.expected = session.expected.replace("<phrase>", phrase)
            self.assertOutput(run, session)
            phrases.append(phrase)

            self.assertEqual(len(phrase.split(" ")), 12, phrase)
            self.assertTrue(GEN.Mnemonic("english").check(phrase),
                            "not a valid BIP-39 phrase: " + phrase)
            self.assertNotIn(phrase, [data_set(d)["mnemonic"] for d in range(5)])
            self.assertNotEqual(phrase, special_phrase())

            # The keystore's keys are those of that phrase's wallet.
            wallet = wallet_of_phrase(phrase)
            session = Session()
            for a in (0, 2):
                session.run("Account %d" % a)
                session.run("Get address", address_lines(0, a, received=wallet[a][1]))
                session.run("Get private key", key_lines(0, a, received=wallet[a][0]))
            self.assertOutput(self.run_session(session.quit()), session)
        self.assertNotEqual(phrases[0], phrases[1])

    def test_check_mnemonic_is_correct_for_every_data_set_without_a_seed_restored(self):
        session = Session()
        for d in range(5):
            session.run("Data set %d" % d)
            session.run("Check mnemonic", mnemonic_checked_lines(d))
        self.assertOutput(self.run_session(session.quit()), session)

    def test_saved_pin_checks_correct_and_another_incorrect(self):
        session = Session()
        session.run("Restore seed", restore_lines(data_set(0)["seed"]))
        # Restoring clears the PIN: checking without one fails the command.
        session.run("Check PIN", ["Failed to check pin"], ok=False)
        session.run("Save PIN", pin_saved_lines(0))
        session.run("Check PIN", pin_checked_lines(0, True))
        for p in (1, 2, 3):
            session.run("Test PIN %d" % p)
            session.run("Check PIN", pin_checked_lines(p, False))
        session.run("Test PIN 2")
        session.run("Save PIN", pin_saved_lines(2))
        session.run("Check PIN", pin_checked_lines(2, True))
        session.run("Test PIN 0")
        session.run("Check PIN", pin_checked_lines(0, False))
        self.assertOutput(self.run_session(session.quit()), session)

    def test_five_wrong_checks_lock_the_pin_until_it_is_saved_again(self):
        session = Session()
        session.run("Restore seed", restore_lines(data_set(0)["seed"]))
        session.run("Save PIN", pin_saved_lines(0))
        # Four wrong checks do not lock; the right PIN resets the count.
        session.run("Test PIN 1")
        for _ in range(4):
            session.run("Check PIN", pin_checked_lines(1, False))
        session.run("Test PIN 0")
        session.run("Check PIN", pin_checked_lines(0, True))
        # Five in a row do: now the right PIN is refused too.
        session.run("Test PIN 1")
        for _ in range(5):
            session.run("Check PIN", pin_checked_lines(1, False))
        session.run("Test PIN 0")
        session.run("Check PIN", pin_checked_lines(0, False))
        session.run("Check PIN", pin_checked_lines(0, False))
        self.assertOutput(self.run_session(session.quit()), session)

        # The lock is kept in the keystore: a new console still sees it.
        session = Session()
        session.run("Check PIN", pin_checked_lines(0, False))
        # Saving the PIN again lifts it.
        session.run("Save PIN", pin_saved_lines(0))
        session.run("Check PIN", pin_checked_lines(0, True))
        self.assertOutput(self.run_session(session.quit()), session)

    def test_restoring_the_seed_clears_a_locked_pin(self):
        session = Session()
        session.run("Restore seed", restore_lines(data_set(0)["seed"]))
        session.run("Save PIN", pin_saved_lines(0))
        session.run("Test PIN 3")
        for _ in range(6):
            session.run("Check PIN", pin_checked_lines(3, False))
        session.run("Restore seed", restore_lines(data_set(0)["seed"]))
        session.run("Check PIN", ["Failed to check pin"], ok=False)
        session.run("Save PIN", pin_saved_lines(3))
        session.run("Check PIN", pin_checked_lines(3, True))
        self.assertOutput(self.run_session(session.quit()), session)

    def test_delete_seed_is_refused_and_leaves_the_seed(self):
        session = Session()
        session.run("Data set 2")
        session.run("Restore seed", restore_lines(data_set(2)["seed"]))
        session.run("Delete seed", ["Failed to delete seed"], ok=False)
        session.run("Get mnemonic", mnemonic_lines(data_set(2)["mnemonic"], 2))
        self.assertOutput(self.run_session(session.quit()), session)


# ---- the special transaction test ---------------------------------------------------------

class SpecialTransactions(ScenarioTestCase):

    # A signature the special transaction test prints (104 goes on with the
    # restored address).
    SIGNATURE = (r"Received:\n sig_r: \[([0-9a-f]{64})\]\n sig_s: \[([0-9a-f]{64})\]\n"
                 r" sig_v: \[([0-9a-f]{2})\]\n(?! Restored address)")

    def test_eleven_signatures_by_account_0_of_the_special_seed_and_the_index_kept(self):
        phrase = special_phrase()
        wallet = wallet_of_phrase(phrase)
        key0, signer = wallet[0]

        session = Session()
        session.run("Data set 3")
        session.run("Account 3")
        lines = restore_lines(VECTORS["special_seed"])
        lines.append("Received private key: [%s]" % key0.hex())
        for _ in range(11):
            lines += ["Received:", " sig_r: [<r>]", " sig_s: [<s>]", " sig_v: [<v>]"]
        session.run("Special transactions", lines)
        # The account index is 3 again: the expected rows and the keystore's
        # answer are both account 3's. The keystore now holds the special seed.
        session.run("Get address", address_lines(3, 3, received=wallet[3][1]))
        session.run("Get mnemonic", mnemonic_lines(phrase, 3))
        run = self.run_session(session.quit())

        signatures = self.captured(self.SIGNATURE, run.stdout, count=11)
        expected = session.expected
        for r, s, v in signatures:
            expected = expected.replace(" sig_r: [<r>]", " sig_r: [%s]" % r, 1)
            expected = expected.replace(" sig_s: [<s>]", " sig_s: [%s]" % s, 1)
            expected = expected.replace(" sig_v: [<v>]", " sig_v: [%s]" % v, 1)
        session.expected = expected
        self.assertOutput(run, session)

        for i, ((_, digest), (r, s, v)) in enumerate(zip(VECTORS["specials"], signatures)):
            self.assertIn(int(v, 16), (0, 1), i)
            self.assertEqual(recovered_signer(digest, bytes.fromhex(r), bytes.fromhex(s),
                                              int(v, 16)), signer,
                             "special transaction %d is not signed by account 0" % i)
        self.assertNotIn(phrase, [data_set(d)["mnemonic"] for d in range(5)])


# ---- what the operator sees when things fail ------------------------------------------------

class FailurePaths(ScenarioTestCase):

    def test_no_seed_in_the_keystore(self):
        # The class's daemon has fresh storage and no test here stores a seed.
        session = Session()
        session.run("Get mnemonic", ["Failed to get mnemonic"], ok=False)
        session.run("Sign transaction", ["Failed to sign transaction"], ok=False)
        session.run("Get address", ["Failed to get address"], ok=False)
        session.run("Get private key", ["Failed to get private key"], ok=False)
        session.run("Save PIN", ["Failed to save pin"], ok=False)
        session.run("Check PIN", ["Failed to check pin"], ok=False)
        session.run("Check mnemonic", mnemonic_checked_lines(0))
        self.assertOutput(self.run_session(session.quit()), session)

    def test_daemon_stopped_between_two_commands(self):
        with console_harness.TeesimDaemon(ARGS.teesim, ARGS.ta_dir) as daemon:
            console = self.console(daemon)
            session = Session()
            session.run("Restore seed", restore_lines(data_set(0)["seed"]))
            with console.start(menu_text=MENU_TEXT) as running:
                running.send(session.stdin())
                running.read_until(session.expected)
                daemon.stop()
                session.keys = []
                session.run("Get mnemonic", ["Failed to get mnemonic"], ok=False)
                session.run("Check mnemonic", ["Failed to check mnemonic"], ok=False)
                session.run("Data set 1")
                session.run("Restore seed", ["Failed to restore seed"], ok=False)
                session.quit()
                running.send(session.stdin())
                result = running.finish()
            self.assertOutput(result, session)
            self.assertIn("poc_getMnemonic", daemon.read_client_log())
            self.assertIn("InvokeCommand failed", daemon.read_client_log())

    def test_no_daemon_to_reach(self):
        with console_harness.TeesimDaemon(ARGS.teesim, ARGS.ta_dir) as daemon:
            daemon.stop()
            session = Session()
            session.run("Restore seed", ["Failed to restore seed"], ok=False)
            session.run("Check mnemonic", ["Failed to check mnemonic"], ok=False)
            session.run("Special transactions", ["Failed to restore seed"], ok=False)
            session.run("Delete seed", ["Failed to delete seed"], ok=False)
            self.assertOutput(self.run_session(session.quit(), daemon=daemon), session)
            self.assertIn("TEE connection is not established", daemon.read_client_log())


# ---- timing --------------------------------------------------------------------------------

class Timing(ScenarioTestCase):

    def test_elapsed_time_follows_every_keystore_command_while_timing_is_on(self):
        session = Session()
        session.run("Restore seed", restore_lines(data_set(0)["seed"]))
        session.run("Timing on")
        session.run("Restore seed", restore_lines(data_set(0)["seed"]), timed=True)
        session.run("Sign transaction", sign_lines(0, 0), timed=True)
        session.run("Check PIN", ["Failed to check pin"], ok=False, timed=True)
        # Nothing is measured for a set command or for 101.
        session.run("Account 1")
        session.run("Delete seed", ["Failed to delete seed"], ok=False)
        session.run("Get private key", key_lines(0, 1), timed=True)
        lines = restore_lines(VECTORS["special_seed"])
        lines.append("Received private key: [%s]" % wallet_of_phrase(special_phrase())[0][0].hex())
        for _ in range(11):
            lines += ["Received:", " sig_r: [<r>]", " sig_s: [<s>]", " sig_v: [<v>]"]
        session.run("Special transactions", lines, timed=True)
        session.run("Timing off")
        session.run("Restore seed", restore_lines(data_set(0)["seed"]))
        run = self.run_session(session.quit())
        signatures = self.captured(SpecialTransactions.SIGNATURE, run.stdout, count=11)
        for r, s, v in signatures:
            session.expected = session.expected.replace(" sig_r: [<r>]", " sig_r: [%s]" % r, 1)
            session.expected = session.expected.replace(" sig_s: [<s>]", " sig_s: [%s]" % s, 1)
            session.expected = session.expected.replace(" sig_v: [<v>]", " sig_v: [%s]" % v, 1)
        self.assertOutput(run, session)
        self.assertEqual(len(TIME_PATTERN.findall(run.stdout)), 5)


# ---- the simulated TEE started by the console itself, and its storage -----------------------

class StartsByItselfAndKeepsStorage(unittest.TestCase):
    """No daemon is started by the test: the console's libteec starts one
    (as on an operator's machine), with a private socket and storage. Seed
    and PIN survive a restart of the console and of the daemon."""

    maxDiff = None

    def setUp(self):
        self.folder = tempfile.mkdtemp(prefix="tessera-autostart-")
        self.socket = os.path.join(self.folder, "teesim.sock")
        self.env = {"TEESIM_SOCKET": self.socket, "TEESIM_DAEMON": os.path.abspath(ARGS.teesim),
                    "TEESIM_TA_DIR": os.path.abspath(ARGS.ta_dir),
                    "TEESIM_STORAGE_DIR": os.path.join(self.folder, "storage"),
                    "DLOG_FILE": os.path.join(self.folder, "client.log"),
                    **console_harness.emulator_environment()}

    def tearDown(self):
        try:
            console_harness.stop_serving_daemon(self.socket)
        except OSError:
            pass  # none is serving (any more)
        finally:
            shutil.rmtree(self.folder, ignore_errors=True)

    def run_session(self, session):
        return console_harness.Console(ARGS.binary, env=self.env).run(
            session.stdin(), menu_text=MENU_TEXT)

    def check(self, session):
        result = self.run_session(session.quit())
        self.assertEqual(result.stdout, session.expected, "stderr: " + result.stderr)
        self.assertEqual(result.status, 0, "stderr: " + result.stderr)

    def test_seed_and_pin_survive_console_and_daemon_restarts(self):
        session = Session()
        session.run("Data set 2")
        session.run("Restore seed", restore_lines(data_set(2)["seed"]))
        session.run("Test PIN 1")
        session.run("Save PIN", pin_saved_lines(1))
        self.check(session)
        first = console_harness.serving_pid(self.socket)

        def still_there():
            s = Session()
            s.run("Data set 2")
            s.run("Get mnemonic", mnemonic_lines(data_set(2)["mnemonic"], 2))
            s.run("Test PIN 1")
            s.run("Check PIN", pin_checked_lines(1, True))
            return s

        # A new console, the same daemon.
        self.check(still_there())
        self.assertEqual(console_harness.serving_pid(self.socket), first)

        # A new daemon, started again by the next console, on the same storage.
        console_harness.stop_serving_daemon(self.socket)
        self.check(still_there())
        self.assertNotEqual(console_harness.serving_pid(self.socket), first)


# ---- one full pass over the default menu under valgrind --------------------------------------

class Valgrind(ScenarioTestCase):
    """Every item of the default menu once, the console under valgrind's
    memcheck (the daemon and the TA are not): no error, no leak."""

    def test_full_pass_over_the_default_menu(self):
        if not ARGS.valgrind:
            self.skipTest("no --valgrind given")
        if ARGS.emulator:
            self.skipTest("valgrind cannot run a program built for another CPU")
        log = os.path.join(self.daemon.folder, "valgrind.log")
        console = console_harness.Console(
            ARGS.valgrind, env=self.daemon.client_environment(), timeout=1200.0,
            args=["--quiet", "--error-exitcode=99", "--leak-check=full",
                  "--show-leak-kinds=definite,indirect,possible",
                  "--errors-for-leak-kinds=definite,indirect,possible",
                  "--log-file=" + log, os.path.abspath(ARGS.binary)])
        # Timing on first, so the timed paths run too; off at the end.
        keys = ("6 1 99 "                                   # Timing: on
                "1 3 1 2 4 5 6 7 8 9 10 99 "                # Keystore API: every call
                "2 "                                        # Special transactions
                "3 1 2 3 4 5 99 4 1 2 3 4 5 99 5 1 2 3 4 99 "  # data sets, accounts, PINs
                "6 2 99 99\n")                              # Timing: off; quit
        result = console.run(keys, menu_file=ARGS.default_menu)
        with open(log, encoding="utf-8", errors="replace") as f:
            report = f.read()
        self.assertEqual(result.status, 0, "valgrind:\n" + report + "\nstderr: " + result.stderr)
        self.assertEqual(report, "", "valgrind reported")
        # Every command ran: the menu reported each, and only 101 failed.
        outcomes = re.findall(r"^ (>>|!!) (.*) : (success|fail)$", result.stdout, re.M)
        self.assertEqual([name for _, name, _ in outcomes],
                         ["Timing on", "Restore seed", "Generate seed", "Delete seed",
                          "Get mnemonic", "Sign transaction", "Get address", "Get private key",
                          "Save PIN", "Check PIN", "Check mnemonic", "Special transactions"]
                         + ["Data set %d" % d for d in range(5)]
                         + ["Account %d" % a for a in range(5)]
                         + ["Test PIN %d" % p for p in range(4)] + ["Timing off"])
        self.assertEqual([name for _, name, verdict in outcomes if verdict == "fail"],
                         ["Delete seed"])
        self.assertEqual(len(TIME_PATTERN.findall(result.stdout)), 10)


def load_generator(path):
    found = importlib.util.spec_from_file_location("testvector_generator", path)
    module = importlib.util.module_from_spec(found)
    found.loader.exec_module(module)
    return module


def main():
    global ARGS, GEN, VECTORS
    parser = argparse.ArgumentParser(add_help=False)
    parser.add_argument("--binary")
    parser.add_argument("--teesim")
    parser.add_argument("--ta-dir")
    parser.add_argument("--private-daemon")
    parser.add_argument("--generator")
    parser.add_argument("--default-menu")
    parser.add_argument("--valgrind")
    parser.add_argument("--emulator")  # what runs the build's programs (another CPU's)
    parser.add_argument("--list", action="store_true")
    ARGS, rest = parser.parse_known_args()
    if ARGS.list:
        suite = unittest.defaultTestLoader.loadTestsFromModule(sys.modules[__name__])
        for group in suite:
            for case in group:
                print(case.id().split(".")[1])
                break
        return 0
    for name in ("binary", "teesim", "ta_dir", "private_daemon", "generator"):
        if not getattr(ARGS, name):
            parser.error("--%s is required" % name.replace("_", "-"))
    os.environ["TEESIM_PRIVATE_DAEMON"] = ARGS.private_daemon
    if not ARGS.default_menu:
        ARGS.default_menu = os.path.join(os.path.dirname(os.path.abspath(__file__)),
                                         "..", "CA", "data", "menu.json")
    console_harness.set_emulator(ARGS.emulator)
    GEN = load_generator(ARGS.generator)
    VECTORS = GEN.derive()
    program = unittest.main(argv=[sys.argv[0]] + rest, exit=False, verbosity=2)
    return 0 if program.result.wasSuccessful() else 1


if __name__ == "__main__":
    sys.exit(main())
