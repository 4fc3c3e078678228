#!/usr/bin/env python3
"""Kills the worker, then makes it fail, at every system call in turn.

After each stop every file's bytes must be whole under one of its three names, and runs without a
new scan must finish the move: byte-exact, nothing left behind, each file committed once.
Encryption runs with sendfile refused, as on a real eCryptfs mount, decryption with sendfile.

    sweep.py WORKER [STRIDE]    only every STRIDE-th point (default 1)
"""
import os
import random
import re
import subprocess
import sys
import tempfile
from concurrent.futures import ThreadPoolExecutor
from pathlib import Path

BYTES = random.Random(1).randbytes
FILES = {"empty": b"", "large": BYTES(600000), "stashed": BYTES(300), "copied": BYTES(400),
         "a/one two": BYTES(5000), "a/b/partial": BYTES(262144), "a/b/last": BYTES(1)}
MUTATING = "openat write sendfile fsync rename unlink lseek".split()
LOOKING = "access newfstatat statfs getdents64 read pread64".split()
ERRORS = {"EINTR": 4, "EIO": 5, "EACCES": 13, "ENOSPC": 28}
# What a run does about a failing call, by the call and what it is called on (any other: FAILED).
# FAILED is exit 1 and "error crypto -N", for ENOSPC no line (the host hears of room beforehand).
OUTCOMES = {
    "passed": ["openat listing", "openat directory", "write record", "write pipe", "write log",
               "fsync record", "unlink record", "unlink copy", "lseek record"],  # exit 0
    "refused": ["openat record"],    # exit 1, no line
    "kept": ["unlink file"],         # exit 0, and the plain file stays beside its copy for good
    "forgotten": ["openat list"]}    # exit 0, the list is gone: its files wait for a new scan
RETRIED = ["openat record", "write copy"]  # after EINTR


class Job:
    """A tree on its way, at a start that has seen every kind of interruption."""

    def __init__(self, encrypt):
        self.folder = tempfile.TemporaryDirectory(dir="/dev/shm")  # where syncs cost nothing
        self.root = Path(self.folder.name, "tree")
        self.action, self.trace = 1 if encrypt else 2, ""
        sides = (self.root, Path(f"{self.root}_enc"))
        self.source, self.target = sides if encrypt else sides[::-1]
        for side in sides:
            (side / "a/b").mkdir(parents=True)
        for name, data in FILES.items():
            (self.source / name).write_bytes(data)
        self.scan()
        (self.source / "stashed").rename(self.target / ".stashed")
        (self.target / ".copied").write_bytes(FILES["copied"])
        (self.target / "a/b/.ecryptfs_intermediate_partial").write_bytes(b"half")

    def scan(self):
        return self.run([], 0, self.source)

    def run(self, wrapper, action=None, path=None):
        """Returns the exit status and the error lines."""
        (commands, host), (status, worker) = os.pipe(), os.pipe()
        number = str(self.action if action is None else action)
        done = subprocess.run([*wrapper, sys.argv[1], "1", number, path or self.root, str(commands),
                               str(worker), "0", "0"], pass_fds=(commands, worker),
                              stderr=subprocess.DEVNULL, timeout=120, check=False)
        for descriptor in (commands, host, worker):
            os.close(descriptor)
        with open(status, encoding="ascii") as lines:
            return done.returncode, "".join(line for line in lines if "error" in line).strip()

    def traced(self, injection="", wrapper=()):
        log = Path(self.folder.name, "trace")
        injections = ["sendfile:error=EINVAL"] * (self.action == 1) + [injection] * bool(injection)
        result = self.run(["strace", "-qq", "-y", "-s0", f"-o{log}",
                           f"-etrace={','.join(MUTATING + LOOKING)}",
                           *(f"-einject={text}" for text in injections), *wrapper])
        text = log.read_text(encoding="utf-8")
        self.trace += text
        return *result, text

    def check(self, finished=True, leftover=()):
        source, target = ({str(path.relative_to(side)): path.read_bytes()
                           for path in side.rglob("*") if path.is_file()}
                          for side in (self.source, self.target))
        for name, data in FILES.items():
            stash = str(Path(name).parent / f".{Path(name).name}")
            places = (source.get(name), target.get(stash), target.get(name))
            assert data in places, f"{name} is lost"
            commits = self.trace.count(f'", "{self.target / name}") = 0\n')
            assert commits == 1 or not finished, f"{name} was committed {commits} times"
        assert target == FILES or not finished, f"target holds {sorted(target)}, or changed bytes"
        assert set(source) <= set(leftover) or not finished, f"left behind: {sorted(source)}"

    def finish(self, **expected):
        assert self.traced()[:2] == (0, ""), "the restart failed"
        self.check(**expected)


def points(encrypt, stride):
    """(direction, call, N) from the loader's last call on, and some more: status lines vary."""
    trace = (job := Job(encrypt)).traced()[2]
    for call in MUTATING + LOOKING:
        lines = re.findall(rf"^{call}\(.*", trace, re.MULTILINE)
        ours = (n for n, line in enumerate(lines, 1) if str(job.root) in line)
        first = next(ours, len(lines) + 4)
        if (encrypt, call) != (True, "sendfile"):  # which always fails there
            yield from ((encrypt, call, n) for n in range(first, len(lines) + 4, stride))


def undisturbed(encrypt):
    Job(encrypt).finish()
    return True


def kill(pair):
    """Kills a run, and then the run that carries on; a third one must finish."""
    (encrypt, call, n), (_, later_call, later_n) = pair
    job = Job(encrypt)
    killed = job.traced(f"{call}:signal=KILL:when={n}")[0] == -9
    job.check(finished=not killed)
    if killed:
        job.traced(f"{later_call}:signal=KILL:when={later_n}")
        job.check(finished=False)
        job.finish()
    return killed


def outcome_of(line, error, source):
    call = line.split("(")[0]
    marks = (("O_NONBLOCK", "listing"), ("O_DIRECTORY", "directory"),
             ('ecryptfs_process", O_RDONLY', "list"), ("ecryptfs_process", "record"),
             ("ecryptfs_intermediate_", "copy"), ("<pipe:", "pipe"), ("(2<", "log"),
             ("fsync", "directory"), ("", "file"))
    key = f"{call} {next(name for mark, name in marks if mark in line)}"
    if not line or (error == "EINTR" and key in RETRIED) or (call == "fsync" and error == "EINVAL"):
        return "passed"
    if call in LOOKING:  # it may go either way; before a deletion it decides like the deletion
        return "any kept" if "NOFOLLOW" in line and f'"{source}/' in line else "any"
    return next((name for name, keys in OUTCOMES.items() if key in keys), "failed")


def fail(case):
    (encrypt, call, n), error = case
    job = Job(encrypt)
    code, status, trace = job.traced(f"{call}:{error}:when={n}")
    name = error.removeprefix("error=")
    line = next((line for line in trace.splitlines() if "(INJECTED)" in line
                 and line.startswith(call) and (name in line or "=" in name)), "")
    outcome = outcome_of(line, name, job.source)
    number = ERRORS.get(name, 5)  # a short count gives no reason
    said = f"error crypto -{number}" if outcome == "failed" and name != "ENOSPC" else ""
    expected = (int(outcome in ("failed", "refused")), said)
    assert "any" in outcome or (code, status) == expected, f"{outcome}, got {code, status}: {line}"
    job.check(finished=False)
    if outcome == "forgotten":
        job.scan()
    job.finish(finished=outcome != "forgotten",
               leftover=re.findall(rf'"{job.source}/([^"]*)', line) if "kept" in outcome else ())
    return bool(line)


def outgrow(encrypt):
    """Real short counts: no file may grow past a limit inside the second chunk."""
    job = Job(encrypt)
    result = job.traced(wrapper=("env", "--ignore-signal=XFSZ", "prlimit", "--fsize=300000"))[:2]
    # write goes short and then says EFBIG; sendfile goes short and says nothing
    assert result == (1, "error crypto -27" if encrypt else "error crypto -5"), result
    job.finish()
    return True


def sweep(title, test, cases):
    def attempt(case):
        try:
            return test(case), None
        except (AssertionError, subprocess.TimeoutExpired) as problem:
            return True, f"{case}: {problem}"
    with ThreadPoolExecutor(os.cpu_count()) as pool:
        results = [(hit, problem) for hit, problem in pool.map(attempt, cases) if hit]
    problems = [problem for _, problem in results if problem]
    print(*problems, f"{title} survived {len(results) - len(problems)}/{len(results)}", sep="\n",
          flush=True)
    return not problems


def main():
    if not sweep("undisturbed runs", undisturbed, (True, False)):
        return False
    stride = int(sys.argv[2]) if len(sys.argv) > 2 else 1
    everything = [*points(True, stride), *points(False, stride)]
    kills = [point for point in everything if point[1] in MUTATING]
    faults = [(point, f"error={error}") for point in everything for error in ERRORS]
    faults += [(point, "error=EINVAL") for point in everything if point[1] == "fsync"]
    faults += [(point, "retval=0") for point in everything if point[1] == "sendfile"]
    return (sweep("kill points", kill, zip(kills, random.Random(2).sample(kills, len(kills))))
            & sweep("faults", fail, faults) & sweep("short counts", outgrow, (True, False)))


if __name__ == "__main__":
    sys.exit(not main())
