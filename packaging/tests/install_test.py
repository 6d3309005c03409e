#!/usr/bin/python3
"""The Debian packages, installed into a fresh Debian 12 root and used there.

    packaging/tests/install_test.py [--debs DIR] [--cache DIR]

Builds the packages (scripts/build-debs.sh, which also runs lintian) unless
--debs names a folder holding them, then, in a private mount and process
namespace, unpacks a debootstrap root of Debian 12 (minbase), installs the
packages there with apt (their dependencies come from Debian's archive),
and checks:

  - the default menu is in place, the system user exists, teesim prints the
    package's version, the manual pages and the unit are installed;
  - the console's first session (the menu numbers 1 3 6 5 8 9 99 99) prints
    the README's "First session" transcript, the daemon having been started
    by the first keystore call, as on a machine without systemd;
  - the daemon run the way the service unit runs it (its own command line,
    as the user teesim, with a notify socket) tells it is ready, serves a
    member of the group teesim, and leaves a non-member to a daemon of her
    own;
  - the checker passes, where the packages have one;
  - an operator's menu survives a reinstall;
  - purging the packages stops the daemon and leaves nothing of theirs but
    the operator's menu and the storage under /var/lib/teesim (then owned by
    root), and removes nothing that was there before.

The debootstrap root is cached as a tarball under
${XDG_CACHE_HOME:-~/.cache}/tessera and made again when older than a week,
and so are the packages apt downloads. Needs root; as another user it says
so and passes. Every step has a time limit, and the mounts vanish with the
namespace. Ends with "N passed, N failed"; exits 1 when a check failed.
"""

import argparse
import glob
import os
import shutil
import signal
import socket
import subprocess
import sys
import tempfile
import time

HERE = os.path.dirname(os.path.abspath(__file__))
TOP = os.path.dirname(os.path.dirname(HERE))
PACKAGES = ["tessera", "teesim", "libteesim-teec1", "libteesim-teec-dev"]
SUITE = "bookworm"
MIRROR = "http://deb.debian.org/debian"
BASE_MAX_AGE = 7 * 24 * 3600
MENU = "/opt/data/tessera/menu.json"
STORAGE = "/var/lib/teesim"
SOCKET = "/run/teesim/teesim.sock"
FIRST_SESSION = ["1", "3", "6", "5", "8", "9", "99", "99"]
CHROOT_ENV = {"PATH": "/usr/sbin:/usr/bin:/sbin:/bin", "LANG": "C.UTF-8",
              "DEBIAN_FRONTEND": "noninteractive"}

# Paths whose changes are the package manager's own bookkeeping, backup
# copies of the user database (made by any change of users: the test adds
# and removes some), or not part of the installed system (mount points,
# caches, logs, the test's own users' homes).
NOT_COMPARED = ("proc", "dev", "sys", "run", "tmp", "var/cache", "var/log", "var/lib/apt",
                "var/lib/dpkg", "home", "etc/passwd-", "etc/group-", "etc/shadow-",
                "etc/gshadow-", "etc/subuid-", "etc/subgid-")


# ---- Outside the namespace -------------------------------------------------------

def say(text):
    print(text, flush=True)


def cache_folder(given):
    if given:
        return given
    base = os.environ.get("XDG_CACHE_HOME") or os.path.join(os.path.expanduser("~"), ".cache")
    return os.path.join(base, "tessera")


def base_root(cache):
    """A tarball of a fresh debootstrap root, made again when older than a
    week; an older one is used when making a new one fails."""
    arch = subprocess.run(["dpkg", "--print-architecture"], capture_output=True, text=True,
                          check=True).stdout.strip()
    tarball = os.path.join(cache, "debian-%s-minbase-%s.tar" % (SUITE, arch))
    if os.path.exists(tarball) and time.time() - os.path.getmtime(tarball) < BASE_MAX_AGE:
        return tarball
    os.makedirs(cache, exist_ok=True)
    work = tempfile.mkdtemp(prefix="debootstrap-", dir=cache)
    try:
        say("Making a Debian %s root with debootstrap (cached in %s)" % (SUITE, cache))
        started = time.time()
        r = subprocess.run(["debootstrap", "--variant=minbase", SUITE, work + "/root", MIRROR],
                           stdin=subprocess.DEVNULL, capture_output=True, text=True, timeout=1200)
        if r.returncode != 0:
            raise RuntimeError("debootstrap failed:\n" + (r.stdout + r.stderr)[-3000:])
        subprocess.run(["tar", "--numeric-owner", "-C", work + "/root", "-cf", work + "/root.tar",
                        "."], check=True, timeout=600)
        os.replace(work + "/root.tar", tarball)
        say("debootstrap root made in %.0f s" % (time.time() - started))
    except (RuntimeError, subprocess.SubprocessError) as e:
        if not os.path.exists(tarball):
            raise
        say("warning: keeping the older root, as making a new one failed: %s" % e)
    finally:
        shutil.rmtree(work, ignore_errors=True)
    return tarball


def build_debs(folder):
    r = subprocess.run([os.path.join(TOP, "scripts", "build-debs.sh"), folder],
                       stdin=subprocess.DEVNULL, timeout=3600)
    if r.returncode != 0:
        raise RuntimeError("scripts/build-debs.sh failed (exit %d)" % r.returncode)


def outside(args):
    if os.geteuid() != 0:
        say("install test skipped: it needs root (debootstrap, chroot, mounts)")
        return 0
    started = time.time()
    cache = cache_folder(args.cache)
    debs = args.debs or os.path.join(TOP, "build", "debs")
    if not args.debs:
        build_debs(debs)
    package_files(debs)
    tarball = base_root(cache)
    apt_cache = os.path.join(cache, "apt-archives")
    os.makedirs(os.path.join(apt_cache, "partial"), exist_ok=True)
    root = tempfile.mkdtemp(prefix="tessera-root-", dir="/var/tmp")
    try:
        # The namespace's first process is this script again; when it ends,
        # every process left in the namespace ends and its mounts go.
        r = subprocess.run(
            ["unshare", "--mount", "--pid", "--fork", "--propagation", "private", "--",
             sys.executable, os.path.abspath(__file__), "--inside", root, "--base", tarball,
             "--debs", debs, "--apt-cache", apt_cache],
            stdin=subprocess.DEVNULL, timeout=2400)
        code = r.returncode
    finally:
        # Only this namespace's view is removed: the mounts under the root
        # existed in the private one alone.
        shutil.rmtree(root, ignore_errors=True)
    say("install test took %.0f s" % (time.time() - started))
    return code


def package_files(folder):
    """The .deb file of each package (not of their debug symbols)."""
    files = []
    for p in PACKAGES:
        found = glob.glob(os.path.join(folder, p + "_*.deb"))
        if len(found) != 1:
            raise RuntimeError("expected one %s package in %s, found %d" % (p, folder, len(found)))
        files += found
    return files


# ---- Inside the namespace ----------------------------------------------------------

class Checks:
    def __init__(self):
        self.passed = 0
        self.failed = []

    def check(self, name, ok, detail=""):
        if ok:
            self.passed += 1
            say("PASS %s" % name)
        else:
            self.failed.append(name)
            say("FAIL %s%s" % (name, ("\n" + detail.rstrip()) if detail else ""))
        return ok


class Root:
    def __init__(self, path):
        self.path = path

    def host(self, path):
        return os.path.join(self.path, path.lstrip("/"))

    def run(self, argv, timeout, stdin_text=None, env=None, user=None):
        """Runs argv in the root, as root or as `user` with its groups."""
        command = ["chroot", self.path]
        if user:
            command += ["setpriv", "--reuid=" + user, "--regid=" + user, "--init-groups",
                        "--reset-env"]
        full_env = dict(CHROOT_ENV, HOME="/root" if not user else "/home/" + user)
        full_env.update(env or {})
        command += ["env", "-i"] + ["%s=%s" % kv for kv in sorted(full_env.items())] + argv
        try:
            return subprocess.run(command, input=stdin_text, capture_output=True, text=True,
                                  timeout=timeout, stdin=None if stdin_text is not None
                                  else subprocess.DEVNULL)
        except subprocess.TimeoutExpired as e:
            out = e.stdout.decode() if isinstance(e.stdout, bytes) else (e.stdout or "")
            return subprocess.CompletedProcess(argv, 124, out, "timed out after %d s" % timeout)


def mount_root(root, tarball, apt_cache):
    subprocess.run(["tar", "--numeric-owner", "-xf", tarball, "-C", root], check=True,
                   timeout=600)
    mounts = [
        ["mount", "--rbind", "/dev", root + "/dev"],
        ["mount", "--make-rslave", root + "/dev"],
        ["mount", "-t", "proc", "proc", root + "/proc"],
        ["mount", "-t", "tmpfs", "-o", "mode=0755", "run", root + "/run"],
        ["mount", "-t", "tmpfs", "-o", "mode=1777", "tmp", root + "/tmp"],
        ["mount", "--bind", apt_cache, root + "/var/cache/apt/archives"],
    ]
    for m in mounts:
        subprocess.run(m, check=True, timeout=30)
    shutil.copy("/etc/resolv.conf", root + "/etc/resolv.conf")


def file_list(root):
    """Every path of the root, but for NOT_COMPARED, relative to it."""
    found = set()
    for folder, dirs, files in os.walk(root):
        rel = os.path.relpath(folder, root)
        rel = "" if rel == "." else rel
        dirs[:] = [d for d in dirs
                   if not any((os.path.join(rel, d) + "/").startswith(n + "/") for n in NOT_COMPARED)]
        for name in dirs + files:
            path = os.path.join(rel, name)
            if path not in NOT_COMPARED:
                found.add(path)
    return found


def readme_first_session():
    """The transcript of the README's "First session", without the line that
    run.sh prints before the console starts."""
    with open(os.path.join(TOP, "README.md"), encoding="utf-8") as f:
        text = f.read()
    section = text.split("\n## First session\n", 1)[1]
    block = section.split("```text\n", 1)[1].split("\n```", 1)[0]
    lines = block.split("\n")
    if lines and lines[0].startswith("Installed the default menu"):
        lines = lines[1:]
    return lines


def transcript(output, choices):
    """What a terminal shows: the console's output with each choice typed
    after the menu that asked for it, and the keystore API menu, printed
    again after every command, shown only the first time (as the README
    does)."""
    lines = output.split("\n")
    while lines and lines[-1] == "":
        lines.pop()
    shown, pending = [], list(choices)
    for line in lines:
        shown.append(line)
        if line and set(line) == {"="} and pending:
            shown.append(pending.pop(0))
    result, seen_api_menu, i = [], False, 0
    while i < len(shown):
        if shown[i] == "" and i + 1 < len(shown) and "1: Keystore API" in shown[i + 1] \
                and shown[i + 1].startswith("="):
            end = i + 2
            while end < len(shown) and set(shown[end]) != {"="}:
                end += 1
            if seen_api_menu:
                i = end + 1
                continue
            seen_api_menu = True
        result.append(shown[i])
        i += 1
    return result


def first_diff(expected, got):
    for n, (a, b) in enumerate(zip(expected, got)):
        if a != b:
            return "line %d: expected %r, got %r" % (n + 1, a, b)
    return "expected %d lines, got %d" % (len(expected), len(got))


def daemon_pids(root_path):
    """Process ids and users of the teesim daemons running in the namespace
    (its own /proc is the one mounted in the root)."""
    found = []
    proc = root_path + "/proc"
    for pid in os.listdir(proc):
        if not pid.isdigit():
            continue
        try:
            exe = os.readlink("%s/%s/exe" % (proc, pid))
            uid = os.stat("%s/%s" % (proc, pid)).st_uid
        except OSError:
            continue
        if exe in (root_path + "/usr/sbin/teesim", "/usr/sbin/teesim"):
            found.append((int(pid), uid))
    return found


def reap():
    """This script is the namespace's first process, so daemons that detached
    become its children: collect those that ended."""
    while True:
        try:
            pid, _ = os.waitpid(-1, os.WNOHANG)
        except ChildProcessError:
            return
        if pid == 0:
            return


def processes(root_path):
    """Every process of the namespace: pid, uid and command line."""
    found = []
    proc = root_path + "/proc"
    for pid in os.listdir(proc):
        if pid.isdigit():
            try:
                with open("%s/%s/cmdline" % (proc, pid), "rb") as f:
                    cmdline = f.read().replace(b"\0", b" ").decode(errors="replace")
                found.append((int(pid), os.stat("%s/%s" % (proc, pid)).st_uid, cmdline))
            except OSError:
                pass
    return found


def stop_pid(pid, timeout=15):
    try:
        os.kill(pid, signal.SIGTERM)
    except ProcessLookupError:
        return True
    deadline = time.time() + timeout
    while time.time() < deadline:
        reap()
        try:
            os.kill(pid, 0)
        except ProcessLookupError:
            return True
        time.sleep(0.1)
    return False


def unit_exec_start(unit_text):
    """The command line of ExecStart=, its continuation lines joined."""
    joined = unit_text.replace("\\\n", " ")
    for line in joined.splitlines():
        if line.startswith("ExecStart="):
            return line[len("ExecStart="):].split()
    return []


def uid_of(root, user):
    return _id_of(root.host("/etc/passwd"), user)


def gid_of(root, group):
    return _id_of(root.host("/etc/group"), group)


def _id_of(database, name):
    with open(database) as f:
        for line in f:
            fields = line.split(":")
            if fields[0] == name:
                return int(fields[2])
    return None


def postrotate_commands(root):
    """The shell commands of the installed logrotate rule's postrotate."""
    with open(root.host("/etc/logrotate.d/teesim")) as f:
        text = f.read()
    return text.split("postrotate", 1)[1].split("endscript", 1)[0]


def appears(path, timeout=60):
    """Waits for `path` to exist (the bound only guards against a hang)."""
    deadline = time.monotonic() + timeout
    while not os.path.exists(path):
        if time.monotonic() > deadline:
            return False
        time.sleep(0.05)
    return True


def logs(root, *paths):
    """The tail of each log that exists, for a failure's detail."""
    text = ""
    for p in paths:
        if os.path.exists(root.host(p)):
            with open(root.host(p), errors="replace") as f:
                text += "--- %s\n%s\n" % (p, f.read()[-2000:])
    return text


def inside(args):
    checks = Checks()
    root = Root(args.inside)
    mount_root(root.path, args.base, args.apt_cache)
    os.makedirs(root.host("/tmp/debs"), mode=0o755)
    debs = package_files(args.debs)
    for deb in debs:
        shutil.copy(deb, root.host("/tmp/debs"))
        os.chmod(root.host("/tmp/debs/" + os.path.basename(deb)), 0o644)

    r = root.run(["apt-get", "update", "-q"], timeout=300)
    if not checks.check("apt-get update in the fresh root", r.returncode == 0, r.stdout + r.stderr):
        return report(checks)
    before = file_list(root.path)

    debs = ["/tmp/debs/" + os.path.basename(p) for p in debs]
    r = root.run(["apt-get", "install", "-y", "-q", "--no-install-recommends"] + debs, timeout=900)
    if not checks.check("apt installs the packages and their dependencies", r.returncode == 0,
                        (r.stdout + r.stderr)[-3000:]):
        return report(checks)

    with open(root.host(MENU), "rb") as a, open(root.host("/usr/share/tessera/menu.json"), "rb") as b:
        checks.check("the default menu is installed at " + MENU, a.read() == b.read())
    checks.check("the system user and group teesim exist",
                 root.run(["getent", "passwd", "teesim"], 30).returncode == 0
                 and root.run(["getent", "group", "teesim"], 30).returncode == 0)
    version = root.run(["dpkg-query", "-W", "-f", "${Version}", "teesim"], 30).stdout.strip()
    r = root.run(["teesim", "--version"], 30)
    checks.check("teesim --version prints the package's version",
                 r.returncode == 0 and r.stdout.strip() == "teesim " + version, r.stdout + r.stderr)
    pages = ["/usr/share/man/man1/tessera.1.gz", "/usr/share/man/man8/teesim.8.gz"]
    if os.path.exists(root.host("/usr/bin/tessera-check")):
        pages.append("/usr/share/man/man1/tessera-check.1.gz")
    missing = [p for p in pages if not os.path.exists(root.host(p))]
    checks.check("the manual pages are installed", not missing, "missing: %s" % missing)
    checks.check("the service unit is installed and enabled",
                 os.path.exists(root.host("/lib/systemd/system/teesim.service"))
                 and os.path.lexists(root.host(
                     "/etc/systemd/system/multi-user.target.wants/teesim.service")))

    # The console's first session, as root on a machine without systemd: the
    # first keystore call starts the daemon.
    r = root.run(["tessera"], 120, stdin_text="\n".join(FIRST_SESSION) + "\n")
    expected = readme_first_session()
    got = transcript(r.stdout, FIRST_SESSION)
    checks.check("the console's first session prints the README's transcript",
                 r.returncode == 0 and got == expected,
                 "exit %d, %s\n%s" % (r.returncode, first_diff(expected, got), r.stderr))
    running = daemon_pids(root.path)
    cmdline = ""
    if running:
        with open(root.host("/proc/%d/cmdline" % running[0][0]), "rb") as f:
            cmdline = f.read().replace(b"\0", b" ").decode()
    checks.check("the first keystore call started the installed daemon as root",
                 len(running) == 1 and running[0][1] == 0 and "--socket " + SOCKET in cmdline
                 and "--ta-dir /usr/lib/teesim/ta" in cmdline, "%s %s" % (running, cmdline))
    if running and checks.check("the logrotate rule is installed",
                                os.path.exists(root.host("/etc/logrotate.d/teesim"))):
        # Rotation renames the log; the rule's postrotate tells the daemon,
        # which opens a new file at the old path.
        log = root.host("/run/teesim/teesim.log")
        os.rename(log, log + ".1")
        r = root.run(["sh", "-e", "-c", postrotate_commands(root)], 30)
        checks.check("after rotation the daemon reopens its log at the old path",
                     r.returncode == 0 and appears(log), r.stdout + r.stderr)
    for pid, _ in running:
        checks.check("the daemon stops on SIGTERM", stop_pid(pid), str(processes(root.path)))
        checks.check("its clean stop removes its pid file",
                     not os.path.exists(root.host(SOCKET + ".lock")))

    service_mode(root, checks)

    if os.path.exists(root.host("/usr/bin/tessera-check")):
        r = root.run(["tessera-check", "--allow-wipe"], 600)
        checks.check("tessera-check --allow-wipe passes", r.returncode == 0,
                     (r.stdout + r.stderr)[-3000:])
    else:
        say("SKIP tessera-check: not part of these packages")

    # An operator's menu is kept when the package is installed again.
    with open(root.host(MENU), "a") as f:
        f.write("\n")
    with open(root.host(MENU), "rb") as f:
        operators_menu = f.read()
    tessera_deb = [d for d in debs if os.path.basename(d).startswith("tessera_")]
    r = root.run(["apt-get", "install", "-y", "-q", "--reinstall"] + tessera_deb, timeout=300)
    with open(root.host(MENU), "rb") as f:
        checks.check("reinstalling keeps the operator's menu",
                     r.returncode == 0 and f.read() == operators_menu, r.stdout + r.stderr)

    for user in ("alice", "bob"):
        root.run(["userdel", "-r", user], 30)
    r = root.run(["apt-get", "purge", "-y", "-q", "--autoremove"] + PACKAGES, timeout=600)
    checks.check("apt purges the packages", r.returncode == 0, (r.stdout + r.stderr)[-3000:])
    reap()
    left = daemon_pids(root.path)
    checks.check("purging stopped the daemon", not left, str(left))
    after = file_list(root.path)
    kept = {"opt/data", "opt/data/tessera", "opt/data/tessera/menu.json", STORAGE.lstrip("/")}
    added = sorted(p for p in after - before
                   if p not in kept and not p.startswith(STORAGE.lstrip("/") + "/"))
    removed = sorted(before - after)
    checks.check("nothing of the packages is left but the menu and the storage",
                 not added and not removed, "left: %s\nremoved: %s" % (added[:40], removed[:40]))
    st = os.stat(root.host(STORAGE)) if os.path.exists(root.host(STORAGE)) else None
    with open(root.host(MENU), "rb") as f:
        checks.check("purge keeps the operator's menu and the storage, now root's",
                     f.read() == operators_menu and st is not None and st.st_uid == 0
                     and st.st_gid == 0
                     and os.path.exists(root.host(STORAGE + "/installation.key")), str(st))
    checks.check("purge removed the user and the group teesim",
                 root.run(["getent", "passwd", "teesim"], 30).returncode != 0
                 and root.run(["getent", "group", "teesim"], 30).returncode != 0)
    return report(checks)


def service_mode(root, checks):
    """The daemon as the unit runs it: the unit's own ExecStart, as the user
    and group teesim, in fresh runtime and state folders as systemd makes
    them, with a notify socket to say when it serves."""
    with open(root.host("/lib/systemd/system/teesim.service")) as f:
        argv = unit_exec_start(f.read())
    teesim_uid = uid_of(root, "teesim")
    shutil.rmtree(root.host("/run/teesim"), ignore_errors=True)
    os.mkdir(root.host("/run/teesim"), 0o755)
    os.chown(root.host("/run/teesim"), teesim_uid, teesim_uid)
    for folder, dirs, files in os.walk(root.host(STORAGE)):
        for name in [folder] + [os.path.join(folder, n) for n in dirs + files]:
            os.chown(name, teesim_uid, teesim_uid)

    notify_path = root.host("/run/notify.sock")
    notify = socket.socket(socket.AF_UNIX, socket.SOCK_DGRAM)
    notify.bind(notify_path)
    os.chmod(notify_path, 0o777)
    notify.settimeout(30)
    command = ["chroot", root.path, "setpriv", "--reuid=teesim", "--regid=teesim",
               "--init-groups", "env", "-i", "PATH=" + CHROOT_ENV["PATH"],
               "NOTIFY_SOCKET=/run/notify.sock"] + argv
    daemon = subprocess.Popen(command, stdin=subprocess.DEVNULL, stdout=subprocess.PIPE,
                              stderr=subprocess.STDOUT)
    said = b""
    try:
        while b"READY=1" not in said:
            said += notify.recv(4096) + b"\n"
    except socket.timeout:
        pass
    finally:
        notify.close()
    checks.check("the unit's command, run as teesim, notifies READY=1 once serving",
                 b"READY=1" in said and daemon.poll() is None,
                 "%s\n%s\n%s" % (said.decode(errors="replace"),
                                 "" if daemon.poll() is None else daemon.stdout.read().decode(),
                                 processes(root.path)))
    st = os.stat(root.host(SOCKET)) if os.path.exists(root.host(SOCKET)) else None
    teesim_gid = gid_of(root, "teesim")
    checks.check("its socket is mode 0660, group teesim",
                 st is not None and (st.st_mode & 0o777) == 0o660 and st.st_gid == teesim_gid
                 and st.st_uid == teesim_uid, str(st))

    root.run(["useradd", "-m", "-G", "teesim", "alice"], 30)
    root.run(["useradd", "-m", "bob"], 30)
    pin_check = "\n".join(["1", "9", "99", "99"]) + "\n"
    r = root.run(["tessera"], 120, stdin_text=pin_check, user="alice",
                 env={"DLOG_FILE": "/tmp/alice.log"})
    checks.check("a member of the group teesim reaches the service's keystore",
                 "pin: [123456] is CORRECT" in r.stdout
                 and not os.path.exists(root.host("/home/alice/.local/share/teesim")),
                 r.stdout[-300:] + r.stderr + logs(root, "/tmp/alice.log", "/run/teesim/teesim.log"))
    r = root.run(["tessera"], 120, stdin_text=pin_check, user="bob")
    bobs = [pid for pid, uid in daemon_pids(root.path) if uid == uid_of(root, "bob")]
    checks.check("a non-member gets a daemon and storage of their own",
                 "CORRECT" not in r.stdout and len(bobs) == 1
                 and os.path.exists(root.host("/home/bob/.local/share/teesim/installation.key")),
                 r.stdout[-2000:] + r.stderr)
    for pid in bobs:
        stop_pid(pid)
    r = root.run(["tessera"], 120, stdin_text=pin_check, env={"DLOG_FILE": "/tmp/root.log"})
    checks.check("root reaches the service's socket too", "pin: [123456] is CORRECT" in r.stdout,
                 r.stdout[-300:] + r.stderr + logs(root, "/tmp/root.log", "/run/teesim/teesim.log"))
    # The service keeps running: purging must stop it.


def report(checks):
    say("%d passed, %d failed" % (checks.passed, len(checks.failed)))
    for name in checks.failed:
        say("  failed: " + name)
    return 1 if checks.failed else 0


def main():
    parser = argparse.ArgumentParser(description=__doc__.split("\n")[0])
    parser.add_argument("--debs", help="folder of built packages (default: build them)")
    parser.add_argument("--cache", help="cache folder (default: ~/.cache/tessera)")
    parser.add_argument("--inside", help=argparse.SUPPRESS)
    parser.add_argument("--base", help=argparse.SUPPRESS)
    parser.add_argument("--apt-cache", help=argparse.SUPPRESS)
    args = parser.parse_args()
    try:
        return inside(args) if args.inside else outside(args)
    except (RuntimeError, subprocess.SubprocessError, OSError) as e:
        say("install test: %s" % e)
        say("0 passed, 1 failed")
        return 1


if __name__ == "__main__":
    sys.exit(main())
