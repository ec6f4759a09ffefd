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
import json
import os
import shutil
import signal
import sys
import time

sys.dont_write_bytecode = True  # nothing is written into the tree
from mutants_build import LIBRARIES, Made, Project, build_mutant, copy_tree
from mutants_make import KINDS, code_lines, mutants_of, quotas, single
from mutants_map import explore
from mutants_process import Stop, interrupted, say
from mutants_run import sanitized_tests, system_tests, unit_tests

HERE = os.path.dirname(os.path.realpath(__file__))
TREE = os.path.dirname(os.path.dirname(HERE))
WANTED = 90.0  # percent


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


# The mutants.

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


# The results.

def equal_ones():
    """Mutants that nobody can notice: lines "FILE: OLD -> NEW", each followed by the reason, indented."""
    with open(os.path.join(HERE, "mutants_equal.txt")) as file:
        return {single(line) for line in file if line.strip() and not line[0].isspace() and line[0] != "#"}


def is_equal(file, change, equal):
    return single(f"{file}: {change}") in equal


class Results:
    """What is known of each mutant, by its key; on disk one JSON record a line, a later one in the place of one before."""

    def __init__(self, path):
        self.path, self.records, self.equal = path, {}, equal_ones()
        if os.path.exists(path):
            with open(path) as file:
                for line in file:
                    record = json.loads(line)
                    self.records[f"{record['file']}:{record['line']}: {record['change']}"] = record

    def of(self, one):
        return self.records.get(one.mutant.key())

    def note(self, project, one, answer, seconds, system):
        how, program, test, asked = answer
        mutant = one.mutant
        record = {"id": one.id, "file": mutant.file, "line": mutant.line, "kind": mutant.kind, "change": mutant.change,
                  "how": how, "program": program, "test": test, "asked": asked, "seconds": seconds, "system": system,
                  "equal": is_equal(mutant.file, mutant.change, self.equal)}
        with project.lock:
            self.records[mutant.key()] = record
            with open(self.path, "a") as file:
                file.write(json.dumps(record) + "\n")
        if how is not None or system:
            show(record)


def describe(record):
    if record["how"] is None:
        return "NOT NOTICED" + (", cannot be" if record.get("equal") else "")
    by = {"unit": record["program"], "sanitizer": f"{record['program']} with sanitizers", "system": "system tests",
          "limit": f"the time limit of {record['program']}"}
    return f"noticed by {by[record['how']]}: {record['test']}"


def show(record):
    say(f"{record['id']} {record['file']}:{record['line']} {record['kind']}: {record['change']}\n"
        f"     {describe(record)} ({record['seconds']:.0f} s)")


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
        f"{by['sanitizer']}, system tests {by['system']}, time limit {by['limit']}), {len(missed)} not, of which {same} "
        f"cannot be: {of_all:.1f} % of all, {of_real:.1f} % of those that can; {counts['not compiled']} did not compile, "
        f"{counts['same code']} made no difference; {seconds / 60:.0f} min")
    return 0 if of_real >= WANTED and len(done) == number else 1


# The whole.

def list_them(args):
    order, share = candidates(TREE, args.seed, args.number)
    for file in sorted(share):
        for mutant in order[file][:share[file]]:
            print(f"{mutant.file}:{mutant.line} {mutant.kind}: {mutant.change}")


def prepare(args, work, results):
    """The project, as far as it was made for the same results before."""
    tree = TREE if args.in_place else os.path.join(work, "tree")
    anew = bool(args.only or args.survivors or args.fresh)
    os.makedirs(work, exist_ok=True)
    if args.fresh and os.path.exists(results):
        os.unlink(results)
    if not args.in_place and (anew or not os.path.exists(tree)):
        copy_tree(TREE, tree)
    for old in ("map.json", "plain", f"mutants-{args.seed}") if anew else ():
        path = os.path.join(work, old)
        if os.path.isdir(path):
            shutil.rmtree(path, ignore_errors=True)
        elif os.path.exists(path):
            os.unlink(path)
    project = Project(work, tree)
    project.make()
    return project


def ask_unit_tests(args, project, results, made, known):
    def due(one):
        if args.only:
            return one.id in args.only
        record = results.of(one)
        return record is None or (args.survivors and record["how"] is None)

    def in_unit(one):
        if not due(one):
            return
        from_time = time.time()
        where = os.path.join(project.work, "run", one.id)
        answer = unit_tests(project, one, known, where)
        if answer[0] is None:
            answer = sanitized_tests(project, one, known, where)
        shutil.rmtree(where, ignore_errors=True)
        results.note(project, one, answer, time.time() - from_time, False)

    with concurrent.futures.ThreadPoolExecutor(args.jobs) as pool:
        list(pool.map(in_unit, made))


def ask_system_tests(args, project, results, made, begun):
    """One mutant after the other: each takes the daemon's place."""
    def due(one):
        record = results.of(one)
        return (not args.only or one.id in args.only) and record and record["how"] is None and not record["system"]

    left = [one for one in made if due(one)]
    if not left:
        return
    project.make_system()
    say(f"{len(left)} are left for the system tests, {time.time() - begun:.0f} s")
    for one in left:
        from_time, before = time.time(), results.of(one)["seconds"]
        answer = system_tests(project, one)
        results.note(project, one, answer, before + time.time() - from_time, True)


def main():
    args = arguments()
    if args.list:
        list_them(args)
        return 0
    os.nice(5)
    begun = time.time()
    work = os.path.realpath(args.work)
    path = os.path.join(work, f"results-{args.seed}-{args.number}.jsonl")
    project = prepare(args, work, path)
    say(f"built, {time.time() - begun:.0f} s")
    known = explore(project, args.jobs)
    results = Results(path)
    order, share = candidates(project.tree, args.seed, args.number)
    counts = {"not compiled": 0, "same code": 0}
    made = make_all(project, args.seed, order, share, args.jobs, counts)
    say(f"{len(made)} mutants in {len(share)} files, {counts['not compiled']} did not compile, {counts['same code']} made "
        f"no difference, {time.time() - begun:.0f} s")
    ask_unit_tests(args, project, results, made, known)
    if not args.unit_only:
        ask_system_tests(args, project, results, made, begun)
    done = [results.of(one) | {"id": one.id} for one in made if results.of(one)]
    return summary(done, results.equal, counts, len(made), time.time() - begun)


if __name__ == "__main__":
    for number in (signal.SIGINT, signal.SIGTERM, signal.SIGHUP):
        signal.signal(number, interrupted)
    try:
        sys.exit(main())
    except Stop as stop:
        sys.exit(f"mutants: {stop}")
