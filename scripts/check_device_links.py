#!/usr/bin/python3
"""Checks, without running it, that a program of the device build links the
device's own platform libraries: each library's SONAME is NEEDED in the
program's dynamic section, and the program's dynamic loader, in its trace
mode (LD_TRACE_LOADED_OBJECTS: it maps the libraries and exits before any
code of the program or of a library runs), resolves that name to the very
file the build linked. A library given with =PACKAGE must also belong to
that Debian package (dpkg -S), which tells a packaged library from any
other file of the same name.

Usage:
  check_device_links.py --readelf READELF [--emulator CMD] PROGRAM LIBRARY[=PACKAGE]...

READELF reads the target's ELF files (binutils' readelf reads any); CMD
runs the program's dynamic loader when the program was built for another
CPU (split at spaces). Exit status 0 when every library checks out, 1 when
one does not (each failure on a line of its own), 2 on bad arguments.
"""

import os
import re
import subprocess
import sys


def dynamic_entries(readelf, path, tag):
    """The values of the dynamic-section entries `tag` (NEEDED, SONAME) of
    the ELF file `path`."""
    text = subprocess.run([readelf, "--dynamic", "--wide", path], check=True,
                          stdout=subprocess.PIPE, encoding="utf-8").stdout
    return re.findall(r"\(%s\)\s+\S+ \S+: \[([^\]]+)\]" % tag, text)


def loader_resolution(emulator, program):
    """Name -> path, as the program's dynamic loader resolves its libraries."""
    env = dict(os.environ, LD_TRACE_LOADED_OBJECTS="1")
    done = subprocess.run(emulator + [program], env=env, stdout=subprocess.PIPE,
                          stderr=subprocess.STDOUT, encoding="utf-8", check=False)
    if done.returncode != 0:
        raise SystemExit("%s: the dynamic loader failed (%d):\n%s"
                         % (program, done.returncode, done.stdout))
    found = {}
    for line in done.stdout.splitlines():
        m = re.match(r"\s*(\S+) => (\S+) \(0x[0-9a-f]+\)$", line)
        if m:
            found[m.group(1)] = m.group(2)
        elif "=> not found" in line:
            found[line.split()[0]] = None
    return found


def owner(path):
    """The Debian package that installed `path`, or None."""
    done = subprocess.run(["dpkg-query", "--search", path], stdout=subprocess.PIPE,
                          stderr=subprocess.DEVNULL, encoding="utf-8", check=False)
    if done.returncode != 0 or ":" not in done.stdout:
        return None
    return done.stdout.split(":", 1)[0]


def main(argv):
    args = argv[1:]
    readelf, emulator = None, []
    while args and args[0].startswith("--"):
        if len(args) < 2:
            sys.stderr.write(__doc__)
            return 2
        if args[0] == "--readelf":
            readelf = args[1]
        elif args[0] == "--emulator":
            emulator = args[1].split()
        else:
            sys.stderr.write(__doc__)
            return 2
        args = args[2:]
    if readelf is None or len(args) < 2:
        sys.stderr.write(__doc__)
        return 2
    program, libraries = args[0], args[1:]

    needed = dynamic_entries(readelf, program, "NEEDED")
    resolved = loader_resolution(emulator, program)
    failures = []
    for entry in libraries:
        library, _, package = entry.partition("=")
        sonames = dynamic_entries(readelf, library, "SONAME")
        if len(sonames) != 1:
            failures.append("%s has no SONAME" % library)
            continue
        soname = sonames[0]
        if soname not in needed:
            failures.append("%s does not need %s (it needs %s)"
                            % (program, soname, ", ".join(needed)))
            continue
        got = resolved.get(soname)
        if got is None:
            failures.append("the loader does not find %s for %s" % (soname, program))
            continue
        if os.path.realpath(got) != os.path.realpath(library):
            failures.append("%s resolves to %s, not to %s" % (soname, got, library))
            continue
        note = ""
        if package:
            found = owner(os.path.realpath(got))
            if found != package:
                failures.append("%s (%s) belongs to package %s, not to %s"
                                % (soname, os.path.realpath(got), found, package))
                continue
            note = ", from the package " + package
        print("%s: %s => %s%s" % (os.path.basename(program), soname, got, note))
    for failure in failures:
        print("FAILED: " + failure)
    return 1 if failures else 0


if __name__ == "__main__":
    sys.exit(main(sys.argv))
