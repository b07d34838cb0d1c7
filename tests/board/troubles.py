"""The service is killed, hangs, or has no memory left; the clock is wrong."""

import time

from boot import GROUP
from emulator import Field, wait_for

PID = "systemctl show -p MainPID --value tamsel_communication"


def await_other(board, pid, limit):
    return round(wait_for("another process of the service", lambda: board.run(PID).strip() not in ("0", pid), limit, 0.5))


def play(stage, check):
    with Field(stage.work, stage.programs, "site", "--devices", "1") as field, \
            stage.kept.resumed("vfat", SdcardPath="/media/sdcard", WatchdogFileUpdateInterval=1, LogLevel=1, EnableLogBufferedIO=0,
                               HealthFilePath="/run/tamsel/health") as board:
        ask = f"tamselctl request --channel 1 --device 1=10.0.2.2:{field.tcp_port()} --read-holding 0,2 >/dev/null"
        board.run(ask)
        board.run("systemctl start tamsel_watchdog.timer")
        for what, command, limit in (
                ("killed", "kill -KILL $({})", 15),
                ("hangs", "kill -STOP $({})", 120),
                ("no memory", f"sh -c 'echo $$ > {GROUP}/cgroup.procs; exec tail /dev/zero' & sleep 5", 30)):
            pid = board.run(PID).strip()
            board.run(command.format(PID))
            check.at_most(f"{what}: s until it runs again", await_other(board, pid, 300), limit)
            wait_for("an answer", lambda: board.ask(ask)[0] == 0, 20)
        check.equal("log after that", board.ask("tamselctl log --summary >/dev/null")[0], 0)
        check.equal("health after that", board.ask("tamselctl health | grep -c '1 device answers'")[1].strip(), "1")
        wrong_clocks(check, board, ask)


def wrong_clocks(check, board, ask):
    """Started in 1970 and in 2037, then set; and set back by a day: nobody restarts the service. Not later:
    Debian's own systemd for armhf has times of 32 bits."""
    for what, start, then in (("1970", "@1000", f"@{time.time():.0f}"), ("2037", "2037-12-01", f"@{time.time():.0f}"),
                              ("a day back", f"@{time.time():.0f}", f"@{time.time() - 86400:.0f}")):
        board.run(f"systemctl stop tamsel_communication; date -s {start}; systemctl start tamsel_communication")
        wait_for("an answer", lambda: board.ask(ask)[0] == 0, 20)
        pid = board.run(PID).strip()
        board.run(f"date -s {then}; sleep 1; {ask}; sleep 2")
        stamp = board.run("tail -n 1 /media/sdcard/velmorahome/Log/LoggerCom.log; date -u +%Y-%m-%d").splitlines()
        check.equal(f"{what}: day of the last log line", stamp[0][1:11], stamp[1])
        check.equal(f"{what}: health", board.ask("tamselctl health | grep -c '1 device answers'")[1].strip(), "1")
        board.run("systemctl start tamsel_watchdog.service")
        check.equal(f"{what}: the same process", board.run(PID).strip(), pid)
