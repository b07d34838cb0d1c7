#!/usr/bin/env python3
"""Plays cases on the emulated board; scripts/test_board prepares what it needs.

    play.py FOLDER PACKAGES PROGRAMS [CASE...]

FOLDER: what make_root left, and what is kept from one run to the next. PACKAGES: a folder with the armhf
packages. PROGRAMS: a folder with this machine's field_simulator."""

import contextlib
import importlib
import signal
import sys
import tempfile
import time

from checks import Checks
from emulator import BoardError
from kept import Kept

CASES = ("boot", "serial_lines", "adapters", "network", "troubles", "card_troubles", "power_cuts")


class Stage:
    """What a case plays with: a folder of its own, the kept board and this machine's programs."""

    def __init__(self, work, folder, packages, programs):
        self.work = work
        self.programs = programs
        self.kept = Kept(folder, packages, work)


@contextlib.contextmanager
def stage_of(places):
    with tempfile.TemporaryDirectory(prefix="board.") as work:
        yield Stage(work, *places)


def play(case, places):
    check = Checks()
    begin = time.monotonic()
    print(f"== {case}", flush=True)
    with stage_of(places) as stage:
        try:
            importlib.import_module(case).play(stage, check)
        except BoardError as error:
            check.error(error)
    print(f"== {case}: {time.monotonic() - begin:.0f} s, {check.failed} failed", flush=True)
    return check.failed


def main(folder, packages, programs, *cases):
    signal.signal(signal.SIGTERM, lambda *_: sys.exit(1))  # nothing is left behind
    places = (folder, packages, programs)
    with stage_of(places) as stage:
        stage.kept.prepare()
    return 1 if sum([play(case, places) for case in cases or CASES]) else 0


if __name__ == "__main__":
    sys.exit(main(*sys.argv[1:]))
