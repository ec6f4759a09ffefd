"""The copy of the tree, its build, and the compiling, linking and starting of what is made of it: mutants, and test
programs with other objects or libraries. How things are compiled, linked and started is what the build itself does.
Used by mutants.py, mutants_map.py and mutants_run.py."""

import dataclasses
import filecmp
import json
import os
import re
import shlex
import shutil
import subprocess
import threading

from mutants_process import Stop, must, run

LIBRARIES = {"agent": "agent/libagentlib.a", "ea": "ea/libengine.a"}


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
        # The compiler is the last word before the options; what stands before it only launches it.
        compiler = next(i for i, word in enumerate(old) if word.startswith("-")) - 1
        command, skip = [], False
        for word in old[compiler:]:
            if skip:
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


# Mutants.

@dataclasses.dataclass
class Made:
    """A mutant that compiles, and to other code."""
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


def build_mutant(project, mutant, where):
    """Compiles what the change touches. Returns the objects, none when there is no difference, or None; and whose."""
    done = os.path.join(where, "made.json")
    if os.path.exists(done):
        known = json.load(open(done))
        if known["key"] == mutant.key() and known["begin"] == mutant.begin:
            return known["objects"], known["files"]
    objects, files = compile_mutant(project, mutant, where)
    with open(done, "w") as out:
        json.dump({"key": mutant.key(), "begin": mutant.begin, "objects": objects, "files": files}, out)
    return objects, files


def compile_mutant(project, mutant, where):
    """As build_mutant, from the sources below `where`/src, where the headers of the tree are seen as well."""
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
