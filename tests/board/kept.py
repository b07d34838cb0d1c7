"""What is made once and kept in a folder: the state of the booted board with the packages installed, with
which each case begins."""

import contextlib
import glob
import hashlib
import inspect
import os
import shutil
import subprocess

from emulator import Board

# The daemon's standard output is the truth that a card is compared with. It is the service's own
# business what else it may do.
OUTPUT_UNIT = "/etc/systemd/system/tamsel_communication.service.d/output.conf"
OUTPUT_LINES = r"[Service]\nStandardOutput=tty\nTTYPath=/dev/hvc0\nDeviceAllow=/dev/hvc0 rw\n"
SETTINGS = "/etc/tamsel/LoggerSetting.xml"

VFAT = "-t vfat -o uid=tamsel,gid=tamsel,umask=0027"
CARDS = {"vfat": VFAT, "vfat-dirsync": VFAT + ",dirsync", "ext4": "-t ext4"}


def make_card(path, kind="vfat", size="24M"):
    subprocess.run(["truncate", "-s", "0", path], check=True)
    subprocess.run(["truncate", "-s", size, path], check=True)
    make = ["mkfs.vfat", "-n", "CARD"] if kind.startswith("vfat") else ["mke2fs", "-q", "-t", "ext4", "-L", "CARD"]
    subprocess.run([*make, path], check=True, capture_output=True)


def overlay(path, base):
    """A disk that begins as the base and leaves that as it is."""
    subprocess.run(["qemu-img", "create", "-q", "-f", "qcow2", "-F", "raw" if base.endswith(".img") else "qcow2",
                    "-b", os.path.abspath(base), path], check=True)
    return path


def settings(**values):
    """A command that changes the daemon's settings."""
    return "; ".join(f"sed -i 's|<{key}>[^<]*<|<{key}>{value}<|' {SETTINGS}" for key, value in values.items())


def mount(kind):
    """A command that mounts the card as its content is now, not as it was when the state was kept."""
    check = "{ fsck.vfat -a /dev/vdb >/dev/null || [ $? -eq 1 ]; }" if kind.startswith("vfat") else ":"
    owner = "chown -R tamsel:tamsel /media/sdcard" if kind == "ext4" else ":"
    return ("blockdev --flushbufs /dev/vdb && echo 3 > /proc/sys/vm/drop_caches && "
            f"{check} && mount {CARDS[kind]} /dev/vdb /media/sdcard && {owner}")


class Kept:
    """`folder`: root.img and the kernel are there. `packages`: a folder with the armhf packages."""

    def __init__(self, folder, packages, work):
        self.folder = folder
        self.work = work
        self.packages = sorted(glob.glob(f"{packages}/*.deb"))
        made_by = inspect.getsource(Kept.prepare) + inspect.getsource(Board.__init__) + OUTPUT_LINES
        digest = hashlib.sha256(f"{made_by}{os.path.getmtime(f'{folder}/root.img')}".encode())
        for package in self.packages:
            digest.update(open(package, "rb").read())
        self.frozen = f"{folder}/frozen-{digest.hexdigest()[:16]}"

    def prepare(self):
        """Boots, installs the packages as somebody does, and keeps the board in that state: the service
        stopped, the card not mounted."""
        if os.path.exists(self.frozen + ".qcow2"):
            return
        for old in glob.glob(f"{self.folder}/frozen-*"):
            os.remove(old)
        card = self.new_card()
        subprocess.run(["mcopy", "-i", card, *self.packages, "::"], check=True)
        disk = overlay(f"{self.work}/disk", f"{self.folder}/root.img")
        with Board(self.work, disk, self.folder, card) as board:
            board.run("systemctl is-system-running --wait >/dev/null; mount -o ro /dev/vdb /mnt && "
                      "DEBIAN_FRONTEND=noninteractive dpkg -i /mnt/*.deb && umount /mnt", 900)
            board.run("systemctl stop tamsel_communication tamsel_watchdog.timer; " + settings(SdcardPath="/media/sdcard") +
                      r"; printf 'RS485_PORT_1=/dev/ttyS0\nRS485_PORT_2=/dev/ttyUSB0\nRS485_PORT_3=/dev/ttyUSB1\n'"
                      " >> /etc/default/tamsel_communication; rm -rf /var/log/tamsel/*; "
                      f"mkdir -p $(dirname {OUTPUT_UNIT}); printf '{OUTPUT_LINES}' > {OUTPUT_UNIT}; "
                      "systemctl daemon-reload; modprobe -a vfat nls_ascii nls_cp437 nls_utf8; "
                      "stty -F /dev/hvc0 raw; chmod 666 /dev/hvc0; sync; echo 3 > /proc/sys/vm/drop_caches")
            board.freeze(self.frozen + ".state")
        os.rename(disk, self.frozen + ".qcow2")

    def new_card(self, kind="vfat"):
        make_card(f"{self.work}/card", kind)
        return f"{self.work}/card"

    def _resumed(self, card):
        return Board(self.work, overlay(f"{self.work}/disk", self.frozen + ".qcow2"), self.folder, card,
                     self.frozen + ".state")

    def booted(self):
        """A board that boots with the packages, as it was shut down, from a card in its slot."""
        with self._resumed(self.new_card()) as board:
            board.run(f"rm -r $(dirname {OUTPUT_UNIT})")
            board.shut_down()
        return Board(self.work, f"{self.work}/disk", self.folder, f"{self.work}/card")

    @contextlib.contextmanager
    def resumed(self, kind=None, card=None, **values):
        """The kept board, the service started with these settings; with a kind, the card is mounted."""
        with self._resumed(card or self.new_card(kind or "vfat")) as board:
            if kind:
                board.run(mount(kind))
            for replaced in os.environ.get("BOARD_REPLACE", "").split():
                board.copy(*replaced.split("="))
            board.run(f"{settings(**values) or ':'}; systemctl daemon-reload; systemctl start tamsel_communication")
            yield board
