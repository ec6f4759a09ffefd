#!/usr/bin/env python3
"""Would the tests notice? Breaks the code of agent/ and ea/ in many places, one at a time, and runs the tests that
execute the place: the unit tests first, where all of those pass the same with sanitizers (as ./check runs every test),
and then the system tests of the module.

  tests/proof/mutants.py                    200 places, chosen by seed 1
  tests/proof/mutants.py --seed 7 --number 60
  tests/proof/mutants.py --only M017 M120   these of them again, on the tests as they are now
  tests/proof/mutants.py --survivors        those again that were not noticed
  tests/proof/mutants.py --list             what would be broken, and nothing else

The same seed on the same sources gives the same mutants. Everything happens below build/mutants (--work): a copy of the
tree, which is made at the beginning, so that the tree itself is neither changed nor looked at again; its build; the
results, one JSON record a line. A run that was interrupted goes on where it was when it is started again with the same
arguments; --only and --survivors bring the copy up to date first, --fresh forgets the results.

A mutant that does not compile, or that compiles to the very same code, is replaced by the next of its file. Mutants run
in the sandbox, with their own process numbers, files and network. One that makes the tests run into their time limit is
noticed, and counted apart. A failed test is asked twice. What cannot be noticed is listed, with the reason, in
mutants_equal.txt. Needs what the build needs, and lld and python3; status 0 if nine of ten are noticed."""

import argparse
import concurrent.futures
import dataclasses
import filecmp
import json
import os
import re
import resource
import shlex
import shutil
import signal
import subprocess
import sys
import threading
import time

sys.dont_write_bytecode = True  # nothing is written into the tree
from mutants_make import KINDS, code_lines, mutants_of, quotas, single

HERE = os.path.dirname(os.path.realpath(__file__))
TREE = os.path.dirname(os.path.dirname(HERE))
LIBRARIES = {"agent": "agent/libagentlib.a", "ea": "ea/libengine.a"}
MEMORY, FILE_SIZE = 8 << 30, 64 << 20  # what one test program may use
SYSTEM_JOBS = 6                        # system tests at the same time: they mostly wait
SYSTEM_LIMIT = 150                     # s, of one system test
SANITIZED = ("-O1", "-g0", "-w", "-fsanitize=address,undefined", "-fno-sanitize-recover=undefined")
WANTED = 90.0                          # percent

# The system tests of a module, by the beginning of its name: the first that fits.
SYSTEM_TESTS = (
    ("agent/agent_daemon_password", "login network"),
    ("agent/agent_daemon_logins", "login network memory"),
    ("agent/agent_daemon_text", "language settings network"),
    ("agent/agent_daemon_requests_orders", "order_by_monitor power_order network hosts"),
    ("agent/agent_daemon_requests_settings", "settings network voltaria_write"),
    ("agent/agent_daemon_requests", "network settings protocol_doc monitors voltaria_read"),
    ("agent/agent_daemon_callback", "order power order_by_monitor grace hosts"),
    ("agent/agent_daemon_channel", "order power link order_by_monitor start"),
    ("agent/agent_daemon", "network start memory monitors bound_2 bound_4 crowd order_by_monitor voltariactl"),
    ("agent/agent_main_message", "language start"),
    ("agent/agent_main", "start network bound_2 bound_4 voltariactl"),
    ("agent/agent_net", "network login hosts bound_2 bound_4 monitors start"),
    ("agent/agent_ups_control", "order power link"),
    ("agent/agent_ups_model", "link family start"),
    ("agent/agent_ups_status", "power link family selftest start"),
    ("agent/agent_ups", "link power start order family"),
    ("agent/agent_utils", "start network link voltariactl"),
    ("agent/agent_wire", "settings network protocol_doc"),
    ("agent/", "network start settings link"),
    ("ea/auto", "schedule selftest"),
    ("ea/e_a_schedule", "schedule selftest power"),
    ("ea/e_a_log", "settings datalog network power"),
    ("ea/e_a_notify", "notify power_story power"),
    ("ea/e_a_notice", "language notify power"),
    ("ea/e_a_action", "notify language power"),
    ("ea/e_a_down", "power grace power_story start"),
    ("ea/e_a_command", "order_by_monitor power_order hosts selftest"),
    ("ea/e_a_config", "settings durable initial start"),
    ("ea/e_a_event", "settings durable notify initial"),
    ("ea/e_a_agentevent", "voltariactl voltaria_write settings"),
    ("ea/e_a_status", "power power_order link selftest grace family power_story"),
    ("ea/e_a_timer", "power power_order grace schedule datalog power_story"),
    ("ea/filehandle", "settings durable initial start"),
    ("ea/", "power grace start settings schedule"),
)

say_lock = threading.Lock()


def say(text):
    with say_lock:
        print(text, flush=True)


active = set()  # process groups that run now


class Stop(Exception):
    """The run cannot go on; the text says why."""


def run(command, cwd, limit=3600, env=None):
    """Runs a command in a process group of its own, which is ended at the limit. Returns status (None at the limit)
    and what it printed."""
    def limits():
        resource.setrlimit(resource.RLIMIT_CORE, (0, 0))
        resource.setrlimit(resource.RLIMIT_FSIZE, (FILE_SIZE * 16, FILE_SIZE * 16))

    process = subprocess.Popen(command, cwd=cwd, env=env, stdin=subprocess.DEVNULL, stdout=subprocess.PIPE,
                               stderr=subprocess.STDOUT, start_new_session=True, preexec_fn=limits)
    active.add(process.pid)
    timer = threading.Timer(limit, lambda: os.killpg(process.pid, signal.SIGKILL))
    timer.start()
    kept, size = [], 0
    try:
        while piece := process.stdout.read1(65536):
            if size < FILE_SIZE:
                kept.append(piece)
                size += len(piece)
        status = process.wait()
    finally:
        if process.poll() is None:
            os.killpg(process.pid, signal.SIGKILL)
            process.wait()
        active.discard(process.pid)
        timed_out = not timer.is_alive()
        timer.cancel()
    return None if timed_out else status, b"".join(kept).decode(errors="replace")


def must(command, cwd, what, env=None):
    status, out = run(command, cwd, env=env)
    if status != 0:
        raise Stop(f"{what} failed:\n" + "\n".join(out.splitlines()[-40:]))
    return out


# The copy of the tree and its build.

def copy_tree(source, target):
    """Brings the copy up to date; what did not change keeps its time, so that only the rest is built again."""
    listed = subprocess.run(["git", "ls-files", "-co", "--exclude-standard", "-z"], cwd=source, capture_output=True)
    if listed.returncode == 0:
        names = [n for n in listed.stdout.decode().split("\0") if n and os.path.isfile(os.path.join(source, n))]
    else:
        names = []
        for path, directories, files in os.walk(source):
            directories[:] = [d for d in directories if not d.startswith((".", "build"))]
            names += [os.path.relpath(os.path.join(path, f), source) for f in files]
    for name in names:
        a, b = os.path.join(source, name), os.path.join(target, name)
        if not os.path.exists(b) or not filecmp.cmp(a, b, shallow=False):
            os.makedirs(os.path.dirname(b), exist_ok=True)
            shutil.copy(a, b)
    for path, _, files in os.walk(target):
        for file in files:
            name = os.path.relpath(os.path.join(path, file), target)
            if name not in set(names):
                os.unlink(os.path.join(path, file))


class Project:
    """The copy, its build and what is known of its tests."""

    def __init__(self, work, tree):
        self.work, self.tree, self.build = work, tree, os.path.join(work, "build")
        self.lock = threading.Lock()
        self.plain = {}

    def make(self):
        """Builds the unit tests of the two libraries, and reads how they are compiled and started."""
        if not os.path.exists(os.path.join(self.build, "build.ninja")):
            must(["cmake", "--preset", "dev", "-B", self.build], self.tree, "configuring")
        self.find_programs()
        must(["ninja", "-C", self.build, "bin/sandbox", *[f"bin/{p}" for p in self.programs]], self.tree, "the build")
        commands = json.load(open(os.path.join(self.build, "compile_commands.json")))
        self.commands = {os.path.relpath(c["file"], self.tree): shlex.split(c["command"]) for c in commands}
        self.find_users()

    def find_programs(self):
        """The unit test programs with one of the two libraries, and with which options the sandbox starts each."""
        ninja = open(os.path.join(self.build, "build.ninja")).read()
        self.programs, self.system_programs = {}, []
        for block in ninja.split("\n\n"):
            name = re.search(r"(?m)^build bin/(\w+)[ :]", block)
            if name is None or "gtest" not in block:
                continue
            name = name.group(1)
            executor = re.search(r'"TEST_EXECUTOR=[^"]*?/sandbox;(.*?)"', block)
            if "LABELS;system" in block:
                self.system_programs.append(name)
            elif "LABELS;unit" in block and re.search(r"lib(engine|agentlib)\.a", block):
                options = [o for o in executor.group(1).split(";") if o != "--"] if executor else ["--no-catalogue"]
                self.programs[name] = {"options": options}

    def make_system(self):
        """Builds the programs and the system tests; which CTest numbers are whose."""
        must(["ninja", "-C", self.build, "bin/voltariad", *[f"bin/{p}" for p in self.system_programs]], self.tree,
             "the build")
        self.daemon, self.daemon_kept = os.path.join(self.build, "bin", "voltariad"), os.path.join(self.work, "voltariad")
        shutil.copy(self.daemon, self.daemon_kept)
        self.system = {}
        listed = json.loads(must(["ctest", "--show-only=json-v1"], self.build, "listing the tests"))
        for number, test in enumerate(listed["tests"], 1):
            program = next((c for c in test.get("command", []) if c.startswith(self.build + "/bin/system_")), "")
            if program:
                self.system.setdefault(os.path.basename(program), []).append((number, test["name"]))

    def find_users(self):
        """The sources of the two libraries that see each header."""
        self.users = {}
        deps = must(["ninja", "-C", self.build, "-t", "deps"], self.tree, "listing the headers")
        for block in deps.split("\n\n"):
            lines = block.splitlines()
            found = re.match(r"(agent|ea)/CMakeFiles/(?:agentlib|engine)\.dir/(\w+\.cpp)\.o:", lines[0]) if lines else None
            for line in lines[1:] if found else []:
                name = os.path.relpath(os.path.join(self.build, line.strip()), self.tree)
                self.users.setdefault(name, []).append(f"{found.group(1)}/{found.group(2)}")

    # Compiling and linking.

    def compile(self, source, file, target, first=(), flags=("-O1", "-g0", "-w")):
        """Compiles the text at `source` as if it were the tree's `file`."""
        old = self.commands[file]
        command, skip = [], False
        for word in old:
            if skip or word.endswith("ccache"):
                skip = False
            elif word == "-o":
                skip = True
            elif not re.fullmatch(r"-O\d|-g\d?|-Werror|-W[a-z-]+", word) and not word.endswith(".cpp"):
                command.append(word)
        command[1:1] = [f"-I{d}" for d in first]
        command += [*flags, "-o", target, source]
        os.makedirs(os.path.dirname(target), exist_ok=True)
        status, out = run(command, self.build, 300)
        return status == 0, out

    def plain_object(self, file):
        """The object of the unchanged source, compiled as the mutants are."""
        with self.lock:
            lock = self.plain.setdefault(file, threading.Lock())
        target = os.path.join(self.work, "plain", file + ".o")
        with lock:
            if not os.path.exists(target):
                good, out = self.compile(os.path.join(self.tree, file), file, target)
                if not good:
                    raise Stop(f"{file} does not compile:\n{out}")
        return open(target, "rb").read()

    def link_command(self, program):
        out = must(["ninja", "-C", self.build, "-t", "commands", "-s", f"bin/{program}"], self.tree, "listing commands")
        line = next(l for l in out.splitlines() if f" -o bin/{program} " in l)
        return shlex.split(next(part for part in line.split("&&") if f" -o bin/{program} " in part))

    def link(self, program, target, objects=(), libraries=None, more=()):
        """Links a program with these objects instead of the libraries' own, or with other libraries."""
        with self.lock:
            cache = self.__dict__.setdefault("links", {})
            if program not in cache:
                cache[program] = self.link_command(program)
        command, placed = [], False
        for word in cache[program]:
            if word == f"bin/{program}":
                word = target
            if word.endswith((".a", ".so")) and not placed:
                command += objects
                placed = True
            command.append((libraries or {}).get(word, word))
        os.makedirs(os.path.dirname(target), exist_ok=True)
        # A test may have a function of its own in the place of the library's: it comes first.
        return run([*command, "-fuse-ld=lld", "-Wl,--allow-multiple-definition", *more], self.build, 120)

    # Running.

    def start(self, program, path, tests=None, limit=600, share=(), env=None, fast=False, options=()):
        """Runs a test program, whole or some of its tests, in one sandbox."""
        own = self.programs[program]["options"]
        command = [os.path.join(self.build, "bin", "sandbox"), *own, *options, "--share", os.path.dirname(path)]
        for directory in share:
            command += ["--share", directory]
        command += ["--", path, "--gtest_color=no", *(["--gtest_fail_fast"] if fast else [])]
        if tests is not None:
            command.append("--gtest_filter=" + ":".join(tests))
        return run(command, self.build, limit, env={**os.environ, **(env or {})})


def failed_tests(out):
    """The tests that failed, or the one in which the program ended."""
    failed = list(dict.fromkeys(re.findall(r"(?m)^\[  FAILED  \] ([\w/]+\.[\w/]+)", out)))
    begun = re.findall(r"(?m)^\[ RUN      \] (\S+)", out)
    return failed or begun[-1:]


# Which test programs execute which lines: each is run once, linked with libraries that count.

def explore(project, jobs):
    path = os.path.join(project.work, "map.json")
    if os.path.exists(path):
        return json.load(open(path))
    from_time = time.time()
    count = os.path.join(project.work, "count")
    shutil.rmtree(count, ignore_errors=True)
    sources = sorted(f for f in project.commands if re.fullmatch(r"(agent|ea)/\w+\.cpp", f) and f != "agent/main.cpp")

    def compile_one(file):
        good, out = project.compile(os.path.join(project.tree, file), file, f"{count}/obj/{file[:-4]}.o",
                                    flags=("-O0", "-g0", "-w", "--coverage"))
        if not good:
            raise Stop(f"{file} does not compile:\n{out}")

    with concurrent.futures.ThreadPoolExecutor(jobs) as pool:
        list(pool.map(compile_one, sources))
    libraries = {}
    for directory, library in LIBRARIES.items():
        libraries[library] = f"{count}/{os.path.basename(library)}"
        must(["ar", "rcs", libraries[library], *[f"{count}/obj/{s[:-4]}.o" for s in sources if s.startswith(directory + "/")]],
             project.build, "making a library")

    def run_one(program):
        binary, data = f"{count}/bin/{program}/{program}", f"{count}/data/{program}"
        os.makedirs(data)
        status, out = project.link(program, binary, libraries=libraries, more=("--coverage",))
        if status != 0:
            say(f"  {program}: cannot be linked for counting\n{out[-2000:]}")
            return program, None
        begun = time.time()
        status, out = project.start(program, binary, share=[data],
                                    env={"GCOV_PREFIX": data, "GCOV_PREFIX_STRIP": "0"})
        seconds, alone, unfit = time.time() - begun, [], []
        while status != 0:
            # Tests that want a sandbox to themselves.
            bad = failed_tests(out)
            if not bad or set(bad) <= set(alone):
                say(f"  {program}: does not run at once\n{out[-2000:]}")
                return program, None
            alone += bad
            status, out = project.start(program, binary, tests=["*-" + ":".join(alone)], share=[data],
                                        env={"GCOV_PREFIX": data, "GCOV_PREFIX_STRIP": "0"})
        for test in alone:
            status, _ = project.start(program, binary, tests=[test], share=[data],
                                      env={"GCOV_PREFIX": data, "GCOV_PREFIX_STRIP": "0"})
            if status != 0:
                unfit.append(test)
        lines = {}
        found = data + f"{count}/obj"
        for directory in ("agent", "ea"):
            where = os.path.join(found, directory)
            if not os.path.isdir(where):
                continue
            for note in os.listdir(f"{count}/obj/{directory}"):
                if note.endswith(".gcno") and os.path.exists(f"{where}/{note[:-2]}da"):
                    os.symlink(f"{count}/obj/{directory}/{note}", f"{where}/{note}")
            counts = [n for n in os.listdir(where) if n.endswith(".gcda")]
            out = must(["gcov", "--json-format", "--stdout", *counts], where, "gcov") if counts else ""
            for record in out.splitlines():
                for file in json.loads(record)["files"] if record.startswith("{") else []:
                    name = os.path.relpath(os.path.join(project.build, file["file"]), project.tree)
                    if name.startswith(("agent/", "ea/")):
                        hit = {l["line_number"] for l in file["lines"] if l["count"] > 0}
                        lines[name] = sorted(set(lines.get(name, [])) | hit)
        say(f"  {program}: {seconds:.1f} s" + (f", alone: {len(alone)}" if alone else "") +
            (f", left out: {' '.join(unfit)}" if unfit else ""))
        return program, {"seconds": seconds, "alone": [t for t in alone if t not in unfit], "unfit": unfit, "lines": lines}

    with concurrent.futures.ThreadPoolExecutor(jobs) as pool:
        known = {name: value for name, value in pool.map(run_one, sorted(project.programs)) if value}
    shutil.rmtree(count, ignore_errors=True)
    json.dump(known, open(path, "w"))
    say(f"{len(known)} unit test programs run, {time.time() - from_time:.0f} s")
    return known


def relevant(project, mutant, known):
    """The unit test programs that execute the place; else, and after them, those that execute much of its file. The
    quick ones that are mostly about this file come first. And how many are of the first sort."""
    files = project.users.get(mutant.file) if mutant.file.endswith(".h") else [mutant.file]
    total = {f: max((len(k["lines"].get(f, ())) for k in known.values()), default=0) for f in files}

    def share(program):
        return max((len(known[program]["lines"].get(f, ())) / max(1, total[f]) for f in files), default=0)

    def rank(program):
        return known[program]["seconds"] / max(share(program), 0.01) ** 3

    at = [p for p in known if mutant.line in known[p]["lines"].get(mutant.file, ())]
    near = [p for p in known if p not in at and share(p) > (0.3 if at else 0.02)]
    return sorted(at, key=rank) + sorted(near, key=rank), len(at)


# One mutant.

def build_mutant(project, mutant, where):
    """Compiles what the change touches. Returns the objects, none when there is no difference, or None; and whose."""
    done = os.path.join(where, "made.json")
    if os.path.exists(done):
        known = json.load(open(done))
        if known["key"] == key(mutant) and known["begin"] == mutant.begin:
            return known["objects"], known["files"]
    objects, files = compile_mutant(project, mutant, where)
    with open(done, "w") as out:
        json.dump({"key": key(mutant), "begin": mutant.begin, "objects": objects, "files": files}, out)
    return objects, files


def compile_mutant(project, mutant, where):
    shutil.rmtree(where, ignore_errors=True)
    for directory in LIBRARIES:
        os.makedirs(os.path.join(where, "src", directory))
        for name in os.listdir(os.path.join(project.tree, directory)):
            if name.endswith(".h"):
                os.symlink(os.path.join(project.tree, directory, name), os.path.join(where, "src", directory, name))
    path = os.path.join(where, "src", mutant.file)
    if os.path.islink(path):
        os.unlink(path)
    text = open(os.path.join(project.tree, mutant.file)).read()
    with open(path, "w") as out:
        out.write(mutant.apply(text))
    header = mutant.file.endswith(".h")
    objects = []
    for file in project.users.get(mutant.file, []) if header else [mutant.file]:
        source, target = os.path.join(where, "src", file), os.path.join(where, "obj", file[:-4] + ".o")
        if header:
            shutil.copy(os.path.join(project.tree, file), source)
        good, _ = project.compile(source, file, target, first=[os.path.join(where, "src", d) for d in LIBRARIES])
        if not good:
            return None, []
        if open(target, "rb").read() != project.plain_object(file):
            objects.append((file, target))
    return [o for _, o in objects], [f for f, _ in objects]


@dataclasses.dataclass
class Made:
    id: str
    mutant: object
    objects: list  # that differ, of these sources:
    files: list

    def base(self):
        return os.path.dirname(os.path.dirname(os.path.dirname(self.objects[0])))

    def source(self, file):
        return os.path.join(self.base(), "src", file)

    def headers(self):
        return [os.path.join(self.base(), "src", directory) for directory in LIBRARIES]


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


def sanitized_tests(project, made, known, where):
    """The same tests, those that execute the place, with the broken source sanitized, as ./check runs every test. What
    the unbroken source fails as well does not count."""
    objects, plain = [], []
    for file in made.files:
        for source, target, into in ((made.source(file), f"{where}/san/{file}.o", objects),
                                     (os.path.join(project.tree, file), f"{where}/plain/{file}.o", plain)):
            good, _ = project.compile(source, file, target, first=made.headers(), flags=SANITIZED) if into is objects \
                else project.compile(source, file, target, flags=SANITIZED)
            if not good:
                return None, "", "", 0
            into.append(target)
    asked = 0
    programs, executing = relevant(project, made.mutant, known)
    for program in programs[:max(executing, 3)]:
        binary, limit = os.path.join(where, "bin", program), 40 + 6 * known[program]["seconds"]
        if project.link(program, binary, objects, more=SANITIZED)[0] != 0:
            continue
        asked += 1
        how, test, tests = ask(project, program, binary, known[program], limit, ["--sanitizer-logs"])
        if how == "unit":
            status = project.link(program, binary, plain, more=SANITIZED)[0]
            if status == 0 and project.start(program, binary, tests, limit, options=["--sanitizer-logs"])[0] == 0:
                return "sanitizer", program, test, asked
        os.unlink(binary)
    return None, "", "", asked


def system_tests(project, made):
    """With the mutant in the daemon's place."""
    names = next(tests for prefix, tests in SYSTEM_TESTS if made.mutant.file.startswith(prefix)).split()
    numbers = [str(number) for name in names for number, _ in project.system.get("system_" + name, [])]
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
            failed = re.findall(r"(?m)^\s+\d+ - (\S+) \((?!Not Run|Disabled|Timeout)", out)
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


# The whole.

def equal_ones():
    """Mutants that nobody can notice: lines "FILE: OLD -> NEW", each followed by the reason, indented."""
    with open(os.path.join(HERE, "mutants_equal.txt")) as file:
        return {single(line) for line in file if line.strip() and not line[0].isspace() and line[0] != "#"}


def is_equal(file, change, equal):
    return single(f"{file}: {change}") in equal


def key(mutant):
    """The same text may stand in a file twice."""
    return f"{mutant.file}:{mutant.line}: {mutant.change}"


def candidates(tree, seed, number):
    """The mutants of every file in their order, and how many of each are wanted."""
    order, lines = {}, {}
    for directory in LIBRARIES:
        for name in sorted(os.listdir(os.path.join(tree, directory))):
            file = f"{directory}/{name}"
            if not name.endswith((".cpp", ".h")):
                continue
            text = open(os.path.join(tree, file)).read()
            found = mutants_of(file, text, seed)
            if found:
                order[file], lines[file] = found, code_lines(text, name.endswith(".h"))
    return order, quotas(lines, number, seed)


def make_all(project, seed, order, share, jobs, counts):
    """Compiles the mutants of each file until its share is reached."""
    def of_file(file):
        made = []
        for tried, mutant in enumerate(order[file]):
            if len(made) == share[file]:
                break
            where = os.path.join(project.work, f"mutants-{seed}", f"{file.replace('/', '_')}-{tried}")
            objects, files = build_mutant(project, mutant, where)
            if objects:
                made.append((mutant, objects, files))
            else:
                with project.lock:
                    counts["not compiled" if objects is None else "same code"] += 1
        return made

    with concurrent.futures.ThreadPoolExecutor(jobs) as pool:
        files = sorted(share)
        found = [entry for made in pool.map(of_file, files) for entry in made]
    return [Made(f"M{i:03}", *entry) for i, entry in enumerate(found, 1)]


def describe(record):
    if record["how"] is None:
        return "NOT NOTICED" + (", cannot be" if record.get("equal") else "")
    by = {"unit": record["program"], "sanitizer": f"{record['program']} with sanitizers", "system": "system tests", "limit": f"the time limit of {record['program']}"}
    return f"noticed by {by[record['how']]}: {record['test']}"


def show(record):
    say(f"{record['id']} {record['file']}:{record['line']} {record['kind']}: {record['change']}\n"
        f"     {describe(record)} ({record['seconds']:.0f} s)")


def arguments():
    parser = argparse.ArgumentParser(description=__doc__, formatter_class=argparse.RawDescriptionHelpFormatter)
    parser.add_argument("--seed", type=int, default=1)
    parser.add_argument("--number", type=int, default=200)
    parser.add_argument("--jobs", type=int, default=2, help="mutants at the same time (2)")
    parser.add_argument("--work", default=os.path.join(TREE, "build", "mutants"))
    parser.add_argument("--in-place", action="store_true", help="build the tree itself: nobody edits it meanwhile")
    parser.add_argument("--only", nargs="+", default=[], metavar="ID")
    parser.add_argument("--survivors", action="store_true")
    parser.add_argument("--unit-only", action="store_true", help="leave the system tests for a later run")
    parser.add_argument("--fresh", action="store_true")
    parser.add_argument("--list", action="store_true")
    return parser.parse_args()


def load(path):
    records = {}
    if os.path.exists(path):
        with open(path) as file:
            for line in file:
                record = json.loads(line)
                records[f"{record['file']}:{record['line']}: {record['change']}"] = record
    return records


def main():
    args = arguments()
    if args.list:
        order, share = candidates(TREE, args.seed, args.number)
        for file in sorted(share):
            for mutant in order[file][:share[file]]:
                print(f"{mutant.file}:{mutant.line} {mutant.kind}: {mutant.change}")
        return 0
    os.nice(5)
    begun = time.time()
    work = os.path.realpath(args.work)
    os.makedirs(work, exist_ok=True)
    tree = TREE if args.in_place else os.path.join(work, "tree")
    results = os.path.join(work, f"results-{args.seed}-{args.number}.jsonl")
    again = bool(args.only or args.survivors)
    if args.fresh and os.path.exists(results):
        os.unlink(results)
    if not args.in_place and (again or args.fresh or not os.path.exists(tree)):
        copy_tree(TREE, tree)
    if again or args.fresh:
        for old in ("map.json", "plain", f"mutants-{args.seed}"):
            path = os.path.join(work, old)
            shutil.rmtree(path, ignore_errors=True) if os.path.isdir(path) else os.path.exists(path) and os.unlink(path)
    project = Project(work, tree)
    project.make()
    say(f"built, {time.time() - begun:.0f} s")
    known = explore(project, args.jobs)
    records = load(results)
    order, share = candidates(tree, args.seed, args.number)
    counts = {"not compiled": 0, "same code": 0}
    made = make_all(project, args.seed, order, share, args.jobs, counts)
    say(f"{len(made)} mutants in {len(share)} files, {counts['not compiled']} did not compile, {counts['same code']} made "
        f"no difference, {time.time() - begun:.0f} s")
    equal = equal_ones()

    def due(one, stage):
        record = records.get(key(one.mutant))
        if args.only and one.id not in args.only:
            return False
        if again and (args.only or (record and record["how"] is None)) and stage == "unit":
            return True
        return record is None if stage == "unit" else bool(record and record["how"] is None and not record["system"])

    def note(one, how, program, test, asked, seconds, system):
        record = {"id": one.id, "file": one.mutant.file, "line": one.mutant.line, "kind": one.mutant.kind,
                  "change": one.mutant.change, "how": how, "program": program, "test": test, "asked": asked,
                  "seconds": seconds, "system": system, "equal": is_equal(one.mutant.file, one.mutant.change, equal)}
        with project.lock:
            records[key(one.mutant)] = record
            with open(results, "a") as file:
                file.write(json.dumps(record) + "\n")
        if how is not None or system:
            show(record)

    def in_unit(one):
        if not due(one, "unit"):
            return
        from_time = time.time()
        where = os.path.join(work, "run", one.id)
        how, program, test, asked = unit_tests(project, one, known, where)
        if how is None:
            how, program, test, asked = sanitized_tests(project, one, known, where)
        shutil.rmtree(where, ignore_errors=True)
        note(one, how, program, test, asked, time.time() - from_time, False)

    with concurrent.futures.ThreadPoolExecutor(args.jobs) as pool:
        list(pool.map(in_unit, made))
    left = [one for one in made if due(one, "system")] if not args.unit_only else []
    if left:
        project.make_system()
        say(f"{len(left)} are left for the system tests, {time.time() - begun:.0f} s")
    for one in left:
        from_time = time.time()
        before = records[key(one.mutant)]
        how, program, test, asked = system_tests(project, one)
        note(one, how, program, test, asked, before["seconds"] + time.time() - from_time, True)
    return summary([records[key(m.mutant)] | {"id": m.id} for m in made if key(m.mutant) in records], equal, counts,
                   len(made), time.time() - begun)


def summary(done, equal, counts, number, seconds):
    for record in done:
        record["equal"] = is_equal(record["file"], record["change"], equal)
    missed = [r for r in done if r["how"] is None]
    say("\nnot noticed:" if missed else "\nall noticed")
    for record in missed:
        show(record)
    say("")
    for kind in KINDS:
        of_kind = [r for r in done if r["kind"] == kind]
        say(f"{kind:<11} {len(of_kind):4} made, {sum(r['how'] is not None for r in of_kind):4} noticed")
    by = {how: sum(r["how"] == how for r in done) for how in ("unit", "sanitizer", "system", "limit")}
    same = sum(r["equal"] for r in missed)
    noticed = len(done) - len(missed)
    of_all = 100 * noticed / max(1, len(done))
    of_real = 100 * noticed / max(1, len(done) - same)
    say(f"{len(done)} of {number} mutants tried: {noticed} noticed (unit tests {by['unit']}, with sanitizers "
        f"{by['sanitizer']}, system tests {by['system']}, time limit {by['limit']}), {len(missed)} not, of which {same} cannot be: {of_all:.1f} % of all, {of_real:.1f} % of "
        f"those that can; {counts['not compiled']} did not compile, {counts['same code']} made no difference; "
        f"{seconds / 60:.0f} min")
    return 0 if of_real >= WANTED and len(done) == number else 1


def interrupted(*_):
    """Nothing is left running; the same command goes on from here."""
    for group in list(active):
        try:
            os.killpg(group, signal.SIGTERM)
        except ProcessLookupError:
            pass
    os.write(2, b"mutants: interrupted; the same command goes on from here\n")
    os._exit(130)


if __name__ == "__main__":
    for number in (signal.SIGINT, signal.SIGTERM, signal.SIGHUP):
        signal.signal(number, interrupted)
    try:
        sys.exit(main())
    except Stop as stop:
        sys.exit(f"mutants: {stop}")
