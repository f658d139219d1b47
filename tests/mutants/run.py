#!/usr/bin/env python3
"""Measures the fault-finding power of the test suite: applies each mutation
of mutants.json (one expression of required behaviour changed; each lists
the places it has had in the code, so that one list measures old and new
revisions alike) to a copy of
the committed tree, builds it (g++) and runs the unit and end-to-end tests;
a mutant is killed when any test fails.  Run on demand (about three minutes
a surviving mutant on two cores, less for a killed one):

    tests/mutants/run.py [REV] [--only NAME]

The copy and its build live in /tmp/whttpd-mutants-REV."""
import json
import os
import subprocess
import sys
import time

HERE = os.path.dirname(os.path.abspath(__file__))
TOP = os.path.dirname(os.path.dirname(HERE))


def sh(cmd, cwd, env=None, quiet=True):
    out = subprocess.DEVNULL if quiet else None
    return subprocess.run(cmd, cwd=cwd, shell=True, env=env, stdout=out, stderr=out).returncode


def main():
    args = sys.argv[1:]
    only = None
    if "--only" in args:
        only = args[args.index("--only") + 1]
        del args[args.index("--only"):args.index("--only") + 2]
    rev = args[0] if args else "HEAD"
    sha = subprocess.check_output(["git", "rev-parse", "--short", rev], cwd=TOP, text=True).strip()
    work = f"/tmp/whttpd-mutants-{sha}"
    if not os.path.isdir(work):
        os.makedirs(work)
        sh(f"git -C {TOP} archive {sha} | tar -x -C {work}", TOP)
    # The mutations are read from this checkout, so that one list can be
    # applied to an older revision as well.
    with open(os.path.join(HERE, "mutants.json")) as f:
        mutants = json.load(f)
    build = "scripts/build build-mut \"\" g++ >/dev/null"
    if sh(build, work) != 0:
        sys.exit("the unmutated tree does not build")
    # The unit tests first, then the end-to-end tests, each stopping at its
    # first failure: a killed mutant costs little.  The concurrency tests
    # (load, many threads) are left out: the mutations change behaviour that
    # the functional tests pin down.  They are programs of their own; older
    # trees kept them in these programs, under names with "Concurrent".
    env = dict(os.environ, GTEST_FAIL_FAST="1", GTEST_FILTER="-*Concurrent*")
    test = ("build-mut/tests/unit_tests >build-mut/unit.log 2>&1 && "
            "build-mut/tests/e2e_wire_tests >build-mut/e2e_wire.log 2>&1 && "
            "build-mut/tests/e2e_tests >build-mut/e2e.log 2>&1")
    if sh(test, work, env) != 0:
        sys.exit(f"the unmutated tree fails its tests: {work}/build-mut/*.log")
    killed = 0
    tried = 0
    for m in mutants:
        if only and m["name"] != only:
            continue
        # The first place of the mutation that this tree holds exactly once.
        at = None
        for a in m["at"]:
            p = os.path.join(work, a["file"])
            if os.path.exists(p) and open(p).read().count(a["from"]) == 1:
                at = a
                break
        if not at:
            print(f"{m['name']}: no place of it is in the tree exactly once")
            continue
        path = os.path.join(work, at["file"])
        text = open(path).read()
        open(path, "w").write(text.replace(at["from"], at["to"]))
        t0 = time.time()
        try:
            built = sh(build, work) == 0
            failed = built and sh(test, work, env) != 0
        finally:
            open(path, "w").write(text)
        if not built:
            print(f"{m['name']}: does not build", flush=True)
            continue
        tried += 1
        killed += failed
        how = "killed" if failed else "SURVIVED"
        print(f"{m['name']}: {how} ({time.time() - t0:.0f} s)", flush=True)
    sh(build, work)
    print(f"{killed} of {tried} mutants killed ({sha})")


if __name__ == "__main__":
    main()
