"""The board boots with the packages: the service runs as the documents say."""

from emulator import Field, wait_for

PROCESS = "/proc/$(pidof tamsel_communication)"
GROUP = "/sys/fs/cgroup/system.slice/tamsel_communication.service"
FACTS = (
    ("service", "systemctl is-active tamsel_communication tamsel_watchdog.timer", "active\nactive"),
    ("failed units", "systemctl list-units --failed --no-legend", ""),
    ("user", f"stat -c %U:%G {PROCESS}", "tamsel:tamsel"),
    ("groups", f"getent group $(sed -n 's/^Groups:\\s*//p' {PROCESS}/status) | cut -d : -f 1 | sort | xargs",
     "dialout tamsel"),
    ("capabilities", f"sed -n 's/^Cap...:\\s*//p' {PROCESS}/status | sort -u", "0" * 16),
    ("memory limit", f"cat {GROUP}/memory.max", str(64 << 20)),
    ("thread limit", f"cat {GROUP}/pids.max", "192"),
    ("descriptor limit", f"awk '/open files/ {{ print $5 }}' {PROCESS}/limits", "1024"),
    ("folder of the socket", "stat -c '%a %U:%G' /run/tamsel", "750 tamsel:tamsel"),
    ("socket", "stat -c '%a %U:%G %F' /run/tamsel/tamsel.com", "770 tamsel:tamsel socket"),
    ("health file", "stat -c '%a %U:%G' /run/tamsel/health", "640 tamsel:tamsel"),
    ("settings file", "stat -c '%a %U:%G' /etc/tamsel/LoggerSetting.xml", "640 root:tamsel"),
    ("card", "findmnt -n -o FSTYPE /media/sdcard", "vfat"),
    ("log on the card", "test -s /media/sdcard/velmorahome/Log/LoggerCom.log; echo $?", "0"),
    ("mistakes in the settings", "tamselctl settings --user tamsel >/dev/null; echo $?", "0"),
    ("foreign libraries", f"grep -c -e /local/ -e '(deleted)' {PROCESS}/maps", "0"),
)
FIRST_ANSWER = """systemctl stop tamsel_communication
begin=$(date +%s%3N)
systemctl start tamsel_communication
until tamselctl request {} >/dev/null 2>&1 || [ $(($(date +%s%3N) - begin)) -gt 20000 ]; do :; done
echo $(($(date +%s%3N) - begin))"""


def play(stage, check):
    with Field(stage.work, stage.programs, "boot", "--devices", "1", "--base-port", "0") as field, \
            stage.kept.booted() as board:
        board.run("systemctl is-system-running --wait || true", 400)
        wait_for("the first log line", lambda: "0" in board.run(FACTS[-3][1]), 20)
        for what, command, wanted in FACTS:
            check.equal(what, board.ask(command)[1].strip(), wanted)
        request = f"--channel 1 --device 1=10.0.2.2:{field.tcp_port()} --read-holding 0,2"
        check.at_most("ms from a start to the first answer", int(board.run(FIRST_ANSWER.format(request))), 15000)
        board.run(f"tamselctl request {request}")
        health = [line for line in board.run("tamselctl health").splitlines() if line.startswith("1 device")]
        check.equal("devices in health", "".join(health), "1 device answers.")
