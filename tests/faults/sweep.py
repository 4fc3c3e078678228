#!/usr/bin/env python3
"""Kills the worker, then makes it fail, at every system call in turn.

After each stop every file's bytes must be whole under one of its three names, and runs without a
new scan must finish the move: byte-exact, nothing left behind, each file committed once.
Encryption runs with sendfile refused, as on a real eCryptfs mount, decryption with sendfile.

    sweep.py WORKER [STRIDE]    only every STRIDE-th point (default 1)
"""
import errno
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
ERRORS = "EINTR EIO EACCES ENOSPC EINVAL".split()
# What a run does about a failing call: the first pattern that its line of the trace matches.
OUTCOMES = {
    r'openat.*_process", O_RDONLY': "forgotten",  # exit 0, its files wait for a new scan
    r"(openat.*_process|write.*_intermediate_).* EINTR|(fsync|sendfile).* EINVAL": "passed",
    r"openat.*_process": "refused",  # exit 1, no line
    r"openat.*O_DIRECTORY|(write|fsync|unlink|lseek).*_process": "passed",  # exit 0, no line
    r"write\((2<|.*<pipe:)|unlink.*_intermediate_": "passed",
    r"unlink": "kept",  # exit 0, and the plain file stays beside its copy for good
    "|".join(LOOKING): "any",  # either way; before a deletion it may decide like the deletion
    r"": "failed"}  # exit 1 and "error crypto -N", for ENOSPC no line (said before the copy)


class Job:
    """A tree on its way, at a start that has seen every kind of interruption."""

    def __init__(self, encrypt):
        self.folder = tempfile.TemporaryDirectory(dir="/dev/shm")  # where syncs cost nothing
        self.root = Path(self.folder.name, "tree")
        self.encrypt, self.trace = encrypt, ""
        sides = (self.root, Path(f"{self.root}_enc"))
        self.source, self.target = sides if encrypt else sides[::-1]
        for side in sides:
            (side / "a/b").mkdir(parents=True)
        for name, data in FILES.items():
            (self.source / name).write_bytes(data)
        self.run(scan=True)
        (self.source / "stashed").rename(self.target / ".stashed")
        (self.target / ".copied").write_bytes(FILES["copied"])
        (self.target / "a/b/.ecryptfs_intermediate_partial").write_bytes(b"half")

    def run(self, *wrapper, scan=False):
        """Returns the exit status and the error lines."""
        what = ("0", self.source) if scan else ("1" if self.encrypt else "2", self.root)
        done = subprocess.run(
            [*wrapper, sys.argv[1], "1", *what, "0", "1", "0", "0"],
            stdin=subprocess.DEVNULL, capture_output=True, timeout=120, check=False)
        return done.returncode, "".join(re.findall("error.*", done.stdout.decode()))

    def traced(self, *injections, wrapper=()):
        injections += ("sendfile:error=EINVAL",) * self.encrypt
        log = Path(self.folder.name, "trace")
        result = self.run("strace", "-qq", "-y", "-s0", f"-o{log}",
                          f"-etrace={','.join(MUTATING + LOOKING)}",
                          *(f"-einject={text}" for text in injections), *wrapper)
        self.trace += log.read_text(encoding="utf-8")
        return result

    def check(self):
        """No file is lost. Returns what the two trees hold."""
        source, target = ({str(path.relative_to(side)): path.read_bytes()
                           for path in side.rglob("*") if path.is_file()}
                          for side in (self.source, self.target))
        for name, data in FILES.items():
            stash = str(Path(name).parent / f".{Path(name).name}")
            assert data in (source.get(name), target.get(stash), target.get(name)), f"{name} lost"
        return source, target

    def finish(self, kept=0):
        assert self.traced() == (0, ""), "the restart failed"
        source, target = self.check()
        assert target == FILES, f"target holds {sorted(target)}, or changed bytes"
        assert len(source) <= kept, f"left behind: {sorted(source)}"
        commits = [self.trace.count(f'", "{self.target / name}") = 0\n') for name in FILES]
        assert commits == [1] * len(FILES), f"{commits} commits of {[*FILES]}"


def points(encrypt, stride):
    """(direction, call, N) from the loader's last call on, and some more: status lines vary."""
    (job := Job(encrypt)).finish()
    for call in MUTATING + LOOKING:
        lines = re.findall(rf"^{call}\(.*", job.trace, re.MULTILINE)
        first = next((n for n, line in enumerate(lines, 1) if str(job.root) in line), 10**9)
        if (encrypt, call) != (True, "sendfile"):  # which always fails there
            yield from ((encrypt, call, n) for n in range(first, len(lines) + 4, stride))


def kill(pair):
    """Kills a run, and then the run that carries on; a third one must finish."""
    job, codes = Job(pair[0][0]), []
    for _, call, n in pair:
        codes.append(job.traced(f"{call}:signal=KILL:when={n}")[0])
        job.check()
    job.finish()
    return codes[0] == -9


def fail(case):
    (encrypt, call, n), error = case
    result = (job := Job(encrypt)).traced(f"{call}:{error}:when={n}")
    if not (hit := re.search(rf"^{call}\(.*INJECTED.*", job.trace, re.MULTILINE)):
        return False
    outcome = next(name for pattern, name in OUTCOMES.items() if re.match(pattern, hit[0]))
    number = getattr(errno, error.removeprefix("error="), errno.EIO)  # a short count gives none
    said = f"error crypto -{number}" if outcome == "failed" and number != errno.ENOSPC else ""
    expected = (int(outcome in ("failed", "refused")), said)
    assert outcome == "any" or result == expected, f"{outcome}, got {result}: {hit[0]}"
    job.check()
    if outcome != "forgotten":
        job.finish(kept=outcome in ("any", "kept"))
    return True


def outgrow(encrypt):
    """Real short counts at a limit on the size: write then says EFBIG, sendfile says nothing."""
    job = Job(encrypt)
    result = job.traced(wrapper=("env", "--ignore-signal=XFSZ", "prlimit", "--fsize=300000"))
    assert result == (1, "error crypto -27" if encrypt else "error crypto -5"), result
    job.finish()
    return True


def sweep(title, test, cases):
    def attempt(case):
        try:
            return [] if test(case) else None
        except (AssertionError, subprocess.TimeoutExpired) as problem:
            return [f"{case}: {problem}"]
    with ThreadPoolExecutor(os.cpu_count()) as pool:
        hits = [problems for problems in pool.map(attempt, cases) if problems is not None]
    problems = sum(hits, [])
    print(*problems, f"{title} survived {hits.count([])}/{len(hits)}", sep="\n", flush=True)
    return not problems


def main():
    stride = int(sys.argv[2]) if len(sys.argv) > 2 else 1
    everything = [*points(True, stride), *points(False, stride)]
    kills = [point for point in everything if point[1] in MUTATING]
    faults = [(point, f"error={name}") for point in everything for name in ERRORS]
    faults += [(point, "retval=0") for point in everything if point[1] == "sendfile"]
    return (sweep("kill points", kill, zip(kills, random.Random(2).sample(kills, len(kills))))
            & sweep("faults", fail, faults) & sweep("short counts", outgrow, (True, False)))


if __name__ == "__main__":
    sys.exit(not main())
