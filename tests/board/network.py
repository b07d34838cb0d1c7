"""Devices over the board's own network: all there, the link gone, the address gone."""

import json
import threading
import time

from emulator import Field

DEVICES = 31
COMMAND = ("tamselctl request --json --channel 1 --device 1-31=10.0.2.2:{} --read-holding 0,10 --timeout 1000 "
           "> /tmp/answer 2>/dev/null; ")


def answer(board):
    """How many devices answered, and the ms that it took."""
    line = json.loads(board.run("cat /tmp/answer"))
    return sum(device["ok"] for device in line["devices"]), line["elapsed_ms"]


def play(stage, check):
    with Field(stage.work, stage.programs, "site", "--devices", str(DEVICES), "--same-port") as field, \
            stage.kept.resumed() as board:
        ask = COMMAND.format(field.tcp_port())

        def expect(what, command, devices, most_ms):
            board.ask(command)
            answered, duration = answer(board)
            check.equal(f"{what}: devices that answer", answered, devices)
            check.at_most(f"{what}: ms", duration, most_ms)

        expect("at first", ask, DEVICES, 5000)
        # The agent needs the link, too: it waits, asks, and tells when the link is back.
        asking = threading.Thread(target=board.ask, args=("rm /tmp/answer; sleep 4; " + ask,))
        asking.start()
        time.sleep(2)
        board.monitor("set_link", name="ethernet", up=False)
        time.sleep(15)
        board.monitor("set_link", name="ethernet", up=True)
        asking.join(120)
        expect("no link", ":", 0, 15000)
        expect("link back", ask + ask, DEVICES, 5000)
        device = board.run("ip -o -4 route show default | sed 's/.* dev //; s/ .*//'").strip()
        expect("no address", f"ip address del 10.0.2.15/24 dev {device}; {ask} ip address add 10.0.2.15/24 dev {device}; "
               "ip route add default via 10.0.2.2", 0, 15000)
        expect("address back", ask + ask, DEVICES, 5000)
