"""Drives the real console binary for end-to-end tests.

The console reads its menu from one fixed path, /opt/data/tessera/menu.json,
and nothing may change that. So every run happens in a private mount
namespace in which a temporary folder is bind-mounted over
/opt/data/tessera: the machine's own folder (or its absence) is never
touched. When /opt/data/tessera does not exist, a tmpfs is first mounted over
its deepest existing ancestor, inside the namespace only, and the folder is
created there.

As root the namespace comes from `unshare --mount --propagation private`;
as any other user from `unshare --map-root-user --mount`. `unshare` execs the
console without forking, so the process the harness holds is the console
itself and a timeout or kill reaches it directly.

Typical use:

    console = Console("/path/to/tessera")
    result = console.run("1\\n9\\n", menu_text='{"Top": {...}}')
    assert result.stdout == "..." and result.status == 0

Every run has a timeout. The console never returns at end of input, so
scripted input must end with a choice that leaves; `start` gives a running
process for the tests that watch it wait.

A cross build's programs run under an emulator (qemu-user): after
`set_emulator("qemu-aarch64-static")` every program the harness starts (the
console, a teesim daemon) runs through it, and `emulator_environment()` gives
the variable that makes libteec and the daemon start theirs through it too.

For runs against the simulated secure world, `TeesimDaemon` starts a private
teesim daemon (its own socket, storage and log in a fresh temporary folder)
and gives the environment that points the console's libteec at it:

    with TeesimDaemon(teesim_path, ta_dir) as daemon:
        console = Console("/path/to/tessera", env=daemon.client_environment())
        ...
"""

import os
import select
import shutil
import signal
import socket
import struct
import subprocess
import tempfile
import time
from dataclasses import dataclass

MENU_DIR = "/opt/data/tessera"
MENU_FILE = MENU_DIR + "/menu.json"

# Runs inside the new namespace: $1 the folder to show at MENU_DIR, $2 the
# deepest existing ancestor of MENU_DIR (MENU_DIR itself when it exists),
# $3 shell code to run after the mounts, the rest the command to exec.
_NAMESPACE_SCRIPT = r"""
set -eu
folder=$1 ancestor=$2 prelude=$3
shift 3
if [ "$ancestor" != "%(menu_dir)s" ]; then
  mount -t tmpfs -o mode=0755 tessera-e2e "$ancestor"
  mkdir -p "%(menu_dir)s"
fi
mount --bind "$folder" "%(menu_dir)s"
eval "$prelude"
exec "$@"
""" % {"menu_dir": MENU_DIR}


# The emulator's command words; empty for a build that runs natively.
_emulator = []


def set_emulator(command):
    """Runs every program of the build under test through `command` (the
    emulator of a cross build, split at spaces); None or "" runs them
    directly."""
    global _emulator
    _emulator = (command or "").split()


def emulated(argv):
    """`argv` of a program of the build under test, run through the
    emulator when there is one."""
    return _emulator + list(argv)


def emulator_environment():
    """The variable (TEESIM_EMULATOR) that makes libteec start the daemon,
    and the daemon its TA hosts, through the emulator; empty without one."""
    return {"TEESIM_EMULATOR": " ".join(_emulator)} if _emulator else {}


class HarnessError(Exception):
    """The harness could not set up a run (not a failure of the console)."""


@dataclass
class Result:
    stdout: str
    stderr: str
    status: int


def screen(title, *items):
    """One display of a menu as the console prints it: an empty line, the
    banner, the item lines as given, and the closing rule as long as the
    banner."""
    banner = "========== %s ==========" % title
    return "\n" + banner + "\n" + "".join(line + "\n" for line in items) + "=" * len(banner) + "\n"


def deepest_existing_ancestor(path=MENU_DIR):
    """The path itself when it exists, else its closest existing parent."""
    current = path
    while not os.path.isdir(current):
        current = os.path.dirname(current)
    if current == "/":
        raise HarnessError("neither %s nor any parent below / exists; "
                           "refusing to mount over /" % path)
    return current


def namespace_argv(folder, argv, prelude=""):
    """The command that runs `argv` with `folder` seen at MENU_DIR."""
    if shutil.which("unshare") is None:
        raise HarnessError("unshare (util-linux) is needed to run the console")
    if os.geteuid() == 0:
        prefix = ["unshare", "--mount", "--propagation", "private"]
    else:
        prefix = ["unshare", "--map-root-user", "--mount"]
    return prefix + ["/bin/sh", "-c", _NAMESPACE_SCRIPT, "tessera-e2e",
                     folder, deepest_existing_ancestor(), prelude] + list(argv)


class MenuFolder:
    """A temporary folder to show at MENU_DIR; removed on exit.

    menu_text:  written as menu.json when given;
    menu_file:  copied as menu.json when given;
    neither:    the folder stays empty (a missing menu file).
    """

    def __init__(self, menu_text=None, menu_file=None):
        if menu_text is not None and menu_file is not None:
            raise HarnessError("give menu_text or menu_file, not both")
        self._menu_text = menu_text
        self._menu_file = menu_file
        self.path = None

    def __enter__(self):
        self.path = tempfile.mkdtemp(prefix="tessera-menu-")
        target = os.path.join(self.path, "menu.json")
        if self._menu_text is not None:
            with open(target, "w", encoding="utf-8") as f:
                f.write(self._menu_text)
        elif self._menu_file is not None:
            shutil.copyfile(self._menu_file, target)
        return self

    def __exit__(self, *exc):
        shutil.rmtree(self.path, ignore_errors=True)
        return False


class Console:
    """The console binary with the environment and limits of its runs.

    binary:  path of the tessera executable.
    env:     variables added to (or, with value None, removed from) the
             harness's own environment for every run.
    args:    extra command-line arguments (the console ignores them).
    prelude: shell code run inside the namespace after the mounts, before the
             console starts (for instance to start a helper in the same view
             of the file system).
    timeout: seconds a run may take before it is killed and reported. Only a
             hung console reaches it: the default leaves room for sanitizer
             builds on a machine busy with other work.
    """

    def __init__(self, binary, env=None, args=(), prelude="", timeout=300.0):
        self.binary = os.path.abspath(binary)
        self.env = dict(env or {})
        self.args = list(args)
        self.prelude = prelude
        self.timeout = timeout

    def _command(self):
        return _emulator + [self.binary] + self.args

    def _environment(self, extra):
        env = dict(os.environ)
        for key, value in {**self.env, **(extra or {})}.items():
            if value is None:
                env.pop(key, None)
            else:
                env[key] = value
        return env

    def run(self, stdin, menu_text=None, menu_file=None, env=None, timeout=None):
        """Runs the console to its end with `stdin` as the whole input.

        Returns a Result with the decoded output and the exit status
        (255 for the console's -1). Raises subprocess.TimeoutExpired, after
        killing the console, when it does not end in time.
        """
        with MenuFolder(menu_text, menu_file) as folder:
            argv = namespace_argv(folder.path, self._command(), self.prelude)
            done = subprocess.run(argv, input=stdin.encode("utf-8"), stdout=subprocess.PIPE,
                                  stderr=subprocess.PIPE, env=self._environment(env),
                                  timeout=timeout or self.timeout, check=False)
        return Result(done.stdout.decode("utf-8", "replace"),
                      done.stderr.decode("utf-8", "replace"), done.returncode)

    def start(self, menu_text=None, menu_file=None, env=None, stdin=subprocess.PIPE):
        """Starts the console and returns a RunningConsole (a context manager
        that kills it and cleans up on exit)."""
        folder = MenuFolder(menu_text, menu_file).__enter__()
        try:
            argv = namespace_argv(folder.path, self._command(), self.prelude)
            process = subprocess.Popen(argv, stdin=stdin, stdout=subprocess.PIPE,
                                       stderr=subprocess.PIPE, env=self._environment(env))
        except BaseException:
            folder.__exit__(None, None, None)
            raise
        return RunningConsole(process, folder)


class RunningConsole:
    def __init__(self, process, folder):
        self.process = process
        self._folder = folder
        self._seen = b""

    def read_until(self, text, timeout=120.0):
        """Reads standard output until it holds `text` (counted from the
        start of the run). Returns everything read so far, decoded. Raises
        HarnessError, with what was read, when `text` does not come in time
        or the output ends first."""
        wanted = text.encode("utf-8")
        deadline = time.monotonic() + timeout
        fd = self.process.stdout.fileno()
        while wanted not in self._seen:
            left = deadline - time.monotonic()
            if left <= 0:
                raise HarnessError("timed out waiting for %r; the console wrote:\n%s"
                                   % (text, self._seen.decode("utf-8", "replace")))
            ready, _, _ = select.select([fd], [], [], left)
            if not ready:
                continue
            chunk = os.read(fd, 65536)
            if not chunk:
                raise HarnessError("output ended before %r; the console wrote:\n%s"
                                   % (text, self._seen.decode("utf-8", "replace")))
            self._seen += chunk
        return self._seen.decode("utf-8", "replace")

    def send(self, text):
        """Writes `text` to the console's standard input and flushes it."""
        self.process.stdin.write(text.encode("utf-8"))
        self.process.stdin.flush()

    def finish(self, timeout=300.0):
        """Closes standard input and waits for the console to end (the input
        sent must have ended with a choice that leaves). Returns a Result
        with the whole output of the run. Raises subprocess.TimeoutExpired,
        after killing the console, when it does not end in time."""
        try:
            out, err = self.process.communicate(timeout=timeout)
        except subprocess.TimeoutExpired:
            self.process.kill()
            self.process.communicate()
            raise
        return Result((self._seen + out).decode("utf-8", "replace"),
                      err.decode("utf-8", "replace"), self.process.returncode)

    def cpu_seconds(self):
        """User plus system CPU time the console has used so far."""
        with open("/proc/%d/stat" % self.process.pid, encoding="ascii") as f:
            fields = f.read().rsplit(")", 1)[1].split()
        ticks = os.sysconf("SC_CLK_TCK")
        # Fields 14 and 15 of the stat line (utime, stime), counted from the
        # state field, which is the first after the command name.
        return (int(fields[11]) + int(fields[12])) / ticks

    def kill(self):
        """Kills the console; returns (stdout, stderr) it wrote until then."""
        if self.process.poll() is None:
            self.process.kill()
        self.process.wait(timeout=60)
        out = self.process.stdout.read() if self.process.stdout else b""
        err = self.process.stderr.read() if self.process.stderr else b""
        self._close_pipes()
        return (self._seen + out).decode("utf-8", "replace"), err.decode("utf-8", "replace")

    def _close_pipes(self):
        for pipe in (self.process.stdin, self.process.stdout, self.process.stderr):
            if pipe is not None:
                try:
                    pipe.close()
                except OSError:
                    pass

    def __enter__(self):
        return self

    def __exit__(self, *exc):
        if self.process.poll() is None:
            self.process.kill()
        try:
            self.process.wait(timeout=60)
        finally:
            self._close_pipes()
            self._folder.__exit__(None, None, None)
        return False


def serving_pid(path):
    """The pid of the process that listens on the Unix socket `path` (the
    credentials the kernel recorded when it called listen)."""
    probe = socket.socket(socket.AF_UNIX, socket.SOCK_SEQPACKET)
    try:
        probe.connect(path)
        creds = probe.getsockopt(socket.SOL_SOCKET, socket.SO_PEERCRED, struct.calcsize("3i"))
    finally:
        probe.close()
    pid, _, _ = struct.unpack("3i", creds)
    return pid


def _alive(pid):
    """True while `pid` exists and is not a zombie."""
    try:
        with open("/proc/%d/stat" % pid, encoding="ascii") as f:
            return f.read().rsplit(")", 1)[1].split()[0] != "Z"
    except OSError:
        return False


def stop_serving_daemon(path, timeout=60.0):
    """Stops the teesim daemon that serves `path` and that a test caused to
    be started (libteec starts it detached, so it is not the test's child):
    the process is found by the socket, checked to be a teesim serving that
    very socket, sent SIGTERM, and SIGKILL if it has not ended in `timeout`
    seconds. Returns its pid."""
    pid = serving_pid(path)
    with open("/proc/%d/cmdline" % pid, "rb") as f:
        argv = [a.decode("utf-8", "replace") for a in f.read().split(b"\0") if a]
    program = argv[len(_emulator):] if argv[:len(_emulator)] == _emulator else argv
    if not program or os.path.basename(program[0]) != "teesim" or path not in program:
        raise HarnessError("%s is served by pid %d (%s), not by a teesim of this test"
                           % (path, pid, " ".join(argv)))
    os.kill(pid, signal.SIGTERM)
    deadline = time.monotonic() + timeout
    while _alive(pid):
        if time.monotonic() > deadline:
            os.kill(pid, signal.SIGKILL)
            deadline = time.monotonic() + timeout
        time.sleep(0.01)
    return pid


class TeesimDaemon:
    """A private teesim daemon, run through the simulator's own test launcher
    (`teesim-private-daemon`, from teesim/testing), which makes the private
    folder (socket, storage, log), starts the daemon in the foreground, waits
    until it serves and removes everything when told to go. The storage
    survives stop() and start().

    daemon:         the teesim executable.
    ta_dir:         the folder of the built TAs.
    extra_args:     further options for the daemon.
    private_daemon: the launcher; default $TEESIM_PRIVATE_DAEMON.
    """

    def __init__(self, daemon, ta_dir, extra_args=(), private_daemon=None):
        launcher = private_daemon or os.environ.get("TEESIM_PRIVATE_DAEMON", "")
        if not launcher:
            raise HarnessError("no teesim-private-daemon given (--private-daemon or "
                               "$TEESIM_PRIVATE_DAEMON)")
        # In a cross build the launcher runs through the emulator, and starts
        # the daemon (which starts its TA hosts) through it (TEESIM_EMULATOR).
        argv = _emulator + [os.path.abspath(launcher), "--daemon", os.path.abspath(daemon),
                            "--ta-dir", os.path.abspath(ta_dir), "--"] + list(extra_args)
        self.launcher = subprocess.Popen(argv, stdin=subprocess.PIPE, stdout=subprocess.PIPE,
                                         stderr=subprocess.PIPE, text=True, bufsize=1,
                                         env=dict(os.environ, **emulator_environment()))
        self.running = False
        self._take_ready(self._reply())

    def _reply(self, timeout=60.0):
        """The launcher's next line; it answers every command with one. The
        deadline only keeps a broken launcher from hanging the test."""
        ready, _, _ = select.select([self.launcher.stdout], [], [], timeout)
        line = self.launcher.stdout.readline() if ready else ""
        if not line:
            self.launcher.kill()
            _, err = self.launcher.communicate()
            raise HarnessError("teesim-private-daemon gave no answer; its output:\n" + err)
        return line.rstrip("\n")

    def _take_ready(self, line):
        if not line.startswith("ready "):
            raise HarnessError("teesim did not start: " + line)
        fields = dict(item.split("=", 1) for item in line.split()[1:])
        self.socket = fields["socket"]
        self.folder = fields["folder"]
        self.storage = fields["storage"]
        self.log = fields["log"]
        self.dlog = fields["client_log"]
        self.pid = int(fields["pid"])
        self.running = True

    def _command(self, word):
        self.launcher.stdin.write(word + "\n")
        self.launcher.stdin.flush()
        return self._reply()

    def client_environment(self):
        """Variables that send a client's libteec to this daemon and never
        let it start another one; the client's log goes to self.dlog."""
        return {"TEESIM_SOCKET": self.socket, "TEESIM_DAEMON": "", "DLOG_FILE": self.dlog}

    def start(self):
        """Starts the daemon again (it runs from construction on) and waits
        until it serves. Raises HarnessError, with the reason, when it does
        not."""
        if not self.running:
            self._take_ready(self._command("start"))

    def stop(self, kill=False):
        """Stops the daemon (SIGTERM, or SIGKILL when `kill`); the launcher
        escalates to SIGKILL when SIGTERM does not end it."""
        if self.running:
            reply = self._command("kill" if kill else "stop")
            if not reply.startswith("stopped"):
                raise HarnessError("teesim-private-daemon: " + reply)
            self.running = False

    def read_log(self):
        return _read_text(self.log)

    def read_client_log(self):
        return _read_text(self.dlog)

    def __enter__(self):
        self.start()
        return self

    def __exit__(self, *exc):
        self.close()
        return False

    def close(self):
        """Stops the daemon and removes its folder (the launcher does both
        when its input ends)."""
        if self.launcher.poll() is None:
            self.launcher.stdin.close()
            try:
                self.launcher.wait(timeout=60)
            except subprocess.TimeoutExpired:
                self.launcher.kill()
                self.launcher.wait()
        self.launcher.stdout.close()
        self.launcher.stderr.close()
        self.running = False


def started_daemon(daemon, ta_dir):
    """A TeesimDaemon that serves already; closed again when it cannot start."""
    d = TeesimDaemon(daemon, ta_dir)
    try:
        d.start()
    except BaseException:
        d.close()
        raise
    return d


def _read_text(path):
    try:
        with open(path, encoding="utf-8", errors="replace") as f:
            return f.read()
    except OSError:
        return ""
