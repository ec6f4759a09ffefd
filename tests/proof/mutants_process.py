"""Programs that the run starts, each in a process group of its own, so that nothing stays behind, at the time limit or
when the run is interrupted; and what is told, a line at a time. Used by all the others of mutants.py."""

import os
import resource
import signal
import subprocess
import threading

FILE_SIZE = 64 << 20  # bytes of what a program prints that are kept; its files may be 16 times as long

say_lock = threading.Lock()
active = set()  # process groups that run now


class Stop(Exception):
    """The run cannot go on; the text says why."""


def say(text):
    with say_lock:
        print(text, flush=True)


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
    """What a command printed that cannot fail, unless nothing goes on."""
    status, out = run(command, cwd, env=env)
    if status != 0:
        raise Stop(f"{what} failed:\n" + "\n".join(out.splitlines()[-40:]))
    return out


def interrupted(*_):
    """Of a signal that ends the run. Nothing is left running; the same command goes on from here."""
    for group in list(active):
        try:
            os.killpg(group, signal.SIGTERM)
        except ProcessLookupError:
            pass
    os.write(2, b"mutants: interrupted; the same command goes on from here\n")
    os._exit(130)
