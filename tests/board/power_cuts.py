"""The power goes while the log is written and rotated: the emulator is killed, the card is what the
board had written by then. Seeded: the same number cuts at the same moments as far as a machine can."""

import os
import random
import shutil
import time

import card
from emulator import Field

CUTS = int(os.environ.get("BOARD_CUTS", "20"))
SEED = int(os.environ.get("BOARD_SEED", "1"))
COPIES = 4
# What may be missing at the end without a warning: a file, since its rotation synchronises it, and what
# came in the ticks before and meanwhile.
MOST_LOST = card.FILE_SIZE + 10000


def storm(port):
    """Requests on all channels, in units of their own."""
    return "; ".join(
        f"systemd-run -q --collect tamselctl request --channel {channel} --device 1-10=10.0.2.2:{port} --read-holding 0,10 "
        "--timeout 2000 --watch 0.1" for channel in (1, 2, 3))


def cut(stage, port, kind, is_buffered, is_warned, seconds):
    """Leaves the card; gives the lines that were said, and how many of them the warning covers."""
    path = f"{stage.work}/card"
    card.make_full(path, kind, COPIES)
    with stage.kept.resumed(kind, path, SdcardPath="/media/sdcard", LogLevel=1, LoggerComLogMaxFileSize=card.FILE_SIZE,
                            EnableLogBufferedIO=int(is_buffered)) as board:
        board.run(storm(port))
        time.sleep(seconds)
        covered = 0
        if is_warned:
            covered = len(card.said(board.output))
            board.run("kill -PWR $(pidof tamsel_communication)")
            time.sleep(12.5)
        board.cut_power()
        return card.said(board.output), covered


def judge(check, files, lines, covered):
    judgement = card.Judgement(files, lines)
    print(f"      {len(lines)} lines said, {judgement.last + 1 - judgement.first} here; {judgement.sizes}")
    check.equal("emptied copies", judgement.empty, [])
    check.equal("torn lines", judgement.torn, 0)
    check.equal("lines lost within", judgement.lost_within, 0)
    check.at_most("bytes lost at the end", sum(len(line) + 1 for line in lines[judgement.last + 1:]), MOST_LOST)
    if covered:
        check.at_least("lines here of those before the warning", judgement.last + 1, covered)
    return judgement


def start_again(check, stage, kind, before):
    """The service on the card as it was left."""
    path = f"{stage.work}/card.left"
    shutil.move(f"{stage.work}/card", path)
    with stage.kept.resumed(kind, path, SdcardPath="/media/sdcard", LogLevel=1,
                            LoggerComLogMaxFileSize=card.FILE_SIZE) as board:
        check.equal("service on the dirty card", board.ask("sleep 2; systemctl is-active tamsel_communication")[1].strip(),
                    "active")
        check.equal("tamselctl log reads it", board.ask("tamselctl log --summary >/dev/null")[0], 0)
        board.run("systemctl stop tamsel_communication; umount /media/sdcard")
        after = card.Judgement(card.read_logs(path, kind), card.said(board.output))
    check.at_most("lines of the new run that the card lacks", after.lost_at_end + after.lost_within, 0)
    check.at_least("lines kept", len(after.here & before.here), len(before.here))


def play(stage, check):
    chance = random.Random(SEED)
    with Field(stage.work, stage.programs, "site", "--devices", "10", "--same-port") as field:
        for number in range(CUTS):
            kind = chance.choice(("vfat", "vfat", "vfat-dirsync", "ext4"))
            is_buffered, is_warned = chance.random() < 0.5, chance.random() < 0.25
            seconds = chance.uniform(4, 10)
            print(f"   cut {number}: {kind}, {'' if is_buffered else 'not '}buffered, "
                  f"{'warned' if is_warned else f'after {seconds:.1f} s'}", flush=True)
            lines, covered = cut(stage, field.tcp_port(), kind, is_buffered, is_warned, seconds)
            judgement = judge(check, card.read_logs(f"{stage.work}/card", kind), lines, covered)
            if number % 4 == 0:
                start_again(check, stage, kind, judgement)
