#!/usr/bin/python3
"""Checks who depends on whom, on the build system's own model of a configured
tree, so that a dependency that runs the wrong way fails a test the moment it
comes back.

The house (docs/ARCHITECTURE.md):
  platform/<leaf>  depends on nothing else of the project, other leaves included
  foundation/      depends on nothing else, but for the identity tool, which
                   runs the platform's ss_init_credential at build time
  teesim/          depends on the foundation only (never on platform/, CA/, TA/)
  TA/              depends on the foundation, teesim's TA API and the
                   serializer's code (platform/tzfr); never on CA/
  CA/              depends on the foundation and the platform (libteec is a
                   platform library to it); never on TA/ or teesim/ itself
  integration/, bench/  may depend on anything
  and no product target depends on a target that exists for tests only.

What counts as a dependency: a target this target links or is ordered after
(CMake's code model), and a folder it takes headers from (its resolved
include folders). A source file that includes across areas by a relative
path ("../../CA/...") is caught by a scan of the sources.

Usage:
  check_layers.py BUILD_DIR      check a configured build tree
  check_layers.py --self-test    check that each rule catches what it forbids
"""

import glob
import json
import os
import re
import subprocess
import sys
import unittest

# The GP Client API header is libteec's: in the host world libteec is
# teesim's client library, so CA (which compiles against the API) takes that
# one header folder from teesim. That is the link decision the worlds rest
# on, not a dependency on the simulator: nothing else under teesim/ may be
# reached from CA/.
CLIENT_API_FOLDERS = ("teesim/client/include", "platform/teec/include")
CLIENT_LIBRARY_TARGETS = ("teec", "teec_api")
IDENTITY_TOOL = "keystore_make_props"


def area_of(rel):
    """The area of a path relative to the source (or build) tree:
    'platform/<leaf>' for the platform stand-ins, else the first component;
    None outside the project. Other build trees under the source tree's
    build/ (a stand-in sysroot made for the device build) are outside it."""
    if rel is None or rel.startswith("..") or os.path.isabs(rel):
        return None
    parts = rel.replace(os.sep, "/").split("/")
    if parts[0] == "build":
        return None
    if parts[0] == "platform" and len(parts) > 1:
        return "platform/" + parts[1]
    return parts[0] if parts[0] not in ("", ".") else "."


def forbidden(source_area, target_area, target_rel="", target_name="", source_name=""):
    """Returns the reason why `source_area` may not depend on `target_area`,
    or None when it may."""
    if target_area is None or source_area is None or source_area == target_area:
        return None
    if source_area in ("integration", "bench", "."):
        return None
    if target_area in ("integration", "bench"):
        return "nothing of the product depends on %s/" % target_area
    if source_area.startswith("platform/"):
        return "platform leaves depend on nothing else of the project"
    if source_area == "foundation":
        if source_name == IDENTITY_TOOL and target_area == "platform/securestorage":
            return None
        return "the foundation depends on nothing else of the project"
    if source_area == "teesim":
        if target_area == "foundation":
            return None
        return "teesim depends on the foundation only"
    if source_area == "TA":
        if target_area in ("foundation", "teesim", "platform/tzfr"):
            if target_area == "teesim" and target_name in CLIENT_LIBRARY_TARGETS:
                return "a TA never links the client library"
            return None
        return "the TA depends on the foundation, teesim's TA API and the serializer only"
    if source_area == "CA":
        if target_area == "foundation" or target_area.startswith("platform/"):
            return None
        if target_area == "teesim" and (target_name in CLIENT_LIBRARY_TARGETS or
                                        target_rel.startswith(CLIENT_API_FOLDERS)):
            return None
        if target_area == "TA":
            return "the console never depends on the TA"
        return "the console knows no simulator: only the GP Client API reaches it"
    return "unknown area %s" % source_area


class Model:
    """Targets of a configured tree: name -> (area, dependency names,
    include folders relative to the source tree or build tree)."""

    def __init__(self, targets, test_only):
        self.targets = targets
        self.test_only = set(test_only)


def regenerate(build_dir):
    """CMake reads file-API queries when a configure run starts, so the run
    that first writes the query (a fresh tree's first configure) answers
    nothing: configure the tree once more, with the CMake that made it."""
    cmake = "cmake"
    try:
        with open(os.path.join(build_dir, "CMakeCache.txt")) as f:
            for line in f:
                if line.startswith("CMAKE_COMMAND:"):
                    cmake = line.split("=", 1)[1].strip()
    except OSError:
        return
    subprocess.run([cmake, build_dir], stdout=subprocess.DEVNULL, check=False)


def load_model(build_dir):
    reply = os.path.join(build_dir, ".cmake", "api", "v1", "reply")
    indexes = sorted(glob.glob(os.path.join(reply, "index-*.json")))
    if not indexes:
        regenerate(build_dir)
        indexes = sorted(glob.glob(os.path.join(reply, "index-*.json")))
    if not indexes:
        raise SystemExit("check_layers: no CMake file-API reply in %s (configure first)" % build_dir)
    with open(indexes[-1]) as f:
        index = json.load(f)
    try:
        codemodel_file = index["reply"]["client-tessera"]["codemodel-v2"]["jsonFile"]
    except KeyError:
        raise SystemExit("check_layers: the code model was not requested; reconfigure")
    with open(os.path.join(reply, codemodel_file)) as f:
        codemodel = json.load(f)
    source_root = codemodel["paths"]["source"]
    build_root = codemodel["paths"]["build"]
    names_by_id = {}
    raw = []
    for entry in codemodel["configurations"][0]["targets"]:
        with open(os.path.join(reply, entry["jsonFile"])) as f:
            target = json.load(f)
        names_by_id[target["id"]] = target["name"]
        raw.append(target)

    def relative(path):
        path = os.path.normpath(path)
        for root in (build_root, source_root):  # the build tree may sit inside the source tree
            if path == root or path.startswith(root + os.sep):
                return os.path.relpath(path, root)
        return None

    targets = {}
    for target in raw:
        includes = []
        for group in target.get("compileGroups", []):
            for inc in group.get("includes", []):
                rel = relative(inc["path"])
                if rel is not None:
                    includes.append(rel)
        deps = [names_by_id.get(d["id"], d["id"]) for d in target.get("dependencies", [])]
        targets[target["name"]] = (area_of(target["paths"]["source"]), deps, includes)
    test_only_file = os.path.join(build_dir, "tessera-test-only-targets.txt")
    with open(test_only_file) as f:
        test_only = [line.strip() for line in f if line.strip()]
    return Model(targets, test_only), source_root


def violations(model):
    found = []
    areas = {name: t[0] for name, t in model.targets.items()}
    for name, (area, deps, includes) in sorted(model.targets.items()):
        product = name not in model.test_only and area not in ("integration", "bench")
        for dep in deps:
            if product and dep in model.test_only:
                found.append("%s (product) links the test-only target %s" % (name, dep))
            reason = forbidden(area, areas.get(dep), target_name=dep, source_name=name)
            if reason:
                found.append("%s (%s) depends on %s (%s): %s" % (name, area, dep, areas.get(dep), reason))
        for inc in sorted(set(includes)):
            reason = forbidden(area, area_of(inc), target_rel=inc, source_name=name)
            if reason:
                found.append("%s (%s) takes headers from %s: %s" % (name, area, inc, reason))
    return found


INCLUDE = re.compile(r'^\s*#\s*include\s+"([^"]+)"', re.MULTILINE)


def relative_include_violations(source_root):
    """Includes that climb out of their folder by a relative path into a
    folder the file's area may not depend on."""
    found = []
    for folder, dirs, files in os.walk(source_root):
        dirs[:] = [d for d in dirs if d not in ("build", ".git", "node_modules")]
        for name in files:
            if not name.endswith((".c", ".cc", ".cpp", ".h", ".hpp")):
                continue
            path = os.path.join(folder, name)
            rel_file = os.path.relpath(path, source_root)
            with open(path, encoding="utf-8", errors="replace") as f:
                text = f.read()
            for included in INCLUDE.findall(text):
                if ".." not in included:
                    continue
                target = os.path.relpath(os.path.normpath(os.path.join(folder, included)), source_root)
                reason = forbidden(area_of(rel_file), area_of(target), target_rel=target)
                if reason:
                    found.append("%s includes %s: %s" % (rel_file, target, reason))
    return found


class SelfTest(unittest.TestCase):
    """Each rule, on a made-up model, catches what it forbids and lets pass
    what it allows."""

    def check(self, targets, test_only=()):
        return violations(Model(targets, test_only))

    def test_allowed_graph_passes(self):
        self.assertEqual(self.check({
            "keccak": ("foundation", [], ["foundation/keccak/include"]),
            "tzfr": ("platform/tzfr", [], ["platform/tzfr/include"]),
            "teec": ("teesim", ["teesim_protocol"], ["teesim/client/include", "foundation/secure/include"]),
            "teesim_protocol": ("teesim", [], []),
            "keystore_core": ("TA", ["keccak", "tzfr"], ["teesim/include", "foundation/keystore/include"]),
            "tessera": ("CA", ["teec", "tzfr", "keccak"], ["teesim/client/include", "platform/tzfr/include"]),
            "keystore_make_props": ("foundation", ["securestorage"], []),
            "securestorage": ("platform/securestorage", [], []),
            "e2e_test": ("integration", ["tessera", "keystore_core", "fake"], ["TA/keystore/testing"]),
            "fake": ("TA", [], []),
        }, test_only=["fake", "e2e_test"]), [])

    def test_ta_on_ca(self):
        self.assertTrue(self.check({"core": ("TA", ["recover"], []), "recover": ("CA", [], [])}))
        self.assertTrue(self.check({"core": ("TA", [], ["CA/src/utils"])}))

    def test_ca_on_ta_or_simulator(self):
        self.assertTrue(self.check({"c": ("CA", [], ["TA/keystore/include"])}))
        self.assertTrue(self.check({"c": ("CA", ["teesim_protocol"], []), "teesim_protocol": ("teesim", [], [])}))
        self.assertTrue(self.check({"c": ("CA", [], ["teesim/protocol/include"])}))

    def test_teesim_and_platform_both_ways(self):
        self.assertTrue(self.check({"d": ("teesim", ["dlog"], []), "dlog": ("platform/dlog", [], [])}))
        self.assertTrue(self.check({"d": ("teesim", [], ["platform/dlog/include"])}))
        self.assertTrue(self.check({"t": ("platform/teec", ["p"], []), "p": ("teesim", [], [])}))
        self.assertTrue(self.check({"t": ("platform/tzfr", [], ["platform/teec/include"])}))
        self.assertTrue(self.check({"t": ("platform/tzfr", [], ["foundation/keystore/include"])}))

    def test_foundation_stands_alone(self):
        self.assertTrue(self.check({"k": ("foundation", [], ["CA/src/utils"])}))
        self.assertTrue(self.check({"k": ("foundation", ["s"], []), "s": ("platform/securestorage", [], [])}))

    def test_product_on_test_only(self):
        self.assertTrue(self.check({"tessera": ("CA", ["fake"], []), "fake": ("CA", [], [])},
                                   test_only=["fake"]))
        self.assertEqual(self.check({"t_test": ("CA", ["fake"], []), "fake": ("CA", [], [])},
                                    test_only=["fake", "t_test"]), [])

    def test_other_build_trees_are_outside_the_project(self):
        self.assertIsNone(area_of("build/device-platform/include"))
        self.assertEqual(area_of("platform/tzfr/include"), "platform/tzfr")

    def test_ta_never_links_the_client(self):
        self.assertTrue(self.check({"ta": ("TA", ["teec"], []), "teec": ("teesim", [], [])}))


def main(argv):
    if len(argv) == 2 and argv[1] == "--self-test":
        suite = unittest.defaultTestLoader.loadTestsFromTestCase(SelfTest)
        return 0 if unittest.TextTestRunner(verbosity=1).run(suite).wasSuccessful() else 1
    if len(argv) == 2 and argv[1] in ("-h", "--help"):
        sys.stdout.write(__doc__)
        return 0
    if len(argv) != 2 or argv[1].startswith("-"):
        sys.stderr.write(__doc__)
        return 2
    model, source_root = load_model(argv[1])
    problems = violations(model) + relative_include_violations(source_root)
    for p in problems:
        print("layering: " + p)
    if problems:
        print("%d dependencies run the wrong way (see docs/ARCHITECTURE.md)" % len(problems))
        return 1
    print("layering: %d targets checked, every dependency runs the right way" % len(model.targets))
    return 0


if __name__ == "__main__":
    sys.exit(main(sys.argv))
