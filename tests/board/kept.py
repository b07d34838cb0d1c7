"""What is made once and kept in a folder: the board's disk with the packages installed, the state of the
booted board, and what each case begins with."""

import contextlib
import glob
import hashlib
import os
import shutil
import subprocess

from emulator import Board

# The daemon's standard output is the truth that a card is compared with. It is the service's own
# business what else it may do.
OUTPUT_UNIT = "/etc/systemd/system/tamsel_communication.service.d/output.conf"
OUTPUT_LINES = r"[Service]\nStandardOutput=tty\nTTYPath=/dev/hvc0\nDeviceAllow=/dev/hvc0 rw\n"
SETTINGS = "/etc/tamsel/LoggerSetting.xml"

VFAT = "-t vfat -o uid=tamsel,gid=tamsel,umask=0007"
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
    owner = "chown tamsel:tamsel /media/sdcard" if kind == "ext4" else ":"
    return ("blockdev --flushbufs /dev/vdb && echo 3 > /proc/sys/vm/drop_caches && "
            f"mount {CARDS[kind]} /dev/vdb /media/sdcard && {owner}")


class Kept:
    """`folder`: root.img and the kernel are there. `packages`: a folder with the armhf packages."""

    def __init__(self, folder, packages, work):
        self.folder = folder
        self.work = work
        packages = sorted(glob.glob(f"{packages}/*.deb"))
        digest = hashlib.sha256(open(__file__, "rb").read() + str(os.path.getmtime(f"{folder}/root.img")).encode())
        for package in packages:
            digest.update(open(package, "rb").read())
        self.key = digest.hexdigest()[:16]
        self.packages = packages
        self.installed = f"{folder}/installed-{self.key}.qcow2"
        self.frozen = f"{folder}/frozen-{self.key}"

    def install(self):
        """The packages as somebody installs them, on the booted board."""
        if os.path.exists(self.installed):
            return
        for old in glob.glob(f"{self.folder}/installed-*") + glob.glob(f"{self.folder}/frozen-*"):
            os.remove(old)
        os.makedirs(f"{self.work}/packages")
        for package in self.packages:
            shutil.copy(package, f"{self.work}/packages")
        image = f"{self.work}/packages.img"
        subprocess.run(["mke2fs", "-q", "-L", "PACKAGES", "-d", f"{self.work}/packages", image, "16M"], check=True, capture_output=True)
        make_card(f"{self.work}/card")
        disk = overlay(f"{self.work}/installed", f"{self.folder}/root.img")
        with Board(self.work, disk, self.folder, f"{self.work}/card", drives=[image]) as board:
            board.run("systemctl is-system-running --wait >/dev/null; mount -o ro LABEL=PACKAGES /mnt && "
                      "DEBIAN_FRONTEND=noninteractive dpkg -i /mnt/*.deb 2>&1 && umount /mnt", 600)
            board.run(settings(SdcardPath="/media/sdcard") +
                      r"; printf 'RS485_PORT_1=/dev/ttyS0\nRS485_PORT_2=/dev/ttyUSB0\nRS485_PORT_3=/dev/ttyUSB1\n'"
                      " >> /etc/default/tamsel_communication; rm -rf /var/log/tamsel/*; sync")
            board.shut_down()
        os.rename(disk, self.installed)

    def booted(self, disk=None, card=None):
        """A board that boots, from what was installed or from what is left of another one."""
        return Board(self.work, disk or overlay(f"{self.work}/disk", self.installed), self.folder,
                     card or self.new_card())

    def new_card(self, kind="vfat"):
        make_card(f"{self.work}/card", kind)
        return f"{self.work}/card"

    def freeze(self, board):
        """Keeps the state of the booted board: the service stopped, the card not mounted."""
        board.run("systemctl stop tamsel_communication tamsel_watchdog.timer; umount /media/sdcard; "
                  f"mkdir -p $(dirname {OUTPUT_UNIT}); printf '{OUTPUT_LINES}' > {OUTPUT_UNIT}; "
                  "systemctl daemon-reload; modprobe -a vfat nls_ascii nls_cp437 nls_utf8; "
                  "stty -F /dev/hvc0 raw; chmod 666 /dev/hvc0; sync; echo 3 > /proc/sys/vm/drop_caches")
        board.freeze(self.frozen + ".state")
        board.cut_power()
        os.rename(f"{self.work}/disk", self.frozen + ".qcow2")

    def is_frozen(self):
        return os.path.exists(self.frozen + ".qcow2")

    @contextlib.contextmanager
    def resumed(self, kind=None, card=None, **values):
        """The kept board, the service started with these settings; with a kind, the card is mounted."""
        disk = overlay(f"{self.work}/disk", self.frozen + ".qcow2")
        card = card or self.new_card(kind or "vfat")
        with Board(self.work, disk, self.folder, card, self.frozen + ".state") as board:
            if kind:
                board.run(mount(kind))
            board.run(settings(**values) or ":")
            board.run("systemctl start tamsel_communication")
            yield board
