#!/usr/bin/python3
"""Plants faults in the code, one at a time, and says which of them the tests find.

  tests/campaign/plant_faults.py [--build FOLDER] [--only WORD] FAULTS...

FAULTS are files such as those in faults/: a fault is "== name | file | tests", then lines "-old"
that stand in the file exactly once in this order, then lines "+new" that take their place. `tests`
is a regular expression of test names that should find it; when they do not, all are run.
The tree is changed in place and restored: run it in a work tree of its own. Ends with 1 when a
fault was not found.
"""
import argparse, pathlib, re, subprocess, sys, time

ROOT = pathlib.Path(__file__).resolve().parents[2]


def read_faults(path):
    for text in re.split(r"^== ", path.read_text(), flags=re.M)[1:]:
        head, *lines = text.splitlines()
        name, file, tests = [part.strip() for part in head.split("|")]
        old = "\n".join(line[1:] for line in lines if line.startswith("-"))
        new = "\n".join(line[1:] for line in lines if line.startswith("+"))
        yield name, ROOT / file, tests, old, new


def run(*command):
    return subprocess.run(command, cwd=ROOT, capture_output=True, text=True)


def outcome(build, tests):
    made = run("cmake", "--build", build)
    if made.returncode != 0:
        return "does not build:\n" + made.stdout[-1500:]
    for chosen in (["-R", tests], []) if tests else ([],):
        ran = run("ctest", "--test-dir", build, "-j4", "--timeout", "60", "--stop-on-failure",
                  "--no-tests=ignore", *chosen)
        failed = re.findall(r"\d+ - (\S+) \((?:Failed|Timeout|SEGFAULT|.*)\)", ran.stdout)
        if ran.returncode != 0:
            return "found by " + ", ".join(failed[:3])
    return "NOT FOUND"


def main():
    parser = argparse.ArgumentParser()
    parser.add_argument("--build", default="build/debug")
    parser.add_argument("--only", default="")
    parser.add_argument("files", nargs="+", type=pathlib.Path)
    options = parser.parse_args()
    counts = {"found": 0, "other": 0}
    for name, file, tests, old, new in (f for path in options.files for f in read_faults(path)):
        if options.only not in name:
            continue
        text = file.read_text()
        start = time.monotonic()
        if text.count(old) != 1:
            result = f"stands {text.count(old)} times in the file"
        else:
            try:
                file.write_text(text.replace(old, new))
                result = outcome(options.build, tests)
            finally:
                file.write_text(text)
        counts["found" if result.startswith("found") else "other"] += 1
        print(f"{name}: {result} ({time.monotonic() - start:.0f} s)", flush=True)
    print(f"{counts['found']} of {sum(counts.values())} found")
    return counts["other"] > 0


sys.exit(main())
