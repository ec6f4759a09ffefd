"""The table of coverage.sh, and the match of the lines that were not run with those that are explained.

usage: coverage.py COUNTED.json TREE
COUNTED.json is what gcovr read. The explanations are in TREE/tests/proof/uncovered.txt; its first lines tell their form.
Status 0: agent/ and ea/ are each above the bound, every line that was not run is explained, and every explanation is of
such a line.
"""
import json
import os
import sys

BOUND = 95.0  # per cent of the lines, of each directory of the daemon
MEASURED = ("agent", "ea")
SHOWN = ("agent", "ea", "control", "monitor", "sim")


class Lines:
    """A sum over files: lines and branches, and how many of each were run."""

    def __init__(self):
        self.lines = self.run = self.branches = self.taken = 0

    def add(self, other):
        self.lines += other.lines
        self.run += other.run
        self.branches += other.branches
        self.taken += other.taken

    def per_cent(self):
        return 100.0 * self.run / self.lines if self.lines else 100.0

    def row(self, name):
        branches = "%5.1f" % (100.0 * self.taken / self.branches) if self.branches else "    -"
        return "%-42s %6d %6d %7.2f %9s" % (name, self.lines, self.lines - self.run, self.per_cent(), branches)


def plain_name(function):
    """`clients_find(NETINFO*, int)` is clients_find; so is what it has inside."""
    return function.split("(")[0].split()[-1].split("::")[-1]


def counted(entry):
    """The sum over one file, and its lines that were not run, as (number, function)."""
    starts = sorted((f["lineno"], plain_name(f["name"])) for f in entry.get("functions", []))
    total = Lines()
    missed = []
    for line in entry["lines"]:
        if line.get("gcovr/noncode"):
            continue
        total.lines += 1
        total.run += line["count"] > 0
        total.branches += len(line["branches"])
        total.taken += sum(branch["count"] > 0 for branch in line["branches"])
        if line["count"] == 0:
            before = [name for start, name in starts if start <= line["line_number"]]
            missed.append((line["line_number"], before[-1] if before else "-"))
    return total, missed


def squeezed(text):
    return " ".join(text.split())


class Explanation:
    """One line of the list."""

    def __init__(self, number, text):
        self.number = number
        self.by_chance = text.startswith("?")
        parts = [squeezed(part) for part in text.lstrip("?").split(" | ")]
        if len(parts) != 4 or not all(parts):
            raise ValueError("uncovered.txt:%d: not  FILE | FUNCTION | TEXT | REASON" % number)
        self.file, self.function, self.text, self.reason = parts
        self.used = 0

    def explains(self, file, function, line):
        return (file, function) == (self.file, self.function) and (self.text == "*" or self.text in line)


def explanations(path):
    with open(path, encoding="utf-8") as lines:
        return [Explanation(number, line.strip()) for number, line in enumerate(lines, 1)
                if line.strip() and not line.startswith("#")]


def print_table(files):
    print("%-42s %6s %6s %7s %9s" % ("file", "lines", "missed", "lines %", "branches %"))
    totals = {part: Lines() for part in SHOWN}
    for name, (total, _) in sorted(files.items()):
        part = name.split("/")[0]
        totals[part].add(total)
        if part in MEASURED:
            print(total.row(name))
    for part in SHOWN:
        print(totals[part].row(part + "/ in all" + ("" if part in MEASURED else " (for information)")))
    return totals


def check_missed(files, tree, known):
    """Prints every line that was not run and is not explained; returns how many there are of both kinds."""
    explained = unexplained = 0
    for name, (_, missed) in sorted(files.items()):
        if name.split("/")[0] not in MEASURED:
            continue
        with open(os.path.join(tree, name), encoding="utf-8") as source:
            text = source.read().splitlines()
        for number, function in missed:
            line = squeezed(text[number - 1])
            fitting = [entry for entry in known if entry.explains(name, function, line)]
            for entry in fitting:
                entry.used += 1
            if fitting:
                explained += 1
            else:
                unexplained += 1
                print("not run, not explained: %s:%d (%s) %s" % (name, number, function, line))
    return explained, unexplained


def main():
    counted_file, tree = sys.argv[1:]
    with open(counted_file, encoding="utf-8") as source:
        entries = json.load(source)["files"]
    files = {entry["file"]: counted(entry) for entry in entries}
    totals = print_table(files)
    known = explanations(os.path.join(tree, "tests/proof/uncovered.txt"))
    explained, unexplained = check_missed(files, tree, known)
    stale = [entry for entry in known if not entry.used and not entry.by_chance]
    for entry in stale:
        print("uncovered.txt:%d explains nothing: %s | %s | %s" % (entry.number, entry.file, entry.function, entry.text))
    low = [part for part in MEASURED if totals[part].per_cent() <= BOUND]
    for part in low:
        print("%s/ is not above %.0f %%" % (part, BOUND))
    print("lines not run: %d explained, %d not; %d explanations, %d of them of nothing" %
          (explained, unexplained, len(known), len(stale)))
    return 1 if low or unexplained or stale else 0


if __name__ == "__main__":
    sys.exit(main())
