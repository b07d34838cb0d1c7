"""A card as it is after the power went: what is on it, and what of the log that the service wrote."""

import glob
import os
import re
import shutil
import subprocess

from kept import make_card

LOG = "velmorahome/Log"
LINE = re.compile(rb"\[\d{4}-\d\d-\d\d \d\d:\d\d:\d\d\.\d{3} UTC\] \[[VDIWEF]\] \S+ .*")
OLD_LINE = b"[2026-11-01 00:00:00.000 UTC] [D] CommSvr an old line, written long ago and kept as a copy\n"
FILE_SIZE = 20000


def make_full(path, kind, copies):
    """A card with a full log and its copies."""
    make_card(path, kind)
    with_logs = path + ".logs"
    os.makedirs(f"{with_logs}/{LOG}")
    for number in range(copies + 1):
        with open(f"{with_logs}/{LOG}/LoggerCom.log" + (f".{number}" if number else ""), "wb") as log:
            log.write(OLD_LINE * (FILE_SIZE // len(OLD_LINE)))
    if kind.startswith("vfat"):
        subprocess.run(["mcopy", "-s", "-i", path, f"{with_logs}/velmorahome", "::"], check=True)
    else:
        subprocess.run(["mke2fs", "-q", "-F", "-t", "ext4", "-L", "CARD", "-d", with_logs, path], check=True,
                       capture_output=True)
    shutil.rmtree(with_logs)


def read_logs(path, kind):
    """The log files by number, 0 the live one, as a mount would find them."""
    copy, folder = path + ".copy", path + ".read"
    shutil.rmtree(folder, ignore_errors=True)
    os.makedirs(folder)
    shutil.copy(path, copy)
    if kind.startswith("vfat"):
        subprocess.run(["mcopy", "-s", "-n", "-i", copy, f"::/{LOG}", folder], capture_output=True)
    else:
        subprocess.run(["e2fsck", "-fy", copy], capture_output=True)  # its journal, as at a mount
        subprocess.run(["debugfs", "-R", f"rdump /{LOG} {folder}", copy], capture_output=True)
    os.remove(copy)
    files = {}
    for name in glob.glob(f"{folder}/Log/LoggerCom.log*"):
        number = name.rpartition(".")[2]
        files[int(number) if number.isdigit() else 0] = open(name, "rb").read()
    return files


def said(output):
    """The lines that the service wrote, in order."""
    lines = open(output, "rb").read().replace(b"\r", b"").split(b"\n")
    return [line.removeprefix(b"LoggerCom.log ") for line in lines[:-1] if line.startswith(b"LoggerCom.log [")]


class Judgement:
    """What of the lines that were said the files have, and what else they have."""

    def __init__(self, files, lines):
        parts = [part for number in sorted(files, reverse=True) for part in files[number].split(b"\n") if part]
        here = {part for part in parts if LINE.fullmatch(part)}
        self.lines = lines
        self.empty = sorted(number for number in files if number > 0 and not files[number])
        self.torn = sum(not LINE.fullmatch(part) for part in parts)
        places = [place for place, line in enumerate(lines) if line in here]
        self.first, self.last = (places[0], places[-1]) if places else (0, -1)
        self.lost_within = self.last - self.first + 1 - len(places)
        self.lost_at_end = len(lines) - 1 - self.last
        self.sizes = " ".join(f"{number}:{len(files[number])}" for number in sorted(files))
        self.here = here
