"""Which unit test programs execute which lines of the two libraries: each is run once, linked with libraries that
count; and which of them are to be asked about a mutant. Used by mutants.py and mutants_run.py."""

import concurrent.futures
import json
import os
import re
import shutil
import time

from mutants_build import LIBRARIES
from mutants_process import Stop, must, say

COUNTING = ("-O0", "-g0", "-w", "--coverage")


def failed_tests(out):
    """The tests that failed, or the one in which the program ended."""
    failed = list(dict.fromkeys(re.findall(r"(?m)^\[  FAILED  \] ([\w/]+\.[\w/]+)", out)))
    begun = re.findall(r"(?m)^\[ RUN      \] (\S+)", out)
    return failed or begun[-1:]


def counting_libraries(project, count, jobs):
    """The two libraries with counters, by the names that the build links them with."""
    sources = sorted(f for f in project.commands if re.fullmatch(r"(agent|ea)/\w+\.cpp", f) and f != "agent/main.cpp")

    def compile_one(file):
        good, out = project.compile(os.path.join(project.tree, file), file, f"{count}/obj/{file[:-4]}.o", flags=COUNTING)
        if not good:
            raise Stop(f"{file} does not compile:\n{out}")

    with concurrent.futures.ThreadPoolExecutor(jobs) as pool:
        list(pool.map(compile_one, sources))
    libraries = {}
    for directory, library in LIBRARIES.items():
        libraries[library] = f"{count}/{os.path.basename(library)}"
        objects = [f"{count}/obj/{s[:-4]}.o" for s in sources if s.startswith(directory + "/")]
        must(["ar", "rcs", libraries[library], *objects], project.build, "making a library")
    return libraries


def run_whole(project, program, binary, data):
    """Runs all tests of a program that counts: (seconds, the tests that want a sandbox to themselves, those that fail
    even there), or None when it cannot be run."""
    env = {"GCOV_PREFIX": data, "GCOV_PREFIX_STRIP": "0"}
    begun = time.time()
    status, out = project.start(program, binary, share=[data], env=env)
    seconds, alone = time.time() - begun, []
    while status != 0:
        bad = failed_tests(out)
        if not bad or set(bad) <= set(alone):
            say(f"  {program}: does not run at once\n{out[-2000:]}")
            return None
        alone += bad
        status, out = project.start(program, binary, tests=["*-" + ":".join(alone)], share=[data], env=env)
    unfit = [t for t in alone if project.start(program, binary, tests=[t], share=[data], env=env)[0] != 0]
    return seconds, alone, unfit


def executed_lines(project, count, data):
    """Of each source, the lines that a program executed, as its counters tell."""
    lines = {}
    for directory in LIBRARIES:
        where = f"{data}{count}/obj/{directory}"
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
    return lines


def explore_one(project, program, count, libraries):
    """What is known of a program, None when it cannot be linked or run for counting."""
    binary, data = f"{count}/bin/{program}/{program}", f"{count}/data/{program}"
    os.makedirs(data)
    status, out = project.link(program, binary, libraries=libraries, more=("--coverage",))
    if status != 0:
        say(f"  {program}: cannot be linked for counting\n{out[-2000:]}")
        return None
    ran = run_whole(project, program, binary, data)
    if ran is None:
        return None
    seconds, alone, unfit = ran
    lines = executed_lines(project, count, data)
    say(f"  {program}: {seconds:.1f} s" + (f", alone: {len(alone)}" if alone else "") +
        (f", left out: {' '.join(unfit)}" if unfit else ""))
    return {"seconds": seconds, "alone": [t for t in alone if t not in unfit], "unfit": unfit, "lines": lines}


def explore(project, jobs):
    """What is known of each program; kept in map.json for the next start."""
    path = os.path.join(project.work, "map.json")
    if os.path.exists(path):
        with open(path) as file:
            return json.load(file)
    from_time = time.time()
    count = os.path.join(project.work, "count")
    shutil.rmtree(count, ignore_errors=True)
    libraries = counting_libraries(project, count, jobs)
    programs = sorted(project.programs)
    with concurrent.futures.ThreadPoolExecutor(jobs) as pool:
        found = pool.map(lambda program: explore_one(project, program, count, libraries), programs)
        known = {program: facts for program, facts in zip(programs, found) if facts}
    shutil.rmtree(count, ignore_errors=True)
    with open(path, "w") as file:
        json.dump(known, file)
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
