#!/usr/bin/env python3
"""Kills the worker, then makes it fail, at every system call in turn.

After each stop every file's bytes must be whole under one of its three names, and runs without a
new scan must finish the move: byte-exact, nothing left behind, each file committed once.
Encryption runs with sendfile refused, as on a real eCryptfs mount, decryption with sendfile.

    sweep.py WORKER [all]    "all" takes every point instead of one of each kind
"""
import errno
import itertools
import os
import random
import re
import signal
import subprocess
import sys
import tempfile
import time
from concurrent.futures import ThreadPoolExecutor
from pathlib import Path

BYTES = random.Random(1).randbytes
LIST = ".ecryptfs_process"
FILES = {"stashed": BYTES(300), "copied": BYTES(400), "empty": b"", "large": BYTES(600000),
         "a/one two": BYTES(5000), "a/b/partial": BYTES(262144), "a/b/last": BYTES(1)}
MUTATING = "openat write sendfile fsync renameat unlinkat lseek fremovexattr".split()
LOOKING = "newfstatat fstatfs getdents64 read pread64 fadvise64".split()
ERRORS = "EINTR EIO EACCES ENOSPC EINVAL".split()
# What a run does about a failing call: the first pattern that its line of the trace matches, where
# the direction is put behind it.
OUTCOMES = {
    r"openat.* EINTR|write.*_intermediate_.* EINTR|(fsync|sendfile).* EINVAL": "passed",
    r"fremovexattr.* (?!EIO)E": "passed",
    r'openat.*_process", O_RDONLY': "forgotten",  # exit 0, its files wait for a new scan
    r"openat.*/tree\b.*O_DIRECTORY|openat.*O_DIRECTORY.* EACCES": "passed",  # exit 0, no line
    r"openat.*_process|openat.*O_DIRECTORY.* decrypt": "refused",  # exit 1, no line
    r"(write|fsync|unlink|lseek).*_process|write\((2<|.*<pipe:)": "passed",
    r"unlink.*_intermediate_|fadvise64": "passed",
    r"unlink": "kept",  # exit 0, and the plain file stays beside its copy for good
    "|".join(LOOKING): "any",  # either way; before a deletion it may decide like the deletion
    r"": "failed"}  # exit 1 and "error crypto -N", for ENOSPC no line (said before the copy)
# Exit status, files that stay, faults: an older, longer copy in progress cannot be removed; and no
# count can be written before a kill at the very last rename, after which the list must be whole.
LOSSES = ((0, len(FILES) - 1, "unlinkat:error=EACCES"),
          (-9, 0, "lseek:error=EIO", "renameat:signal=KILL:when=12"))
# What happens to the second such call on the root's directory or list; exit status, status lines.
SCANS = (("getdents64", "delay_enter=1000000", (0, "paused\n")),
         ("openat", "error=EACCES", (1, "")), ("write", "error=ENOSPC", (1, "")))


class Job:
    """A tree on its way, at a start that has seen every kind of interruption."""
    limit = 120  # seconds that a run may take
    refusal = "EINVAL"  # how sendfile is refused

    def __init__(self, encrypt):
        self.folder = tempfile.TemporaryDirectory(dir="/dev/shm")  # where syncs cost nothing
        self.root = Path(self.folder.name, "tree")
        self.encrypt, self.trace, self.log = encrypt, "", Path(self.folder.name, "trace")
        sides = (self.root, Path(f"{self.root}_enc"))
        self.source, self.target = sides if encrypt else sides[::-1]
        for side in sides:
            (side / "a/b").mkdir(parents=True)
        for name, data in FILES.items():
            (self.source / name).write_bytes(data)
        self.run(scan=True)
        (self.source / "stashed").rename(self.target / ".stashed")
        (self.target / ".copied").write_bytes(FILES["copied"])
        (self.target / "a/b/.ecryptfs_intermediate_partial").write_bytes(BYTES(300000))

    def run(self, *wrapper, scan=False, pipes=("0", "1"), meanwhile=lambda process: None,
            commands=b""):
        """Returns the exit status and the error lines."""
        what = ("0", self.source) if scan else ("1" if self.encrypt else "2", self.root)
        with subprocess.Popen([*wrapper, sys.argv[1], "1", *what, *pipes, "0", "0"],
                              stdin=subprocess.PIPE, stdout=subprocess.PIPE,
                              stderr=subprocess.DEVNULL, start_new_session=True) as process:
            try:
                meanwhile(process)
                self.status = process.communicate(commands, self.limit)[0].decode()
            except BaseException:
                os.killpg(process.pid, signal.SIGKILL)  # the wrapper alone would leave the worker
                raise
        return process.returncode, "".join(re.findall("error.*", self.status))

    def traced(self, *injections, wrapper=(), **options):
        injections += (f"sendfile:error={self.refusal}",) * self.encrypt
        result = self.run("strace", "-qq", "-y", "-s0", f"-o{self.log}",
                          f"-etrace={','.join(MUTATING + LOOKING)}",
                          *(f"-einject={text}" for text in injections), *wrapper, **options)
        self.trace += self.log.read_text(encoding="utf-8")
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

    def complete(self, kept=0):
        assert self.traced() == (0, ""), "the restart failed"
        source, target = self.check()
        assert target == FILES, f"target holds {sorted(target)}, or changed bytes"
        assert len(source) <= kept, f"left behind: {sorted(source)}"

    def finish(self, kept=0):
        self.complete(kept)
        commits = [self.trace.count(f'<{path.parent}>, "{path.name}") = 0\n')
                   for path in map(self.target.joinpath, FILES)]
        assert commits == [1] * len(FILES), f"{commits} commits of {[*FILES]}"


def points(encrypt, every):
    """(direction, call, N) from the loader's last call on: the first one of each kind, which is a
    call on a file or directory with the same part in the move; or all of them and some more, since
    the status lines vary."""
    (job := Job(encrypt)).finish()
    alike = "|".join([r"\d+", r"0x\w+", "/a", "/b", *(Path(name).name for name in FILES)])
    for call in MUTATING + LOOKING:
        lines = re.findall(rf"^{call}\(.*", job.trace, re.MULTILINE)
        first = next((n for n, line in enumerate(lines, 1) if str(job.root) in line), 10**9)
        if (encrypt, call) != (True, "sendfile"):  # which always fails there
            numbers = range(first, len(lines) + (4 if every else 1))
            kinds = {n if every else re.sub(alike, "", lines[n - 1]): n for n in reversed(numbers)}
            yield from ((encrypt, call, n) for n in kinds.values())


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
    line = hit[0] + (" encrypt" if encrypt else " decrypt")
    outcome = next(name for pattern, name in OUTCOMES.items() if re.match(pattern, line))
    number = getattr(errno, error.removeprefix("error="), errno.EIO)  # a short count gives none
    said = f"error crypto -{number}" if outcome == "failed" and number != errno.ENOSPC else ""
    expected = (int(outcome in ("failed", "refused")), said)
    assert outcome == "any" or result == expected, f"{outcome}, got {result}: {hit[0]}"
    job.check()
    if outcome == "forgotten":
        job.run(scan=True)
        if (stash := job.target / ".stashed").exists():  # which no scan of the source can find
            stash.rename(job.target / "stashed")
        job.complete()
    else:
        job.finish(kept=outcome in ("any", "kept"))
    return True


def outgrow(encrypt):
    """Real short counts at a limit on the size: write then says EFBIG, sendfile says nothing."""
    job = Job(encrypt)  # in which the descriptors do not suffice either, until the limit is raised
    result = job.traced(wrapper=("env", "--ignore-signal=XFSZ", "prlimit", "--fsize=300000",
                                 "--nofile=8:1024"))
    assert result == (1, "error crypto -27" if encrypt else "error crypto -5"), result
    job.finish()
    return True


def lose(case):
    """Every call of a kind fails; see LOSSES."""
    encrypt, (code, kept, *injections) = case
    assert (job := Job(encrypt)).traced(*injections)[0] == code
    job.check()
    job.complete(kept)
    return True


def keep_order(encrypt):
    """What a file of three chunks, and an empty one, need to last comes in this order."""
    (job := Job(encrypt)).refusal = "ENOSYS"
    job.finish()
    done = re.findall(r"^(write|sendfile|fsync|renameat|unlinkat)\(\d+<[^>]*/([^>]*)>(.*) = \d+$",
                      job.trace, re.MULTILINE)
    done = [(call, place, *re.findall('"(.+?)"', more)) for call, place, more in done]
    source, target, move = job.source.name, job.target.name, "write" if encrypt else "sendfile"
    for name, chunks in ("large", 3), ("empty", 0):
        copy = f".ecryptfs_intermediate_{name}"
        road = [*[(move, copy), ("fsync", copy)] * chunks, ("fsync", copy),
                ("renameat", target, copy, f".{name}"), ("fsync", target),
                ("unlinkat", source, name),
                ("renameat", target, f".{name}", name), ("fsync", target), ("fsync", source),
                ("write", LIST), ("fsync", LIST)]
        begin = next(n for n, step in enumerate(done) if copy in step[1])
        assert done[begin:begin + len(road)] == road, f"{name}: {done[begin:]}"
    return True


def scan(case):
    """Lists are synced; a scan that is paused or fails goes no further. See SCANS."""
    call, fault, expected = case
    (job := Job(True)).traced(scan=True)
    writing = re.findall(rf"^(write|fsync)\(.*{job.root}/{LIST}>", job.trace, re.MULTILINE)
    assert writing == ["write", "fsync", "write", "write", "write", "fsync"], writing
    lines = re.findall(rf"^{call}\(.*", job.trace, re.MULTILINE)
    places = [n for n, line in enumerate(lines, 1) if re.search(rf"\d<{job.root}(/{LIST})?>", line)]
    (job.source / "a" / LIST).unlink()
    paused = "delay" in fault
    if paused:
        (job.source / LIST).unlink()

    def wait_for_the_delay(worker):
        while paused and not (job.source / LIST).exists() and worker.poll() is None:
            time.sleep(0.01)
        time.sleep(0.3 * paused)  # by now it has met the subdirectory, and waits
    code, _ = job.traced(f"{call}:{fault}:when={places[1]}", scan=True,
                         meanwhile=wait_for_the_delay, commands=b"pause\n" * paused)
    assert (code, job.status) == expected, (code, job.status)
    assert not (job.source / "a" / LIST).exists(), "the scan went on"
    return True


def sweep(title, test, cases):
    def attempt(case):
        try:
            return [] if test(case) else None
        except (AssertionError, subprocess.TimeoutExpired) as problem:
            return [f"{case}: {problem}"]
    with ThreadPoolExecutor(2 * os.cpu_count()) as pool:
        hits = [problems for problems in pool.map(attempt, cases) if problems is not None]
    problems = sum(hits, [])
    print(*problems, f"{title} survived {hits.count([])}/{len(hits)}", sep="\n", flush=True)
    return not problems


def main():
    every = sys.argv[2:] == ["all"]
    everything = [*points(True, every), *points(False, every)]
    kills = [point for point in everything if point[1] in MUTATING]
    # In a part of the points, the way back only tells what it does not share with the way in.
    faults = [(point, f"error={name}") for point in everything for name in ERRORS
              if every or name == "EIO" or point[1] in (MUTATING if point[0] else ["sendfile"])]
    faults += [(point, "retval=0") for point in everything if point[1] == "sendfile"]
    return (sweep("kill points", kill, zip(kills, random.Random(2).sample(kills, len(kills))))
            & sweep("faults", fail, faults) & sweep("short counts", outgrow, (True, False))
            & sweep("losses", lose, itertools.product((True, False), LOSSES))
            & sweep("orders", keep_order, (True, False)) & sweep("scans", scan, SCANS))


if __name__ == "__main__":
    sys.exit(not main())
