#!/usr/bin/env python3
"""Stops the worker after each system call in turn and exchanges one thing of the tree under it.

The tree belongs to another user, and the exchange needs only what he may do in his own directories;
the worker is root. Nothing outside the trees may be read, changed, created or removed, and the
worker may not hang. Once the exchange is undone a run without a new scan must finish the move.

    exchange.py WORKER [all]    "all" takes every call instead of those that name what is exchanged
"""
import collections
import contextlib
import ctypes
import io
import itertools
import os
import random
import re
import signal
import sys
import time
from pathlib import Path

from sweep import LIST, Job, sweep

OWNER = 1234
SECRET = random.Random(3).randbytes(32)
LIBC = ctypes.CDLL(None)
IN_ACCESS = 1


def as_owner(act, *arguments):
    """Takes root's rights to files from this thread meanwhile."""
    LIBC.setfsuid(OWNER)
    try:
        return act(*arguments)
    finally:
        LIBC.setfsuid(0)


@contextlib.contextmanager
def times_kept(folder):
    before = folder.stat()
    yield
    os.utime(folder, ns=(before.st_atime_ns, before.st_mtime_ns))


# How the owner puts something else at `place`; `foreign` is the same place among root's files. Some
# systems let nobody link a file that he may not write: root does it, and only a write counts there.
MAKE = {
    "link": lambda place, foreign: as_owner(os.symlink, foreign, place),
    "dangling link": lambda place, foreign: as_owner(os.symlink, foreign.parent / "none", place),
    "hard link": lambda place, foreign: os.link(foreign, place),
    "pipe": lambda place, foreign: as_owner(os.mkfifo, place)}
KINDS = [(side, path, kind) for side, path, kinds in (
    ("source", "a", ["link"]), ("source", "a/b", ["link"]),
    ("target", "a", ["link"]), ("target", "a/b", ["link"]),
    ("source", "a/b/partial", ["link", "dangling link", "pipe"]),
    ("target", "a/b/.ecryptfs_intermediate_partial", MAKE),
    ("target", "a/b/.partial", ["link", "pipe"]),
    ("source", f"a/b/{LIST}", ["link", "hard link", "pipe"])) for kind in kinds]


class Exchanges:
    """Of a job in a user's tree, beside a folder of root's where everything has the same names."""
    codes, limit, lasting = (0, 1), 10, (LIST,)

    def guard(self, files):
        """Gives all to the user but `files`, which are root's."""
        top = Path(self.folder.name)
        self.outside, self.aside, self.log = top / "outside", top / "own/aside", top / "trace"
        self.aside.parent.mkdir()
        self.log.touch()
        for path in top.rglob("*"):
            os.chown(path, OWNER, OWNER, follow_symlinks=False)
        for name, data in files.items():
            (self.outside / name).parent.mkdir(parents=True, exist_ok=True)
            (self.outside / name).write_bytes(data)
        top.chmod(0o755)
        self.outside.chmod(0o700)
        watch = LIBC.inotify_init1(os.O_NONBLOCK | os.O_CLOEXEC)
        for path in [*self.outside.rglob("*")]:
            os.utime(path, (0, 1))
            LIBC.inotify_add_watch(watch, bytes(path), IN_ACCESS)
        self.watch = os.fdopen(watch, "rb", 0)

    def look_outside(self):
        """Whatever a read, a change, a new file or a removal would show in."""
        read = {self.watch.read(1 << 16)}  # which leaves no time of access
        looks = {path: path.lstat() for path in self.outside.rglob("*")}
        self.watch.read(1 << 16)  # this look was a read too
        return read | {(path, look.st_mode, look.st_uid, look.st_gid, look.st_size, look.st_mtime)
                       for path, look in looks.items()}

    @staticmethod
    def text_of(path):
        """Of a link, which is known by it when it has been moved."""
        return os.readlink(path) if path.is_symlink() else None

    def exchange(self, side, path, kind):
        self.place = getattr(self, side) / path
        with times_kept(self.place.parent):
            isdir = self.place.is_dir() and not self.place.is_symlink()
            if isdir and self.place.stat().st_uid == 0:
                as_owner(os.rmdir, self.place)  # which he can, but not move it elsewhere
            elif os.path.lexists(self.place):
                as_owner(os.rename, self.place, self.aside)
            MAKE[kind](self.place, self.outside / path)
        if kind == "hard link":
            self.watch = io.BytesIO()
        self.text = self.text_of(self.place) or "none"
        self.fake, self.seen = self.place.lstat(), self.look_outside()

    def undo(self):
        """Puts the original where the fake is now; some also where the fake is no more."""
        found = [path for side in (self.source, self.target) for path in side.rglob("*")
                 if os.path.samestat(path.lstat(), self.fake) or self.text_of(path) == self.text]
        for place in found or [self.place] * (self.place.name in self.lasting):
            with times_kept(place.parent):
                if found:
                    now = place.rename(self.aside.with_name("fake")).lstat()
                    assert (now.st_mode, now.st_uid) == (self.fake.st_mode, self.fake.st_uid), now
                if os.path.lexists(self.aside):
                    as_owner(os.rename, self.aside, place)


class Tree(Exchanges, Job):
    def __init__(self, encrypt):
        super().__init__(encrypt)
        self.guard({"a/b/" + name: SECRET for last in ("last", "partial")
                    for name in (last, "." + last, ".ecryptfs_intermediate_" + last)}
                   | {f"a/b/{LIST}": bytes(64) + b"\nlast\npartial\n"})

    def complete(self, kept=0):
        source, target = self.check()
        assert not any(SECRET in data for data in [*source.values(), *target.values()]), "a secret"
        super().complete(kept)


def stops(encrypt):
    """The trace's line by (direction, call, N) of each call below the roots, until the last one in
    the folder "a"."""
    (job := Tree(encrypt)).complete()
    seen, found, end = collections.Counter(), [((encrypt, "", 0), "")], 1
    for line in job.trace.splitlines():
        seen[call := line.split("(")[0]] += 1
        if str(job.root) in line and call != "sendfile":  # which a stop would cut short
            found.append(((encrypt, call, seen[call]), line))
            end = len(found) if re.search(rf"{job.root}(_enc)?/a", line) else end
    return found[:end]


def mislead(case, tree=Tree):
    (start, call, n), kind = case
    job = tree(start)

    def exchange(process):
        while "stopped by SIGSTOP" not in job.log.read_text():
            if process.poll() is not None:
                return
            time.sleep(0.002)
        job.exchange(*kind)
        os.killpg(process.pid, signal.SIGCONT)

    if call:
        code, _ = job.traced(f"{call}:signal=STOP:when={n}", meanwhile=exchange)
    else:
        job.exchange(*kind)
        code, _ = job.traced()
    if not hasattr(job, "fake"):
        return False
    job.undo()
    assert code in job.codes, f"ended with {code}"
    differences = {str(each) for each in job.look_outside() ^ job.seen}
    assert not differences, f"read or changed: {differences}"
    job.complete()
    return True


def main():
    if os.geteuid() != 0:
        return 77
    every = sys.argv[2:] == ["all"]
    cases = [(stop, kind)
             for (stop, line), kind in itertools.product(stops(True) + stops(False), KINDS)
             if every or f'"{Path(kind[1]).name}"' in line]
    return not sweep("exchanges", mislead, cases)


if __name__ == "__main__":
    sys.exit(main())
