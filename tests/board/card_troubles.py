"""The card is full, read-only, slow, pulled, or there late: no request waits for it, and the log goes on."""

import json

from emulator import Field, wait_for
from kept import mount

# A device answers in a few ms; the rest is the emulated processor on a busy machine.
MOST_MS = 3000
MOUNT_AGAIN = mount("vfat").replace("/dev/vdb", "$(readlink -f /dev/disk/by-label/CARD)")
ON_CARD = "cat /media/sdcard/velmorahome/Log/LoggerCom.log* 2>/dev/null | wc -l"


def fill(board):
    board.ask("dd if=/dev/zero of=/media/sdcard/fill bs=64k; sync")


def pull(board):
    board.pull_card()
    board.ask("umount -l /media/sdcard")


def put(board):
    board.put_card()
    board.run(MOUNT_AGAIN)


def start_without(board):
    board.run("systemctl stop tamsel_communication; umount /media/sdcard; systemctl start tamsel_communication")


TROUBLES = (
    ("full", fill, lambda board: board.run("rm /media/sdcard/fill")),
    ("read-only", lambda board: board.run("mount -o remount,ro /media/sdcard"),
     lambda board: board.run("mount -o remount,rw /media/sdcard")),
    ("50 KB/s", lambda board: board.slow_card(50 << 10), lambda board: board.slow_card(0)),
    ("pulled", pull, put),
    ("mounted late", start_without, lambda board: board.run(MOUNT_AGAIN)),
)


def play(stage, check):
    with Field(stage.work, stage.programs, "site", "--devices", "1") as field, \
            stage.kept.resumed("vfat", SdcardPath="/media/sdcard", LogLevel=1, EnableLogBufferedIO=0) as board:
        ask = (f"tamselctl request --json --channel 1 --device 1=10.0.2.2:{field.tcp_port()} --read-holding 0,10 --timeout 300 "
               "--watch 0.1 --count 30")

        def slowest():
            """ms of a request; those that did not get an answer count as 60 s."""
            lines = [json.loads(line) for line in board.ask(ask)[1].splitlines() if line.startswith("{")]
            return max(line["elapsed_ms"] if line["ok"] else 60000 for line in lines if "elapsed_ms" in line)

        check.at_most("ms of the slowest of 30 requests, good card", slowest(), MOST_MS)
        for what, begin, end in TROUBLES:
            begin(board)
            check.at_most(f"ms of the slowest of 30 requests, card {what}", slowest(), MOST_MS)
            end(board)
            before = int(board.run(ON_CARD))
            check.at_most(f"ms of the slowest of 30 requests, card well again after {what}", slowest(), MOST_MS)
            wait_for(f"lines on the card after {what}", lambda: int(board.run(ON_CARD)) > before + 30, 30)
