#!/usr/bin/python3
"""Checks of what the build installs, run by ctest:

  manpages --mandoc MANDOC PAGE...
      every manual page is clean for `mandoc -T lint` at warning level
  unit --systemd-analyze TOOL --manpath DIR UNIT
      `systemd-analyze verify` accepts the service unit and says nothing
  install-tree --build-dir DIR --prefix PREFIX --libdir LIBDIR --cxx CXX
      `cmake --install` of the build into a scratch root lays out exactly the
      product, with run paths into the private library folders, and a client
      compiles and links with the pkg-config file of the client library

Each exits 0 when the check holds, 1 with the reasons when it does not.
"""

import argparse
import os
import shutil
import subprocess
import sys
import tempfile

KEYSTORE_TA_UUID = "58d50001-1105-000b-af0c-c12fb6edecca"
TIMEOUT = 120


def run(cmd, **kwargs):
    return subprocess.run(cmd, capture_output=True, text=True, timeout=TIMEOUT,
                          stdin=subprocess.DEVNULL, **kwargs)


def need_tool(path, name):
    if not path:
        sys.exit("%s is not installed; scripts/install-deps.sh test installs it" % name)


def check_manpages(args):
    need_tool(args.mandoc, "mandoc")
    failures = []
    for page in args.pages:
        r = run([args.mandoc, "-T", "lint", "-W", "warning", page])
        if r.returncode != 0 or r.stdout.strip() or r.stderr.strip():
            failures.append("%s:\n%s%s" % (page, r.stdout, r.stderr))
    for f in failures:
        print(f)
    print("%d pages, %d with findings" % (len(args.pages), len(failures)))
    return 1 if failures else 0


def check_unit(args):
    need_tool(args.systemd_analyze, "systemd-analyze")
    env = dict(os.environ, MANPATH=args.manpath, SYSTEMD_LOG_LEVEL="notice")
    r = run([args.systemd_analyze, "verify", args.unit], env=env)
    # verify exits 0 on a line it ignores (an unknown option, a bad value),
    # so anything it says fails the check too.
    said = (r.stdout + r.stderr).strip()
    if r.returncode != 0 or said:
        print("systemd-analyze verify %s (exit %d):\n%s" % (args.unit, r.returncode, said))
        return 1
    print("systemd-analyze verify: %s is clean" % args.unit)
    return 0


def dynamic_entries(path):
    """The run path and needed libraries of an ELF file."""
    r = run(["readelf", "-d", path])
    if r.returncode != 0:
        raise RuntimeError("readelf -d %s: %s" % (path, r.stderr))
    runpath, needed = [], []
    for line in r.stdout.splitlines():
        if "(RUNPATH)" in line or "(RPATH)" in line:
            runpath += line.split("[", 1)[1].rstrip("]").split(":")
        elif "(NEEDED)" in line:
            needed.append(line.split("[", 1)[1].rstrip("]"))
    return runpath, needed


def installed_files(root):
    found = set()
    for folder, _, files in os.walk(root):
        for name in files:
            found.add(os.path.relpath(os.path.join(folder, name), root))
    return found


def check_install_tree(args):
    root = tempfile.mkdtemp(prefix="tessera-install-")
    try:
        env = dict(os.environ, DESTDIR=root)
        r = run(["cmake", "--install", args.build_dir], env=env)
        if r.returncode != 0:
            print("cmake --install failed:\n" + r.stdout + r.stderr)
            return 1
        return inspect_tree(root, args)
    finally:
        shutil.rmtree(root, ignore_errors=True)


def inspect_tree(root, args):
    prefix = args.prefix.strip("/")
    lib = os.path.join(prefix, args.libdir)
    product = {
        prefix + "/bin/tessera",
        lib + "/tessera/libdlog.so.1", lib + "/tessera/libdlog.so.1.0.0",
        lib + "/tessera/libtzfr.so.1", lib + "/tessera/libtzfr.so.1.0.0",
        lib + "/tessera/libsecurestorage.so.1", lib + "/tessera/libsecurestorage.so.1.0.0",
        lib + "/tessera/teesim/libteec.so", lib + "/tessera/teesim/libteec.so.1",
        lib + "/tessera/teesim/libteec.so.1.0.0",
        lib + "/pkgconfig/teesim-teec.pc",
        prefix + "/include/teesim/tee_client_api.h",
        prefix + "/sbin/teesim",
        prefix + "/libexec/teesim/teesim-tahost",
        prefix + "/lib/teesim/ta/%s.ta" % KEYSTORE_TA_UUID,
        prefix + "/lib/teesim/ta/%s.props" % KEYSTORE_TA_UUID,
        prefix + "/share/tessera/menu.json",
        prefix + "/share/man/man1/tessera.1",
        prefix + "/share/man/man8/teesim.8",
    }
    checker = {prefix + "/bin/tessera-check", prefix + "/share/man/man1/tessera-check.1"}
    problems = []
    found = installed_files(root)
    units = {f for f in found if f.endswith("/teesim.service")}
    if len(units) != 1:
        problems.append("expected one teesim.service, found %s" % sorted(units))
    expected = product | units | (checker if checker & found else set())
    for f in sorted(expected - found):
        problems.append("missing: /" + f)
    for f in sorted(found - expected):
        problems.append("installed but not part of the product: /" + f)

    private = {"/" + lib + "/tessera", "/" + lib + "/tessera/teesim"}
    for program in sorted({prefix + "/bin/tessera"} | (checker & found) - {
            prefix + "/share/man/man1/tessera-check.1"}):
        path = os.path.join(root, program)
        if not os.path.exists(path):
            continue
        runpath, needed = dynamic_entries(path)
        if set(runpath) != private:
            problems.append("/%s: run path %s, expected %s" % (program, runpath, sorted(private)))
        if "libteec.so.1" not in needed:
            problems.append("/%s does not link libteec.so.1" % program)
    for elf in (prefix + "/sbin/teesim", prefix + "/libexec/teesim/teesim-tahost",
                lib + "/tessera/teesim/libteec.so.1.0.0"):
        path = os.path.join(root, elf)
        if os.path.exists(path):
            runpath, _ = dynamic_entries(path)
            if runpath:
                problems.append("/%s carries a run path %s" % (elf, runpath))

    problems += check_client_builds(root, lib, args.cxx)
    for p in problems:
        print(p)
    print("%d installed files, %d problems" % (len(found), len(problems)))
    return 1 if problems else 0


def check_client_builds(root, lib, cxx):
    """A client compiled and linked with `pkg-config teesim-teec` alone."""
    env = dict(os.environ, PKG_CONFIG_LIBDIR=os.path.join(root, lib, "pkgconfig"),
               PKG_CONFIG_SYSROOT_DIR=root)
    r = run(["pkg-config", "--cflags", "--libs", "teesim-teec"], env=env)
    if r.returncode != 0:
        return ["pkg-config teesim-teec: " + r.stderr.strip()]
    flags = r.stdout.split()
    work = tempfile.mkdtemp(prefix="tessera-client-", dir=root)
    source = os.path.join(work, "client.cpp")
    with open(source, "w") as f:
        f.write('#include <tee_client_api.h>\n'
                'int main() {\n'
                '  TEEC_Context context;\n'
                '  if (TEEC_InitializeContext(nullptr, &context) != TEEC_SUCCESS) return 1;\n'
                '  TEEC_FinalizeContext(&context);\n'
                '  return 0;\n'
                '}\n')
    r = run([cxx, source, "-o", os.path.join(work, "client")] + flags)
    if r.returncode != 0:
        return ["a client does not build with `pkg-config teesim-teec` (%s):\n%s"
                % (" ".join(flags), r.stderr)]
    return []


def main():
    parser = argparse.ArgumentParser(description=__doc__.split("\n")[0])
    sub = parser.add_subparsers(dest="check", required=True)
    p = sub.add_parser("manpages")
    p.add_argument("--mandoc", required=True)
    p.add_argument("pages", nargs="+")
    p = sub.add_parser("unit")
    p.add_argument("--systemd-analyze", required=True)
    p.add_argument("--manpath", required=True)
    p.add_argument("unit")
    p = sub.add_parser("install-tree")
    p.add_argument("--build-dir", required=True)
    p.add_argument("--prefix", required=True)
    p.add_argument("--libdir", required=True)
    p.add_argument("--cxx", required=True)
    args = parser.parse_args()
    checks = {"manpages": check_manpages, "unit": check_unit, "install-tree": check_install_tree}
    return checks[args.check](args)


if __name__ == "__main__":
    sys.exit(main())
