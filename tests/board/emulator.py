"""One emulated board: QEMU's "virt" machine with a Cortex-A15, Debian's kernel and systemd, two kinds
of serial port, a card, and an agent that runs commands as root."""

import base64
import json
import os
import signal
import socket
import subprocess
import time


class BoardError(Exception):
    """The board, or the emulator, does not do what every case needs."""


def wait_for(what, condition, limit=60.0, pause=0.2):
    """Asks until the condition is true, and returns the seconds that it took."""
    begin = time.monotonic()
    while not condition():
        if time.monotonic() - begin > limit:
            raise BoardError(f"not within {limit:.0f} s: {what}")
        time.sleep(pause)
    return time.monotonic() - begin


def free_port():
    with socket.socket() as probe:
        probe.bind(("127.0.0.1", 0))
        return probe.getsockname()[1]


class Board:
    """`disk`: a qcow2 image, which the board writes. `card`: a raw image in a slot of its own.
    `state`: a file that `freeze` left, with the same kind of devices; without one the board boots.

    Channel 1 is /dev/ttyS0, a 16550A whose line `connect` chooses; USB adapters come with `plug`. What
    the board writes to /dev/hvc0 leaves it at once, to `output`."""

    def __init__(self, folder, disk, kernel_folder, card, state=None):
        self.folder = folder
        self.output = f"{folder}/output"
        self.port = free_port()
        self.plugs = 0
        self.command = [
            "qemu-system-arm", "-M", "virt,highmem=off", "-cpu", "cortex-a15", "-m", "256",
            "-nodefaults", "-display", "none", "-no-reboot",
            "-kernel", f"{kernel_folder}/vmlinuz", "-initrd", f"{kernel_folder}/initrd.img",
            "-append", "root=/dev/vda rw console=ttyAMA0 quiet audit=0 apparmor=0",
            "-serial", f"file:{folder}/console",
            "-qmp", f"unix:{folder}/qmp,server=on,wait=off",
            "-drive", f"if=none,id=root,file={disk},format=qcow2,cache=writeback",
            "-device", "virtio-blk-pci,drive=root",
            "-netdev", f"user,id=net,hostfwd=tcp:127.0.0.1:{self.port}-:2222",
            "-device", "virtio-net-pci,netdev=net,id=ethernet,romfile=",
            "-chardev", "null,id=line", "-device", "pci-serial,chardev=line",
            "-device", "qemu-xhci,id=usb",
            "-device", "virtio-serial-pci", "-chardev", f"file,id=output,path={self.output}",
            "-device", "virtconsole,chardev=output",
            "-device", "pcie-root-port,id=cardslot,slot=1",
            "-blockdev", f"driver=raw,node-name=card,file.driver=file,file.filename={card}",
            "-device", "virtio-blk-pci,drive=card,id=carddevice,bus=cardslot,write-cache=on"]
        if state:
            self.command += ["-incoming", f"exec:cat {state}"]
        self.is_resumed = bool(state)
        self.process = None

    def __enter__(self):
        if os.path.exists(f"{self.folder}/qmp"):  # of the board before
            os.remove(f"{self.folder}/qmp")
        self.process = subprocess.Popen(self.command, stdin=subprocess.DEVNULL,
                                        stderr=open(f"{self.folder}/emulator", "w"))
        try:
            wait_for("the emulator's monitor", lambda: os.path.exists(f"{self.folder}/qmp"))
            if self.is_resumed:
                wait_for("the kept state", lambda: self.monitor("query-status")["status"] == "paused")
                self.monitor("cont")
            wait_for("the board's agent", self._has_agent, 400)
        except BaseException:
            self.cut_power()
            raise
        return self

    def __exit__(self, *_):
        self.cut_power()

    def _has_agent(self):
        if self.process.poll() is not None:
            raise BoardError("the emulator ended: " + open(f"{self.folder}/emulator").read())
        try:
            return self.ask("true", 10)[0] == 0
        except OSError:
            return False

    def ask(self, command, limit=120):
        """Runs it as root: exit status and output, standard error within. The status is -1 when the
        board goes away meanwhile."""
        with socket.create_connection(("127.0.0.1", self.port), limit) as agent:
            agent.sendall(f"{{ {command}\n}}\nprintf '\\n[%s]' $?\nexit\n".encode())
            text = b"".join(iter(lambda: agent.recv(65536), b"")).decode(errors="replace")
        text, _, status = text.rpartition("\n[")
        return int(status[:-1]) if status.endswith("]") else -1, text

    def run(self, command, limit=120):
        status, text = self.ask(command, limit)
        if status != 0:
            raise BoardError(f"{command}: status {status}: {text}")
        return text

    def copy(self, file, place):
        """A file of this machine's to a place on the board."""
        text = base64.encodebytes(open(file, "rb").read()).decode()
        self.run(f"base64 -d > {place}.new <<'END'\n{text}END\n" +
                 f"{{ chmod --reference={place} {place}.new 2>/dev/null; mv {place}.new {place}; }}")

    def monitor(self, command, **arguments):
        """A command of QMP."""
        with socket.socket(socket.AF_UNIX) as monitor:
            monitor.settimeout(30)
            monitor.connect(f"{self.folder}/qmp")
            lines = monitor.makefile("rw")
            lines.readline()
            for execute, values in (("qmp_capabilities", {}), (command, arguments)):
                lines.write(json.dumps({"execute": execute, "arguments": values}) + "\n")
                lines.flush()
                answer = {"event": ""}
                while "event" in answer:
                    answer = json.loads(lines.readline())
        if "error" in answer:
            raise BoardError(f"{command}: {answer['error']['desc']}")
        return answer["return"]

    def connect(self, terminal):
        """The 16550A's line."""
        self.monitor("chardev-change", id="line", backend={
            "type": "serial", "data": {"device": os.path.realpath(terminal)}})

    def plug(self, terminal, port=1):
        """A USB adapter (FTDI) with this line."""
        self.plugs += 1  # the emulator takes no name twice
        self.monitor("chardev-add", id=f"wire{self.plugs}", backend={
            "type": "serial", "data": {"device": os.path.realpath(terminal)}})
        self.monitor("device_add", driver="usb-serial", chardev=f"wire{self.plugs}", bus="usb.0",
                     id=f"adapter{self.plugs}", port=str(port), serial=f"ADAPTER{port}")
        return f"adapter{self.plugs}"

    def pull(self, adapter):
        self.monitor("device_del", id=adapter)

    # The driver lets go of the card: what uses it meets errors, as with a card that was pulled.
    def pull_card(self):
        self.run("basename $(readlink -f /sys/block/vdb/device) > /run/card; "
                 "cat /run/card > /sys/bus/virtio/drivers/virtio_blk/unbind; test ! -e /sys/block/vdb")

    def put_card(self):
        self.run("cat /run/card > /sys/bus/virtio/drivers/virtio_blk/bind")
        wait_for("the card is there", lambda: self.ask("ls /dev/disk/by-label/CARD")[0] == 0)

    def slow_card(self, bytes_per_second):
        """0: as fast as it can."""
        self.monitor("block_set_io_throttle", id="/machine/peripheral/carddevice/virtio-backend", bps=bytes_per_second, bps_rd=0, bps_wr=0, iops=0,
                     iops_rd=0, iops_wr=0)

    def freeze(self, state):
        self.monitor("stop")
        self.monitor("migrate", uri=f"exec:cat > {state}")
        wait_for("the state is kept", lambda: self.monitor("query-migrate").get("status") == "completed")

    def shut_down(self):
        self.ask("systemctl --no-block poweroff", 10)
        self.process.wait(180)

    def cut_power(self):
        if self.process and self.process.poll() is None:
            self.process.send_signal(signal.SIGKILL)
            self.process.wait()


class Field:
    """Simulated devices: `buses` names terminals (PATH=ADDRESSES), `options` are field_simulator's."""

    def __init__(self, folder, programs, name, *options):
        self.path = f"{folder}/{name}"
        self.text = f"{folder}/{name}.field"
        self.process = subprocess.Popen([f"{programs}/field_simulator", *options], stdin=subprocess.DEVNULL,
                                        stdout=open(self.text, "w"), stderr=subprocess.STDOUT)
        wait_for("the simulated devices", lambda: "ready" in open(self.text).read(), 20)

    @classmethod
    def bus(cls, folder, programs, name, addresses, baud, *options):
        return cls(folder, programs, name, "--rtu-bus", f"{folder}/{name}={addresses}", "--rtu-baud", str(baud), *options)

    def tcp_port(self):
        """Of the first device."""
        return next(line.split()[2].rpartition(":")[2] for line in open(self.text) if line.startswith("device"))

    def __enter__(self):
        return self

    def __exit__(self, *_):
        self.process.terminate()
        self.process.wait(10)
