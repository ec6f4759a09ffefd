#!/usr/bin/env python3
"""A real machine really goes down: the installed package in a virtual machine on a simulated UPS, from the first boot
through a mains failure to the power-off that the UPS waits for, and a second boot that remembers it. Called by
run.sh; prints a line for each thing seen, with its time, and ends with status 1 at the first that does not come."""

import argparse
import json
import os
import re
import signal
import subprocess
import sys
import tempfile
import types

from machine import Clock, Failed, Line, Lines, Machine, Monitor, Ups, hardware_virtualisation, stop_process

# The account that image.sh made.
ACCOUNT, PASSWORD = "keeper", "fourteen-volts"

# Short, so that the failure is over soon; the delay has to be long enough for a machine to go down in, and the UPS
# counts it in whole minutes.
BATTERY_TIME, FIRST_WARNING, WARNING_INTERVAL = 20, 5, 5  # s
TURN_OFF_DELAY = {True: 60, False: 180}  # s, by whether the hardware runs the guest

clock = Clock()
failures = []


def say(who, text, at=None):
    print(f"{clock.now() if at is None else at:7.1f} s  {who:<9} {text}", flush=True)


def act(title):
    print(f"\n-- {title}\n", flush=True)


def proven(name, good, why=""):
    """One of the things that do not depend on each other: the story goes on, the test has failed."""
    say("ok" if good else "NOT OK", name if good or not why else f"{name}: {why}")
    if not good:
        failures.append(name)


def see(who, what, limit, look, alive=None):
    """Waits for a line and says it."""
    line = clock.wait(what, limit, look, alive)
    say(who, f"{what}: {line.text.strip()}", line.time)
    return line


# ---- the first boot ----


def boot(paths, number, accelerated, ups):
    machine = Machine(clock, paths, number, accelerated, ups)
    say("machine", "power on", machine.on)
    return machine


def first_status(machine, monitor):
    see("machine", "unit", 90, lambda: machine.console.find("Started .*UPS monitoring agent"), machine.alive)
    status = clock.wait("a good status over the network", 60, monitor.good_status, machine.alive)
    seconds = clock.now() - machine.on
    say("monitor", f"first good status: {status['model']} on {status['link']['device']}, "
        f"input {status['measurements']['input_voltage']} V, battery {status['battery']['text']}")
    return seconds


def log_in(monitor):
    say("monitor", monitor.get("login", stdin=f"{ACCOUNT}\n{PASSWORD}\n").strip().splitlines()[-1])
    refused = monitor.run("login", stdin=f"{ACCOUNT}\nnot-{PASSWORD}\n")
    proven("a wrong password is refused", refused.returncode == 1, f"status {refused.returncode}")


def shorten_times(monitor, delay):
    for name, value in (("first-warning", FIRST_WARNING), ("battery-time", BATTERY_TIME),
                        ("warning-interval", WARNING_INTERVAL), ("turn-off-delay", delay)):
        monitor.get("config", "set", name, f"{value}s", "--yes")
    say("monitor", f"settings: shutdown after {BATTERY_TIME} s on battery, warnings from {FIRST_WARNING} s on, "
        f"output off {delay} s after the order")


def idle_cost(machine):
    """Proportional set sizes in KiB: of the two processes, and of a program that does nothing at all."""
    pss = "awk '/^Pss:/ { print $2 }' /proc/%s/smaps_rollup"
    agent = daemon(machine)
    ups_process = ups_process_of(machine, agent)
    idle = machine.get("sleep 30 & sleep 0.3; " + pss % "$!" + "; kill $!")
    return (int(machine.get(pss % agent)), int(machine.get(pss % ups_process)), int(idle))


# ---- how the service behaves ----


def daemon(machine):
    """The agent's process, 0 when none runs."""
    return int(machine.get("systemctl show -P MainPID voltariad"))


def ups_process_of(machine, agent):
    """The one child that lasts."""
    return int(machine.get(f"cat /proc/{agent}/task/{agent}/children").split()[0])


def serving(machine, monitor, what):
    clock.wait(what, 60, monitor.good_status, machine.alive)


def restarts_after_kill(machine, monitor):
    before = daemon(machine)
    machine.get(f"kill -9 {ups_process_of(machine, before)}")
    try:
        clock.wait("a new daemon", 40, lambda: daemon(machine) not in (0, before), machine.alive)
        serving(machine, monitor, "the status of the restarted daemon")
        proven("a killed UPS process ends the agent, and the unit starts both again", True)
    except Failed as failed:
        proven("a killed UPS process ends the agent, and the unit starts both again", False, str(failed))


def stays_stopped(machine, how):
    machine.get(how, 60)
    # RestartSec is 2 s: what wanted to come back would be there by then.
    came_back = machine.get("sleep 6; grep -lx voltariad /proc/[0-9]*/comm || true", 60)
    proven(f"after '{how}' no daemon comes back", came_back == "", came_back)


def starts_again(machine, monitor, name, prepare=None):
    if prepare:
        machine.get(prepare)
    status, output = machine.run("systemctl start voltariad", 60)
    try:
        if status != 0:
            raise Failed(output.strip())
        serving(machine, monitor, "the status of the started daemon")
        proven(name, True)
    except Failed as failed:
        proven(name, False, str(failed))


def service(machine, monitor):
    restarts_after_kill(machine, monitor)
    stays_stopped(machine, "voltariactl stop")
    starts_again(machine, monitor, "'systemctl start' brings it back")
    stays_stopped(machine, "systemctl stop voltariad")
    machine.get("systemctl reset-failed voltariad || true")
    # A daemon killed while it held the lock leaves it behind.
    starts_again(machine, monitor, "a lock file left behind is cleared before the start",
                 "touch /usr/lib/voltaria/.LCK && ln /usr/lib/voltaria/.LCK /usr/lib/voltaria/.pipelock")
    hardening(machine)


def hardening(machine):
    status, output = machine.run("/usr/local/sbin/hardening.sh", 180)
    for line in output.splitlines():
        if match := re.match(r"(not )?ok (.*)", line):
            proven(match[2], match[1] is None)
    if status != 0 and "not ok" not in output:
        proven("the proofs of the unit's confinement", False, output.strip()[-400:])


def health(machine, paths):
    """What the local tool says, kept whole with the logs."""
    for words in ("status", "doctor"):
        status, output = machine.run(f"voltariactl {words}", 60)
        with open(f"{paths.logs}/voltariactl-{words}.txt", "w", encoding="utf-8") as copy:
            copy.write(output)
        proven(f"voltariactl {words} finds nothing wrong", status == 0, f"status {status}\n{output}")
    with open(f"{paths.logs}/journal.log", "w", encoding="utf-8") as copy:
        copy.write(machine.run("journalctl --no-pager", 120)[1])


# ---- the mains fails ----


def followers(machine):
    """How many monitors the agent is connected with: its port is 4112, 01 an established connection."""
    return int(machine.run("grep -c ':1010 [0-9A-F]*:[0-9A-F]* 01 ' /proc/net/tcp")[1])


def shown_event(monitor, number):
    """One of the last two events, which are part of the state."""
    status = monitor.status()
    for event in status["events"] if status else []:
        if event["id"] == number:
            return Line(clock.now(), f"{event['time']} {number} {event['text']}")
    return None


def fail_mains(machine, monitor, ups, paths, delay):
    with subprocess.Popen(monitor.command("notices", "--lang", "en"), stdout=subprocess.PIPE,
                          stderr=subprocess.STDOUT, env={**os.environ, "LC_ALL": "C.UTF-8"}) as follower:
        try:
            notices = Lines(clock, follower.stdout, f"{paths.logs}/notices.log")
            clock.wait("the connection of the one who follows", 30, lambda: followers(machine) > 0, machine.alive)
            begin = ups.length()
            if paths.break_it != "mains":
                ups.ask("mains fail")
            failed = see("ups", "mains", 10, lambda: ups.find(r" ev mains", begin), ups.alive)
            see("monitor", "event", 30, lambda: shown_event(monitor, 65), machine.alive)
            see("monitor", "warning", 30, lambda: notices.find("will be shut down in"), machine.alive)
            down = see("monitor", "deadline", BATTERY_TIME + 30, lambda: notices.find("Time is up"), machine.alive)
            order = see("ups", "switch-off order", 40, lambda: ups.find(r" rx S[.\d]", begin), ups.alive)
            off = power_off(machine, lambda: going_down(ups, begin))
        finally:
            stop_process(follower)
    proven("the order came when the time was up, and not before",
           order.time - failed.time >= BATTERY_TIME - 1 and order.time >= down.time - 5)
    output_off(ups, begin, order, off, delay)


def going_down(ups, begin):
    """What shows, long before the limit, that the machine stays up."""
    ups.alive()
    if ups.count(r" rx S[.\d]", begin) > 1:
        raise Failed("the machine did not go down: its agent, started again, orders the UPS off once more")
    if ups.find(r" ev output off", begin):
        raise Failed("the UPS cut its output while the machine was still running")


def power_off(machine, alive=None):
    line = see("machine", "kernel", 120, lambda: machine.console.find("reboot: Power down"), alive)
    status = machine.process.wait(30)
    say("machine", f"power off, {clock.now() - line.time:.1f} s later; the emulator ended by itself, status {status}")
    if status != 0:
        raise Failed("the emulator did not end as after a power-off")
    return clock.now()


def output_off(ups, begin, order, off, delay):
    line = see("ups", "output", delay + 30, lambda: ups.find(r" ev output off", begin), ups.alive)
    lasted = line.time - order.time
    proven(f"the output was cut {lasted:.1f} s after the order, as ordered", abs(lasted - delay) < 3)
    proven(f"that was {line.time - off:.1f} s after the machine was off", line.time > off)


# ---- the second boot ----


def mains_return(ups):
    begin = ups.length()
    ups.ask("mains return")
    see("ups", "output", 60, lambda: ups.find(r" ev output on", begin), ups.alive)


def told_by_log(monitor, paths):
    document = json.loads(monitor.get("log", "--all", "--json"))
    with open(f"{paths.logs}/events.json", "w", encoding="utf-8") as copy:
        json.dump(document, copy, indent=1)
    events = document["events"] if isinstance(document, dict) else document
    for event in events:
        say("log", f"{event['time']}  {event['id']:>3}  {event['text']}")
    wanted, found = [65, 129, 22, 8, 7], []
    for event in events:
        if len(found) < len(wanted) and event["id"] == wanted[len(found)]:
            found.append(event["id"])
    proven("the log tells it in order: 65, 129, 22, 8, and 7 of the new start", found == wanted, str(found))


def clean_file_system(machine):
    journal = machine.run("journalctl -b -k --no-pager", 60)[1]
    proven("the file system was left clean", "recovery" not in journal and "orphan" not in journal)


# ---- all of it ----


def tell(paths, ups, accelerated):
    delay = TURN_OFF_DELAY[accelerated]
    figures = types.SimpleNamespace()
    act("Act 1: the machine starts")
    machine = boot(paths, 1, accelerated, ups)
    paths.machines.append(machine)
    monitor = Monitor(paths.voltaria, machine)
    figures.status = first_status(machine, monitor)
    break_guest(paths, machine)
    log_in(monitor)
    figures.pss = idle_cost(machine)
    figures.security = machine.get("systemd-analyze security voltariad --no-pager | tail -n 1", 60)

    act("Act 2: the mains fails")
    shorten_times(monitor, delay)
    fail_mains(machine, monitor, ups, paths, delay)
    machine.stop()

    act("Act 3: the mains is back, and so is the machine")
    mains_return(ups)
    machine = boot(paths, 2, accelerated, ups)
    paths.machines.append(machine)
    monitor = Monitor(paths.voltaria, machine)
    figures.again = first_status(machine, monitor)
    told_by_log(monitor, paths)
    clean_file_system(machine)
    health(machine, paths)

    act("Act 4: the service is killed, stopped and started")
    service(machine, monitor)
    # Once the answer is out.
    machine.get("(sleep 1; systemctl poweroff) &")
    power_off(machine)
    return figures


def break_guest(paths, machine):
    """For proving that the test can fail: a guest that cannot go down."""
    if paths.break_it == "bus":
        machine.get("systemctl mask --now dbus.socket dbus.service systemd-logind", 60)


def report(figures, paths, accelerated):
    act("Figures")
    with open(f"{paths.image}/installed", encoding="utf-8") as file:
        brought = file.read().split()
    agent, ups_process, idle = figures.pss
    print(f"  came with the package       {' '.join(brought)}")
    print(f"  power on to first status    {figures.status:.1f} s, second boot {figures.again:.1f} s")
    print(f"  PSS                         agent {agent} KiB, UPS process {ups_process} KiB; an idle 'sleep' {idle} KiB")
    print(f"  systemd-analyze security    {figures.security.lstrip('→ ')}")
    print(f"  processor                   {'KVM' if accelerated else 'emulated'}")
    print(f"  the story                   {clock.now():.0f} s")


def arguments():
    parser = argparse.ArgumentParser(description=__doc__.splitlines()[0])
    parser.add_argument("--image", required=True, help="directory made by image.sh")
    parser.add_argument("--programs", required=True, help="directory with voltaria and upssim")
    parser.add_argument("--logs", required=True)
    parser.add_argument("--break", dest="break_it", choices=("mains", "bus"),
                        help="to see the test fail: mains that never fails, or a guest without system bus")
    return parser.parse_args()


def run(paths):
    accelerated = hardware_virtualisation(paths)
    clock.patience = 1 if accelerated else 8
    say("test", "with hardware virtualisation" if accelerated else
        "no hardware virtualisation that works: emulated, which takes longer")
    # The image stays as it was made.
    subprocess.run(["cp", "--sparse=always", f"{paths.image}/disk.img", paths.disk], check=True)
    ups = Ups(clock, f"{paths.programs}/upssim", paths.run, paths.logs)
    try:
        report(tell(paths, ups, accelerated), paths, accelerated)
    finally:
        for machine in paths.machines:
            machine.stop()
        ups.stop()
        os.unlink(paths.disk)


def end_by_signal(number, _frame):
    raise SystemExit(128 + number)


def main():
    paths = arguments()
    for number in (signal.SIGTERM, signal.SIGINT, signal.SIGHUP):
        signal.signal(number, end_by_signal)
    os.makedirs(paths.logs, exist_ok=True)
    paths.voltaria = f"{paths.programs}/voltaria"
    paths.disk = f"{paths.image}/running.img"
    paths.machines = []
    try:
        # A socket's path is short.
        with tempfile.TemporaryDirectory(prefix="voltaria-vm-") as paths.run:
            run(paths)
    except Failed as failed:
        say("FAILED", str(failed))
        return 1
    except (OSError, ValueError, LookupError, subprocess.SubprocessError) as error:
        say("FAILED", f"{type(error).__name__}: {error}")
        return 1
    for failure in failures:
        say("FAILED", failure)
    return 1 if failures else 0


sys.exit(main())
