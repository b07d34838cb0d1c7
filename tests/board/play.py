#!/usr/bin/env python3
"""Plays cases on the emulated board; scripts/test_board prepares what it needs.

    play.py FOLDER PACKAGES PROGRAMS [CASE...]

FOLDER: what make_root left, and what is kept from one run to the next. PACKAGES: a folder with the armhf
packages. PROGRAMS: a folder with this machine's field_simulator."""

import importlib
import sys
import tempfile
import time

from checks import Checks
from kept import Kept

CASES = ("boot", "serial_lines", "adapters")


class Stage:
    """What a case plays with: a folder of its own, the kept board and this machine's programs."""

    def __init__(self, work, folder, packages, programs):
        self.work = work
        self.programs = programs
        self.kept = Kept(folder, packages, work)


def play(case, *places):
    check = Checks()
    with tempfile.TemporaryDirectory(prefix="board.") as work:
        begin = time.monotonic()
        print(f"== {case}", flush=True)
        importlib.import_module(case).play(Stage(work, *places), check)
        print(f"== {case}: {time.monotonic() - begin:.0f} s, {check.failed} failed", flush=True)
    return check.failed


def main(folder, packages, programs, *cases):
    places = (folder, packages, programs)
    failed = 0
    # A kept state is that of a board that has booted well.
    if "boot" in cases or not Stage("", *places).kept.is_frozen():
        failed += play("boot", *places)
    for case in cases or CASES:
        if case != "boot":
            failed += play(case, *places)
    return 1 if failed else 0


if __name__ == "__main__":
    sys.exit(main(*sys.argv[1:]))
