#!/usr/bin/python3
"""End-to-end tests of tessera-check: the real binary, the real libteec, a
private teesim daemon per test class (fresh storage, private socket) and a
keystore TA — the reference one, or one of its faulty variants, each of
which must make exactly the cases that touch its defect fail, with the
right message, in the text output and in the JUnit report (read back with
xml.etree, counts included).

The state a run leaves in the wallet is read back with the real console
(console_harness), and the phrase it must hold is derived independently
(python3-mnemonic).

Usage:
  check_e2e_test.py --binary PATH --teesim PATH --ta-dir DIR --faulty-ta-dir DIR
                    --console PATH [--emulator CMD] [unittest args...]
  check_e2e_test.py --list        print the test classes, one per line
"""

import argparse
import json
import os
import pty
import re
import select
import subprocess
import sys
import tempfile
import unittest
import xml.etree.ElementTree as ET

sys.path.insert(0, os.path.join(os.path.dirname(os.path.abspath(__file__)), "..", "CA", "testing"))
import console_harness  # noqa: E402

ARGS = None
TIMEOUT = 300          # seconds a whole run may take here (a guard, not a measurement)
CALL_TIMEOUT = "120"   # --timeout of the runs that must not time out
OWN_SEED = "0123456789abcdeffedcba9876543210"
ALL_CASES = 80
OWN_SEED_CASES = set(range(8001, 8007))
CASE_LINE = re.compile(r"^(\d{4}) (.*) \.\.\. (ok|FAILED: .*|skipped: .*)$")
CLOSING = re.compile(r"^(\d+) passed, (\d+) failed, (\d+) skipped$")


def rows():
    return range(1001, 1026)


def exact_rows():
    return range(1101, 1126)


class Run:
    """One finished run of the checker."""

    def __init__(self, done, junit=None, report=None):
        self.status = done.returncode
        self.stdout = done.stdout.decode("utf-8", "replace")
        self.stderr = done.stderr.decode("utf-8", "replace")
        self.lines = self.stdout.splitlines()
        self.junit = junit
        self.report = report
        self.cases = {}
        for line in self.lines[1:]:
            m = CASE_LINE.match(line)
            if m:
                self.cases[int(m.group(1))] = m.group(3)

    def failed(self):
        return {n for n, verdict in self.cases.items() if verdict.startswith("FAILED")}

    def skipped(self):
        return {n for n, verdict in self.cases.items() if verdict.startswith("skipped")}

    def closing(self):
        m = CLOSING.match(self.lines[-1]) if self.lines else None
        return tuple(int(g) for g in m.groups()) if m else None


class CheckerTestCase(unittest.TestCase):
    """One private daemon for the whole class, on the class's TA folder."""

    maxDiff = None
    TA_DIR = None  # a folder name under --faulty-ta-dir; None: the reference TA

    @classmethod
    def setUpClass(cls):
        ta_dir = ARGS.ta_dir if cls.TA_DIR is None else os.path.join(ARGS.faulty_ta_dir, cls.TA_DIR)
        cls.daemon = console_harness.started_daemon(ARGS.teesim, ta_dir)

    @classmethod
    def tearDownClass(cls):
        cls.daemon.close()

    def env(self, **extra):
        env = dict(os.environ)
        env.update(self.daemon.client_environment())
        env.pop("NO_COLOR", None)
        env.update(extra)
        return env

    def check(self, *args, env=None, stdin=subprocess.DEVNULL, reports=False):
        """Runs the checker to its end with `args`; with `reports`, also
        asks for a JUnit and a JSON report and reads them back."""
        args = list(args)
        folder = None
        if reports:
            folder = tempfile.mkdtemp(prefix="tessera-check-e2e-")
            args += ["--junit", os.path.join(folder, "junit.xml"),
                     "--json", os.path.join(folder, "report.json")]
        done = subprocess.run(console_harness.emulated([ARGS.binary] + args), stdin=stdin, stdout=subprocess.PIPE,
                              stderr=subprocess.PIPE, env=env or self.env(), timeout=TIMEOUT,
                              check=False)
        junit = report = None
        if reports:
            junit = ET.parse(os.path.join(folder, "junit.xml")).getroot()
            with open(os.path.join(folder, "report.json"), encoding="utf-8") as f:
                report = json.load(f)
            for name in ("junit.xml", "report.json"):
                os.unlink(os.path.join(folder, name))
            os.rmdir(folder)
        return Run(done, junit, report)

    def assertJunit(self, run, failed, skipped=frozenset()):
        """The JUnit report holds one testcase per case of the run, the
        failures and skips exactly where the text output has them, and
        counts that add up."""
        root = run.junit
        self.assertEqual(root.tag, "testsuites")
        cases = root.findall("./testsuite/testcase")
        self.assertEqual(int(root.get("tests")), len(cases))
        self.assertEqual(len(cases), len(run.cases))
        self.assertEqual(int(root.get("failures")), len(failed))
        self.assertEqual(int(root.get("skipped")), len(skipped))
        self.assertEqual(int(root.get("errors")), 0)
        suites = root.findall("./testsuite")
        self.assertEqual(sum(int(s.get("tests")) for s in suites), len(cases))
        self.assertEqual(sum(int(s.get("failures")) for s in suites), len(failed))
        for s in suites:
            self.assertEqual(int(s.get("tests")), len(s.findall("testcase")))
        by_number = {int(c.get("name").split(" ", 1)[0]): c for c in cases}
        self.assertEqual(set(by_number), set(run.cases))
        for number, case in by_number.items():
            failure = case.find("failure")
            self.assertEqual(failure is not None, number in failed, number)
            self.assertEqual(case.find("skipped") is not None, number in skipped, number)
            if failure is not None:
                self.assertEqual("FAILED: " + failure.get("message"), run.cases[number])
                self.assertTrue(failure.text.strip(), number)

    def console_phrase(self):
        """The phrase the wallet holds, as the real console reads it."""
        menu = json.dumps({"Read": {"entry": {
            "Get mnemonic": {"index": 1, "command": "launch_api_interface", "option": 103},
            "Quit": {"index": 99, "command": "exit"}}}})
        console = console_harness.Console(ARGS.console, env=self.daemon.client_environment())
        result = console.run("1\n99\n", menu_text=menu)
        found = re.findall(r"Received mnemonic: \[(.*)\]", result.stdout)
        self.assertEqual(len(found), 1, result.stdout + result.stderr)
        return found[0]

    def storage_snapshot(self):
        """Every file of the daemon's storage with its bytes and times."""
        snapshot = {}
        for folder, _, files in os.walk(self.daemon.storage):
            for name in files:
                path = os.path.join(folder, name)
                st = os.stat(path)
                with open(path, "rb") as f:
                    snapshot[path] = (f.read(), st.st_mtime_ns, st.st_ino)
        return snapshot


def phrase_of(seed_hex):
    from mnemonic import Mnemonic  # Debian's python3-mnemonic
    return Mnemonic("english").to_mnemonic(bytes.fromhex(seed_hex))


# ---- the reference keystore TA --------------------------------------------------------

class ReferenceTa(CheckerTestCase):
    """Against the reference TA every case passes, the reports agree with
    the text, and the wallet is left as the first line says."""

    def test_every_case_passes_and_the_wallet_holds_the_given_seed(self):
        run = self.check("--allow-wipe", "--seed", OWN_SEED, "--timeout", CALL_TIMEOUT, reports=True)
        self.assertEqual(run.status, 0, run.stdout + run.stderr)
        self.assertEqual(run.stderr, "")
        self.assertEqual(run.lines[0],
                         "tessera-check 0.1.0: runs destructive cases (--allow-wipe); the wallet "
                         "(selector 1/84) is left holding the seed given with --seed, without a PIN")
        self.assertEqual(len(run.cases), ALL_CASES)
        self.assertEqual(set(run.cases.values()), {"ok"})
        self.assertEqual(len(run.lines), ALL_CASES + 2)
        self.assertEqual(run.lines[-1], "80 passed, 0 failed, 0 skipped")
        self.assertJunit(run, failed=set())
        report = run.report
        self.assertEqual(report["summary"], {"passed": 80, "failed": 0, "skipped": 0})
        case_records = [r for r in report["records"] if r["record"] == "case"]
        self.assertEqual(len(case_records), ALL_CASES)
        self.assertTrue(all(r["verdict"] == "passed" for r in case_records))
        checks = [r for r in report["records"] if r["record"] == "check"]
        self.assertTrue(checks and all(r["passed"] for r in checks))
        calls = [r for r in report["records"] if r["record"] == "call"]
        self.assertEqual(sum(c["duration_us"] for c in calls), report["keystore_us"])
        self.assertGreater(report["wall_us"], report["keystore_us"])
        self.assertEqual({c["function"] for c in report["calls"]},
                         {"poc_check_mnemonic", "poc_check_pin", "poc_delete_seed",
                          "poc_generate_seed", "poc_getAddress", "poc_getMnemonic",
                          "poc_getPrivateKey", "poc_restore_seed", "poc_save_pin",
                          "poc_signTransaction"})
        self.assertEqual(self.console_phrase(), phrase_of(OWN_SEED))

    def test_without_a_seed_every_case_passes_and_data_set_0_is_left(self):
        run = self.check("--allow-wipe", "--timeout", CALL_TIMEOUT, reports=True)
        self.assertEqual(run.status, 0, run.stdout + run.stderr)
        self.assertIn("is left holding data set 0's seed, without a PIN", run.lines[0])
        # The own-seed cases are not part of a run without --seed.
        self.assertEqual(set(run.cases) & OWN_SEED_CASES, set())
        self.assertEqual(run.skipped(), set())
        self.assertEqual(run.failed(), set())
        self.assertEqual(run.lines[-1], "74 passed, 0 failed, 0 skipped")
        self.assertJunit(run, failed=set())
        self.assertEqual(self.console_phrase(), phrase_of("00" * 16))

    def test_own_seed_cases_named_without_a_seed_are_skipped_saying_why(self):
        run = self.check("-t", "80??")
        self.assertEqual(run.status, 0, run.stdout + run.stderr)
        self.assertEqual(run.skipped(), OWN_SEED_CASES)
        self.assertEqual({run.cases[n] for n in OWN_SEED_CASES},
                         {"skipped: needs --seed HEX, and --allow-wipe (it replaces the wallet's seed)"})
        self.assertEqual(run.lines[-1], "0 passed, 0 failed, 6 skipped")

    def test_without_allow_wipe_the_wallet_is_not_touched(self):
        self.check("--allow-wipe", "-t", "4002", "--seed", OWN_SEED)  # a known wallet to keep
        before = self.storage_snapshot()
        run = self.check("--seed", OWN_SEED, "--timeout", CALL_TIMEOUT)
        self.assertEqual(run.status, 0, run.stdout + run.stderr)
        self.assertEqual(run.lines[0],
                         "tessera-check 0.1.0: the wallet (selector 1/84) is left as it is: the "
                         "cases that would change it are skipped (--allow-wipe runs them)")
        ran = {n for n in run.cases if n // 1000 in (5, 7)}
        self.assertEqual(len(ran), 14)
        self.assertEqual(run.skipped(), set(run.cases) - ran)
        self.assertTrue(all(run.cases[n].startswith("skipped: destructive") for n in range(1001, 1006)))
        self.assertEqual(run.lines[-1], "14 passed, 0 failed, 66 skipped")
        self.assertEqual(self.storage_snapshot(), before)
        self.assertEqual(self.console_phrase(), phrase_of(OWN_SEED))

    def test_each_case_repeated_gives_a_timing_table(self):
        run = self.check("--allow-wipe", "-t", "5001", "-t", "6001", "--repeat", "3",
                         "--timeout", CALL_TIMEOUT, reports=True)
        self.assertEqual(run.status, 0, run.stdout + run.stderr)
        self.assertEqual(run.lines[-1], "2 passed, 0 failed, 0 skipped")
        start = run.lines.index(next(l for l in run.lines if l.startswith("keystore call")))
        self.assertEqual(run.lines[start].split(),
                         ["keystore", "call", "calls", "min", "median", "p90", "max",
                          "(microseconds)"])
        table = {}
        for line in run.lines[start + 1:-1]:
            name, count, *figures = line.split()
            table[name] = (int(count), [int(f) for f in figures])
        # 5001: 9 phrases; 6001: restore, save, check; and the restore that
        # leaves the wallet.
        self.assertEqual({n: c for n, (c, _) in table.items()},
                         {"poc_check_mnemonic": 27, "poc_restore_seed": 4, "poc_save_pin": 3,
                          "poc_check_pin": 3})
        for name, (_, (low, median, p90, high)) in table.items():
            self.assertTrue(0 <= low <= median <= p90 <= high, name)
        runs = [r for r in run.report["records"] if r["record"] == "case"]
        self.assertEqual([len(r["runs"]) for r in runs], [3, 3])


# ---- the command line, unattended use, no TEE -------------------------------------------

class CommandLine(CheckerTestCase):
    """Help, version, listing and selection, usage errors, colour, and a
    run that never reads its input."""

    def test_help_version_and_list(self):
        run = self.check("--help")
        self.assertEqual(run.status, 0)
        self.assertTrue(run.lines[0].startswith("Usage: tessera-check [options]"))
        for option in ("--allow-wipe", "--seed", "-t PATTERN", "-x PATTERN", "--list", "--junit",
                       "--json", "--repeat", "--timeout", "--version"):
            self.assertIn(option, run.stdout)
        self.assertEqual(self.check("--version").stdout, "tessera-check 0.1.0\n")
        listed = self.check("--list").lines
        self.assertEqual(len(listed), ALL_CASES)
        self.assertTrue(all(re.match(r"^\d{4} \S", l) for l in listed))
        chosen = self.check("--list", "-t", "6*", "-t", "1001", "-x", "6003").lines
        self.assertEqual([l.split()[0] for l in chosen], ["1001", "6001", "6002"])
        self.assertTrue(chosen[0].endswith("[--allow-wipe]"))

    def test_usage_errors_say_why_on_one_line_and_exit_2(self):
        for args, message in (
                (["--bogus"], "tessera-check: unknown option '--bogus' (see --help)\n"),
                (["--repeat", "0"], "tessera-check: --repeat: '0' is not a count from 1 to "
                                    "100000 (see --help)\n"),
                (["--seed", "abc"], "tessera-check: --seed: 3 hex digits; a seed is 16, 20, 24, "
                                    "28 or 32 bytes (32 to 64 digits) (see --help)\n"),
                (["-t", "9999"], "tessera-check: no case matches the -t and -x patterns (see "
                                 "--list)\n"),
                (["--junit", "/nonexistent/folder/j.xml"],
                 "tessera-check: cannot write /nonexistent/folder/j.xml: No such file or "
                 "directory\n")):
            run = self.check(*args)
            self.assertEqual(run.status, 2, args)
            self.assertEqual(run.stderr, message)
            self.assertEqual(run.stdout, "")

    def test_it_never_reads_its_input_and_ends_by_itself(self):
        read_end, write_end = os.pipe()  # input that never ends
        try:
            run = self.check("-t", "5*", "-t", "7*", "--timeout", CALL_TIMEOUT, stdin=read_end)
        finally:
            os.close(read_end)
            os.close(write_end)
        self.assertEqual(run.status, 0, run.stdout + run.stderr)
        self.assertEqual(run.lines[-1], "14 passed, 0 failed, 0 skipped")

    def test_colour_only_on_a_terminal(self):
        plain = self.check("-t", "5001")
        self.assertNotIn("\x1b[", plain.stdout)
        self.assertTrue(plain.lines[1].endswith(" ... ok"))
        self.assertIn("\x1b[32mok\x1b[0m", self.on_terminal("-t", "5001"))
        self.assertNotIn("\x1b[", self.on_terminal("-t", "5001", NO_COLOR="1"))

    def on_terminal(self, *args, **env):
        """The output of a run whose standard output is a terminal."""
        master, slave = pty.openpty()
        process = subprocess.Popen(console_harness.emulated([ARGS.binary] + list(args)), stdin=subprocess.DEVNULL,
                                   stdout=slave, stderr=subprocess.PIPE, env=self.env(**env))
        os.close(slave)
        out = b""
        while True:
            ready, _, _ = select.select([master], [], [], TIMEOUT)
            if not ready:
                process.kill()
                break
            try:
                chunk = os.read(master, 65536)
            except OSError:  # the terminal is gone with its last writer
                break
            if not chunk:
                break
            out += chunk
        os.close(master)
        self.assertEqual(process.wait(timeout=TIMEOUT), 0)
        process.stderr.close()
        return out.decode("utf-8", "replace")


class NoTee(unittest.TestCase):
    """No daemon serves the socket: exit 2 and one line on stderr naming
    the failed call, the result, and the socket."""

    def test_no_tee_is_one_line_naming_the_socket(self):
        with tempfile.TemporaryDirectory(prefix="tessera-check-no-tee-") as folder:
            socket = os.path.join(folder, "nobody.sock")
            for dlog in (None, os.path.join(folder, "client.log")):
                env = dict(os.environ, TEESIM_SOCKET=socket, TEESIM_DAEMON="", TMPDIR=folder)
                env.pop("DLOG_FILE", None)
                if dlog:
                    env["DLOG_FILE"] = dlog
                done = subprocess.run(console_harness.emulated([ARGS.binary, "--allow-wipe"]), stdin=subprocess.DEVNULL,
                                      capture_output=True, env=env, timeout=TIMEOUT, check=False)
                stderr = done.stderr.decode()
                self.assertEqual(done.returncode, 2, stderr)
                self.assertEqual(stderr.count("\n"), 1, stderr)
                self.assertTrue(stderr.startswith(
                    "tessera-check: cannot reach the keystore TA: TEEC_InitializeContext (the "
                    "default TEE) failed with 0xFFFF000E TEEC_ERROR_COMMUNICATION from the client "
                    "API; the TEE client library says: "), stderr)
                self.assertIn(socket, stderr)
                self.assertEqual(len(done.stdout.decode().splitlines()), 1, "only the first line")
            self.assertEqual(sorted(os.listdir(folder)), ["client.log"],
                             "the private log of the first run (in TMPDIR) is gone")


class Timeout(CheckerTestCase):
    """A TA that never answers a 13-word phrase: that case fails, the call
    cancelled and its process stopped, and the run goes on."""

    TA_DIR = "hang_on_13_words"

    def test_a_hung_call_fails_its_case_and_the_run_goes_on(self):
        # 5004's first call is the one that hangs; 7001 makes no call. A
        # healthy call (opening the connection) has 3 s, however loaded the
        # machine.
        run = self.check("-t", "5004", "-t", "7001", "--timeout", "3", reports=True)
        self.assertEqual(run.status, 1, run.stdout + run.stderr)
        self.assertEqual(run.cases[5004],
                         "FAILED: poc_check_mnemonic did not return within 3 s: cancellation was "
                         "requested, and the case's process was stopped 1 s later")
        self.assertEqual(run.cases[7001], "ok")
        self.assertEqual(run.lines[-1], "1 passed, 1 failed, 0 skipped")
        self.assertJunit(run, failed={5004})


# ---- the faulty variants ------------------------------------------------------------------

class FaultyTaChecks:
    """Mixed into a CheckerTestCase per variant: exactly the cases that
    touch the variant's defect fail, each with its message, and the JUnit
    report says so."""

    EXPECTED = {}  # case number -> a part of its FAILED line

    def test_exactly_the_cases_that_touch_the_defect_fail(self):
        run = self.check("--allow-wipe", "--seed", OWN_SEED, "--timeout", CALL_TIMEOUT, reports=True)
        self.assertEqual(run.status, 1, run.stdout + run.stderr)
        self.assertEqual(len(run.cases), ALL_CASES)
        self.assertEqual(run.failed(), set(self.EXPECTED))
        for number, part in self.EXPECTED.items():
            self.assertIn(part, run.cases[number], number)
        self.assertEqual(run.closing(), (ALL_CASES - len(self.EXPECTED), len(self.EXPECTED), 0))
        self.assertJunit(run, failed=set(self.EXPECTED))
        self.assertEqual(run.report["summary"]["failed"], len(self.EXPECTED))


def expect(numbers, part):
    return {n: part for n in numbers}


class FaultyWrongAddress(FaultyTaChecks, CheckerTestCase):
    TA_DIR = "wrong_address"
    EXPECTED = {**expect(range(1004, 1026, 5), "FAILED: address at m/44'/60'/0'/0/3: got "),
                8005: "FAILED: address at m/44'/60'/0'/0/3 is that of its private key: got "}


class FaultyHighS(FaultyTaChecks, CheckerTestCase):
    TA_DIR = "high_s"
    EXPECTED = {**expect(rows(), ": low S: got "),
                **expect(exact_rows(), "FAILED: s of the signature at m/44'/60'/0'/0/"),
                2001: "FAILED: special transaction 0: low S: got ",
                3003: "FAILED: signature at m/44'/60'/0'/0/0: low S: got ",
                **expect(range(8002, 8007), ": low S: got ")}


class FaultyWrongSigner(FaultyTaChecks, CheckerTestCase):
    TA_DIR = "wrong_signer"
    EXPECTED = {**expect(rows(), " recovers to the expected address: got "),
                **expect(exact_rows(), "FAILED: r of the signature at m/44'/60'/0'/0/"),
                2001: "FAILED: special transaction 0 recovers to the special seed's account 0: got ",
                3003: "FAILED: signature at m/44'/60'/0'/0/0 recovers to its address: got ",
                **expect(range(8002, 8007), " recovers to its address: got ")}


class FaultyPinNeverLocks(FaultyTaChecks, CheckerTestCase):
    TA_DIR = "pin_never_locks"
    EXPECTED = {6003: "FAILED: the saved PIN after 5 mismatches says 2 (locked): got 1 (match), "
                      "expected 2 (locked)"}


class FaultyLaxChecksum(FaultyTaChecks, CheckerTestCase):
    TA_DIR = "lax_checksum"
    EXPECTED = {5002: "FAILED: \"abandon abandon abandon abandon abandon ...\" (95 bytes) is "
                      "refused: got 1, expected not 1"}


class FaultyMnemonicOffByOne(FaultyTaChecks, CheckerTestCase):
    TA_DIR = "mnemonic_off_by_one"
    EXPECTED = {**expect(rows(), "FAILED: phrase is data set "),
                2002: "FAILED: the special seed's phrase is accepted by check mnemonic: got 0, "
                      "expected 1",
                3001: "FAILED: the new phrase is accepted by check mnemonic: got 0, expected 1",
                4002: "FAILED: the phrase is data set 0's again: got ",
                8001: "FAILED: the phrase is accepted by check mnemonic: got 0, expected 1"}


def test_classes():
    return [ReferenceTa, CommandLine, NoTee, Timeout, FaultyWrongAddress, FaultyHighS,
            FaultyWrongSigner, FaultyPinNeverLocks, FaultyLaxChecksum, FaultyMnemonicOffByOne]


def main():
    global ARGS
    parser = argparse.ArgumentParser(add_help=False)
    for name in ("--binary", "--teesim", "--ta-dir", "--faulty-ta-dir", "--console",
                 "--private-daemon"):
        parser.add_argument(name)
    parser.add_argument("--emulator")  # what runs the build's programs (another CPU's)
    parser.add_argument("--list", action="store_true")
    ARGS, rest = parser.parse_known_args()
    if ARGS.list:
        for cls in test_classes():
            print(cls.__name__)
        return 0
    for name in ("binary", "teesim", "ta_dir", "faulty_ta_dir", "console", "private_daemon"):
        if not getattr(ARGS, name):
            parser.error("--%s is required" % name.replace("_", "-"))
    os.environ["TEESIM_PRIVATE_DAEMON"] = ARGS.private_daemon
    console_harness.set_emulator(ARGS.emulator)
    program = unittest.main(argv=[sys.argv[0]] + rest, exit=False, verbosity=2)
    return 0 if program.result.wasSuccessful() else 1


if __name__ == "__main__":
    sys.exit(main())
