"""Asks the tests whether they notice one mutant: the unit tests that execute the place, the same with sanitizers, and
the system tests that the table below names for its module. Used by mutants.py."""

import os
import re
import shutil

from mutants_map import failed_tests, relevant
from mutants_process import Stop, run, say

SYSTEM_JOBS = 6                        # system tests at the same time: they mostly wait
SYSTEM_LIMIT = 150                     # s, of one system test
SANITIZED = ("-O1", "-g0", "-w", "-fsanitize=address,undefined", "-fno-sanitize-recover=undefined")

# The system tests of a module, by the beginning of its name: the first that fits. "faults:DiskFull" are those of
# system_faults with DiskFull in their names: of the fault matrix the faults that the module has to live with.
SYSTEM_TESTS = (
    ("agent/agent_daemon_password", "login network"),
    ("agent/agent_daemon_logins", "login network memory"),
    ("agent/agent_daemon_text", "language settings network"),
    ("agent/agent_daemon_requests_orders", "order_by_monitor power_order network hosts faults:OrderWhileOthersAreIgnored"),
    ("agent/agent_daemon_requests_settings", "settings network voltaria_write"),
    ("agent/agent_daemon_requests", "network settings protocol_doc monitors voltaria_read"),
    ("agent/agent_daemon_callback", "order power order_by_monitor grace hosts race faults:UpsProcess"),
    ("agent/agent_daemon_channel", "order power link order_by_monitor start race faults:UpsProcess"),
    ("agent/agent_daemon_clients", "network start memory monitors bound_2 bound_4 crowd order_by_monitor voltariactl "
                                   "faults:ClientsStalled faults:MonitorsVanish"),
    ("agent/agent_daemon", "network start memory monitors bound_2 bound_4 crowd order_by_monitor voltariactl"),
    ("agent/agent_main_message", "language start"),
    ("agent/agent_main", "start network bound_2 bound_4 voltariactl faults:UpsProcessKilled"),
    ("agent/agent_net_broadcast", "network hosts bound_2 bound_4 start faults:InterfaceVanishes"),
    ("agent/agent_net", "network login hosts bound_2 bound_4 monitors start"),
    ("agent/agent_ups_control", "order power link faults:FloodOfDateRequests/OnBattery"),
    ("agent/agent_ups_line", "link power start order faults:Garbage faults:XoffInTheNoise faults:RepliesOneByteLate"),
    ("agent/agent_ups_model", "link family start"),
    ("agent/agent_ups_status", "power link family selftest start race"),
    ("agent/agent_ups", "link power start order family faults:LineCut faults:PortFileGone"),
    ("agent/agent_utils", "start network link voltariactl race faults:BlockLockedByADeadTool"),
    ("agent/agent_wire", "settings network protocol_doc"),
    ("agent/", "network start settings link"),
    ("ea/auto", "schedule selftest"),
    ("ea/e_a_schedule", "schedule selftest power"),
    ("ea/e_a_log", "settings datalog network power faults:DiskFull faults:LogsUnwritable"),
    ("ea/e_a_notify", "notify power_story power faults:NotificationHangs"),
    ("ea/e_a_notice", "language notify power"),
    ("ea/e_a_action", "notify language power faults:CommandNeverEnds"),
    ("ea/e_a_down", "power grace power_story start faults:Clock"),
    ("ea/e_a_command", "order_by_monitor power_order hosts selftest"),
    ("ea/e_a_config", "settings durable initial start faults:SettingsFileADirectory"),
    ("ea/e_a_event", "settings durable notify initial"),
    ("ea/e_a_agentevent", "voltariactl voltaria_write settings"),
    ("ea/e_a_status", "power power_order link selftest grace family power_story faults:LineCut"),
    ("ea/e_a_timer", "power power_order grace schedule datalog power_story faults:Clock"),
    ("ea/filehandle", "settings durable initial start"),
    ("ea/", "power grace start settings schedule"),
)


def ask(project, program, binary, facts, limit, options=()):
    """Runs all tests of a linked program until one fails. Returns (how, test, which tests ran), how None when none did."""
    for tests in [["*-" + ":".join(facts["alone"] + facts["unfit"])]] + [[t] for t in facts["alone"]]:
        status, out = project.start(program, binary, tests, limit, fast=True, options=options)
        if status is None:
            return "limit", "".join(re.findall(r"(?m)^\[ RUN      \] (\S+)", out)[-1:]), tests
        if status == 0:
            continue
        failed = failed_tests(out)
        status, _ = project.start(program, binary, failed[:3] or tests, limit, options=options)
        if status == 0 and failed:
            status, _ = project.start(program, binary, tests, limit, options=options)
        if status != 0:
            return "unit", (failed or ["ends early"])[0], failed[:3] or tests
        say(f"  {program}: {' '.join(failed[:3])} failed once only")
    return None, "", []


def unit_tests(project, made, known, where):
    """Returns (how, program, test, number of programs asked), how None when every test passed."""
    asked = 0
    programs, _ = relevant(project, made.mutant, known)
    for program in programs:
        binary = os.path.join(where, "bin", program)
        if project.link(program, binary, made.objects)[0] != 0:
            continue  # the program replaces what stands in this source
        asked += 1
        how, test, _ = ask(project, program, binary, known[program], 20 + 3 * known[program]["seconds"])
        if how is not None:
            return how, program, test, asked
        os.unlink(binary)
    return None, "", "", asked


def sanitized_objects(project, made, where):
    """The broken sources and the unbroken ones, sanitized; None when one does not compile."""
    broken, plain = [], []
    for file in made.files:
        broken.append(f"{where}/san/{file}.o")
        plain.append(f"{where}/plain/{file}.o")
        if not (project.compile(made.source(file), file, broken[-1], first=made.headers(), flags=SANITIZED)[0] and
                project.compile(os.path.join(project.tree, file), file, plain[-1], flags=SANITIZED)[0]):
            return None
    return broken, plain


def sanitized_tests(project, made, known, where):
    """The same tests, those that execute the place, with the broken source sanitized, as ./check runs every test. What
    the unbroken source fails as well does not count."""
    objects = sanitized_objects(project, made, where)
    if objects is None:
        return None, "", "", 0
    broken, plain = objects
    asked = 0
    programs, executing = relevant(project, made.mutant, known)
    for program in programs[:max(executing, 3)]:
        binary, limit = os.path.join(where, "bin", program), 40 + 6 * known[program]["seconds"]
        if project.link(program, binary, broken, more=SANITIZED)[0] != 0:
            continue
        asked += 1
        how, test, tests = ask(project, program, binary, known[program], limit, ["--sanitizer-logs"])
        if how == "unit":
            status = project.link(program, binary, plain, more=SANITIZED)[0]
            if status == 0 and project.start(program, binary, tests, limit, options=["--sanitizer-logs"])[0] == 0:
                return "sanitizer", program, test, asked
        os.unlink(binary)
    return None, "", "", asked


def system_numbers(project, file):
    """CTest's numbers of the system tests of a module."""
    numbers = []
    for name in next(tests for prefix, tests in SYSTEM_TESTS if file.startswith(prefix)).split():
        program, _, part = name.partition(":")
        numbers += [str(number) for number, test in project.system.get("system_" + program, []) if part in test]
    return numbers


def system_tests(project, made):
    """With the mutant in the daemon's place."""
    numbers = system_numbers(project, made.mutant.file)
    if not numbers:
        return None, "", "", 0
    status, out = project.link("voltariad", project.daemon + ".mutant", made.objects)
    if status != 0:
        raise Stop(f"{made.id}: the daemon cannot be linked:\n{out}")
    os.rename(project.daemon + ".mutant", project.daemon)
    ctest = ["ctest", "--timeout", str(SYSTEM_LIMIT), "-j", str(SYSTEM_JOBS), "--stop-on-failure"]
    flaky = []
    try:
        for _ in range(3):
            command = [*ctest, "-I", "0,0,0," + ",".join(numbers)]
            if flaky:
                command += ["-E", "^(" + "|".join(map(re.escape, flaky)) + ")$"]
            status, out = run(command, project.build, 1800)
            if status == 0:
                return None, "", "", len(numbers)
            late = re.findall(r"(?m) - (\S+) \(Timeout\)", out)
            failed = re.findall(r"(?m)^\s+\d+ - (\S+) \((?!Not Run|Disabled|Skipped|Timeout)", out)
            if status is None or late:
                return "limit", "system", (late or [""])[0], len(numbers)
            again, _ = run([*ctest, "-R", "^(" + "|".join(map(re.escape, failed)) + ")$"], project.build, 900)
            if again != 0 and failed:
                return "system", "system", failed[0], len(numbers)
            say(f"  {made.id} {' '.join(failed)} failed once only")
            flaky += failed
        return None, "", "", len(numbers)
    finally:
        shutil.copy(project.daemon_kept, project.daemon + ".good")
        os.rename(project.daemon + ".good", project.daemon)
