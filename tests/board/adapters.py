"""USB adapters come, go and come back while the service runs."""

import threading
import time

from emulator import Field, wait_for
from serial_lines import request

NAMES = {2: "ADAPTER1", 3: "ADAPTER2"}  # channel and serial number


def name(channel):
    return f"/dev/serial/by-id/usb-QEMU_QEMU_USB_SERIAL_{NAMES[channel]}-if00-port0"


def ask(board, channel, timeout=500, device=1):
    """Cause and duration of one request, in ms."""
    lines, _ = request(board, channel, 19200, device, 4, 1, timeout=timeout)
    devices = lines[0]["devices"]
    return devices[0]["cause"] if devices else f"status {lines[0]['status']}", lines[0]["elapsed_ms"]


def expect_back(check, board, what, channel):
    """The port is there and a device answers, without a restart of the service."""
    wait_for(f"the terminal of channel {channel}", lambda: board.ask(f"test -c {name(channel)}")[0] == 0)
    check.equal(f"{what}, channel {channel}", ask(board, channel)[0], "answered")


def pull(board, adapter, channel):
    board.pull(adapter)
    wait_for("the terminal goes", lambda: board.ask(f"test ! -e {name(channel)}")[0] == 0)


def pulled_in_a_cycle(check, board, adapter):
    answers = []
    asking = threading.Thread(target=lambda: answers.append(ask(board, 2, 20000, 9)))
    asking.start()
    time.sleep(3)
    pulled = time.monotonic()
    board.pull(adapter)
    asking.join(60)
    check.equal("pulled in a cycle", [cause for cause, _ in answers], ["port_gone"])
    check.at_most("s until the cycle ends then", round(time.monotonic() - pulled, 1), 5)


def play(stage, check):
    lines = {channel: Field.bus(stage.work, stage.programs, f"wire{channel}", "1-3", 19200) for channel in NAMES}
    with lines[2], lines[3], stage.kept.resumed() as board:
        board.run("sed -i '/^RS485_PORT_[23]/d' /etc/default/tamsel_communication; printf "
                  f"'RS485_PORT_2={name(2)}\\nRS485_PORT_3={name(3)}\\n' >> /etc/default/tamsel_communication; "
                  "systemctl restart tamsel_communication; ! grep -q ttyUSB /proc/devices")
        started = board.run("pidof tamsel_communication")
        first = board.plug(lines[2].path, 1)
        expect_back(check, board, "the driver loaded after the start", 2)
        for _ in range(3):
            pull(board, first, 2)
            cause, duration = ask(board, 2)
            check.equal("pulled between two requests", cause, "port_gone")
            check.at_most("ms that the channel is held", duration, 3000)
            first = board.plug(lines[2].path, 1)
            expect_back(check, board, "plugged in again", 2)
        pulled_in_a_cycle(check, board, first)
        # Two, in the other order: the terminals' numbers change, the adapters' names do not.
        for order in ((2, 3), (3, 2)):
            adapters = {channel: board.plug(lines[channel].path, channel - 1) for channel in order}
            for channel in order:
                expect_back(check, board, f"order {order}", channel)
            for channel, adapter in adapters.items():
                pull(board, adapter, channel)
                check.equal(f"pulled, channel {channel}", ask(board, channel)[0], "port_gone")
        check.equal("the service's process", board.run("pidof tamsel_communication"), started)
