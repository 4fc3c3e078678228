#!/usr/bin/env python3
"""Kills vaultctl, then makes it fail, at every system call of its own; and kills its worker.

After each the same command must finish the job: every byte, link, mode, owner, time
and attribute.

    calls.py VAULTCTL WORKER [STRIDE]    only one in STRIDE of the points (default 1)
"""
import random
import re
import sys

from jobs import FILES, WAYS, sweep

CHANGING = ("openat write fsync renameat unlinkat mkdirat symlinkat fchown fchownat fchmod "
            "fsetxattr fremovexattr utimensat sync").split()
LOOKING = ("newfstatat fstat read pread64 readlinkat getdents64 statfs fstatfs faccessat "
           "faccessat2 llistxattr flistxattr fgetxattr flock").split()
ERRORS = "EIO ENOSPC EACCES".split()


def points(way):
    """(way, call, N) from the first call on that has to do with the tree."""
    _, _, trace = (job := WAYS[way]()).traced(",".join(CHANGING + LOOKING), "")
    for call in CHANGING + LOOKING:
        lines = re.findall(rf"^{call}\(.*", trace, re.MULTILINE)
        first = next((n for n, line in enumerate(lines, 1)
                      if call in ("sync", "llistxattr") or str(job.plain) in line), 10**9)
        yield from ((way, call, n) for n in range(first, len(lines) + 1))


def kill(pair):
    """Kills a run, and then the run that carries on; a third one must finish."""
    job = WAYS[pair[0][0]]()
    for _, call, n in pair:
        job.traced(call, f"signal=KILL:when={n}")
    job.finish()


def kill_worker(case):
    rename, way = case
    WAYS[way]().pause(rename).finish()


def fail(case):
    """What fails must be said with its path, or not matter."""
    (way, call, n), error = case
    status, said, _ = (job := WAYS[way]()).traced(call, f"error={error}:when={n}")
    if "CHECK failed" in said:
        return job.finish()  # It was a call of the sanitizer's own.
    # 74: all is done, but that could not be said.
    assert status in (0, 1, 2, 74), f"status {status}: {said}"
    if status in (0, 74):
        job.check()
    else:
        assert str(job.plain) in said, f"no path: {said}"
    return job.finish()


def main():
    stride = int(sys.argv[3]) if len(sys.argv) > 3 else 1
    every = [point for way in WAYS for point in points(way)]
    kills = [point for point in every if point[1] in CHANGING][::stride]
    faults = [(point, error) for point in every for error in ERRORS]
    ends = [(rename, way) for rename in range(1, 2 * len(FILES) + 1) for way in WAYS]
    sound = [
        sweep("kills of the worker", kill_worker, ends[::min(stride, 3)]),
        sweep("kill points", kill, [*zip(kills, random.Random(2).sample(kills, len(kills)))]),
        sweep("faults", fail, random.Random(3).sample(faults, len(faults) // stride))]
    return all(sound)


if __name__ == "__main__":
    sys.exit(not main())
