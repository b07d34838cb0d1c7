"""RS485 on the UART (16550A) and on a USB adapter (FTDI), whose driver hands on packets."""

import json

from emulator import Field

# What the device with that place in the list, from 1 on, does wrong, and what the client is told.
WRONG = (("silence", "no answer in time"), ("late:2000", "no answer in time"), ("other-address", "answer of somebody else"),
         ("garbage:4", "answer of somebody else"), ("cut", "wrong CRC"), ("pause:60", "answered"), ("noise", "answered"))


def request(board, channel, baud, devices, registers, rounds, timeout=1000, start=0):
    """The rounds as the tool tells them, and its summary."""
    text = board.ask(f"tamselctl request --json --channel {channel} --baud {baud} --device {devices} --timeout {timeout} "
                     f"--read-holding {start},{registers} --watch 0.1 --count {rounds}")[1]
    *lines, summary = [json.loads(line) for line in text.splitlines() if line.startswith("{")] or [{}]
    return lines, summary.get("summary", {}).get("devices", [])


def count_whole(check, board, name, channel, baud):
    for registers in (1, 10, 60):
        for devices, rounds in (("1-3", 6), ("1-31", 1)):
            expected = rounds * int(devices[2:])
            answered = sum(device["answered"] for device in request(board, channel, baud, devices, registers, rounds)[1])
            check.at_least(f"{name}, {baud} baud, devices {devices}, {registers} registers: whole answers of {expected}",
                           answered, expected)


def tell_wrong(stage, check, board):
    faults = [option for address, (fault, _) in enumerate(WRONG, 1) for option in ("--fault", f"{address}={fault}")]
    with Field.bus(stage.work, stage.programs, "wrong", f"1-{len(WRONG)}", 19200, *faults) as line:
        board.connect(line.path)
        for address, (fault, words) in enumerate(WRONG, 1):
            lines, _ = request(board, 1, 19200, address, 4, 2, timeout=500)
            check.equal(fault, {line["devices"][0]["status"].partition(" (")[0] for line in lines}, {words})
        time_out(check, board, [fault for fault, _ in WRONG].index("silence") + 1)


def time_out(check, board, silent):
    """Processor time of the service while it waits, less than what a request costs anyway."""
    def used(timeout):
        before = int(board.run(USED))
        lines, _ = request(board, 1, 19200, silent, 4, 3, timeout=timeout)
        check.equal(f"time-outs of {timeout} ms", [line["devices"][0]["cause"] for line in lines], ["no_answer"] * 3)
        return (int(board.run(USED)) - before) // 1000
    short = used(10)
    check.at_most("ms of processor time for 3 time-outs of 900 ms", used(910) - short, 250)


USED = "awk '/usage_usec/ { print $2 }' /sys/fs/cgroup/system.slice/tamsel_communication.service/cpu.stat"


def play(stage, check):
    with stage.kept.resumed() as board:
        for baud in (9600, 19200, 115200):
            with Field.bus(stage.work, stage.programs, f"line{baud}", "1-31", baud) as line:
                board.connect(line.path)
                count_whole(check, board, "16550A", 1, baud)
        tell_wrong(stage, check, board)
        with Field.bus(stage.work, stage.programs, "adapter", "1-31", 19200) as line:
            board.plug(line.path)
            board.run("timeout 30 sh -c 'until test -c /dev/ttyUSB0; do sleep 0.2; done'")
            count_whole(check, board, "FTDI", 2, 19200)
