"""Jobs of vaultctl on trees of their own, for trail.py and sweep.py. They need root."""
import os
import stat
import struct
import subprocess
import sys
import tempfile
import time
from concurrent.futures import ThreadPoolExecutor
from pathlib import Path

VAULTCTL, WORKER = sys.argv[1:3]
if os.geteuid() != 0:
    sys.exit(77)
FILES = {"N": b"of N", ".N": b"of .N", "a/x": b"x" * 70000, "a/b/one two": b"", "a/b/.y": b"yy"}
LINKS = {"..N": "nowhere", "a/.x": "/", "a/b/y": "../.."}
# An entry for user 7, and what it is put on: the owning group may do less than the mask lets it.
ACL = struct.pack("<I" + "HHI" * 5, 2, 1, 7, 2**32 - 1, 2, 7, 7, 4, 0, 2**32 - 1, 16, 7, 2**32 - 1,
                  32, 0, 2**32 - 1)
ATTRIBUTES = {("a/x", "user.colour"): b"red\0", ("a/x", "system.posix_acl_access"): ACL,
              ("a", "system.posix_acl_access"): ACL, ("a", "system.posix_acl_default"): ACL,
              ("a/b", "trusted.of"): b"",
              ("a/b/.y", "security.capability"): struct.pack("<5I", 0x2000001, 1 << 13, 0, 0, 0)}


class Job:
    """A tree that is to be moved, and every way to run vaultctl on it."""

    def __init__(self, encrypt=True):
        self.folder = tempfile.TemporaryDirectory(dir="/dev/shm")  # where syncs cost nothing
        self.plain = Path(self.folder.name, "box")
        self.encrypted = Path(f"{self.plain}_enc")
        self.word, self.source, self.target = (("encrypt", self.plain, self.encrypted) if encrypt
                                               else ("decrypt", self.encrypted, self.plain))
        self.words = self.word, "--allow-plain"
        self.target.mkdir()
        for name, data in FILES.items():
            (self.source / name).parent.mkdir(parents=True, exist_ok=True)
            (self.source / name).write_bytes(data)
        for name, text in LINKS.items():
            (self.source / name).symlink_to(text)
        paths = [*enumerate(sorted(self.source.rglob("*"), reverse=True))]
        for number, path in paths:
            os.chown(path, 1000 + number, 2000, follow_symlinks=False)
            if not path.is_symlink():
                path.chmod(0o700 + number)
        self.dress()
        for number, path in paths:
            os.utime(path, ns=(10**17 + number, 10**18 + number), follow_symlinks=False)
        self.source.chmod(0o750)
        self.before = self.snapshot(self.source)
        if not encrypt:
            self.target.rmdir()  # The way back makes it again.

    def dress(self):
        """What a change of owner takes off."""
        (self.source / "N").chmod(0o6755)
        for (name, attribute), value in ATTRIBUTES.items():
            os.setxattr(self.source / name, attribute, value)

    @staticmethod
    def snapshot(root):
        looks = {}

        def look(path):
            looks[path] = path.lstat()
            if stat.S_ISDIR(looks[path].st_mode):
                for below in path.iterdir():
                    look(below)

        def of(path, status):
            content = (os.readlink(path) if path.is_symlink() else
                       path.read_bytes() if path.is_file() else None)
            attributes = {name: os.getxattr(path, name, follow_symlinks=False)
                          for name in sorted(os.listxattr(path, follow_symlinks=False))}
            # Only a mount can read a link unseen: a kill in that moment changes its time of access.
            accessed = None if path.is_symlink() else status.st_atime_ns
            return (status.st_mode, status.st_uid, status.st_gid, status.st_mtime_ns, accessed,
                    str(attributes), content)
        look(root)
        rows = {str(path.relative_to(root)): of(path, status) for path, status in looks.items()}
        for path, status in looks.items():  # which the reading has changed
            os.utime(path, ns=(status.st_atime_ns, status.st_mtime_ns), follow_symlinks=False)
        return rows

    def command(self, *words, worker=WORKER):
        return [VAULTCTL, *(words or self.words), "--worker", worker, self.plain]

    def run(self, *words, wrapper=(), worker=WORKER):
        """Returns the exit status and what was said."""
        done = subprocess.run([*wrapper, *self.command(*words, worker=worker)],
                              stdin=subprocess.DEVNULL, stdout=subprocess.PIPE, timeout=120,
                              stderr=subprocess.STDOUT, check=False)
        return done.returncode, done.stdout.decode(errors="replace")

    def traced(self, call, fault, *words):
        log = Path(self.folder.name, "trace")
        result = self.run(*words, wrapper=("strace", "-qq", "-y", "-s999", f"-o{log}",
                                           f"-etrace={call}",
                                           *(fault and [f"-einject={call}:{fault}"])))
        return *result, log.read_text(encoding="utf-8", errors="replace")

    def pause(self, rename=4):
        """Stops a run by killing its worker before one of its renames, of which each file has two.
        The first two files are in the root."""
        worker = Path(self.folder.name, "worker")
        worker.write_text(f"#!/bin/sh\nexec strace -qq -o/dev/null -etrace=renameat "
                          f"-einject=renameat:signal=KILL:when={rename} '{WORKER}' \"$@\"\n",
                          encoding="utf-8")
        worker.chmod(0o700)
        status, said = self.run(worker=worker)
        assert status == 1 and "No file is lost" in said, said
        hidden, shown = self.source.stat(), self.target.stat()
        assert (hidden.st_mode, hidden.st_uid) == (shown.st_mode, shown.st_uid), "not hidden"
        return self

    def undo(self, rename=8):
        """Stops it there, to be taken back: it ends where it began. Before the eighth one N waits
        for its name, and .N is still in the source."""
        self.pause(rename)
        self.word, self.words = "undo", ("undo",)
        self.source, self.target = self.target, self.source
        return self

    def finish(self, metadata=True):
        status, said = self.run()
        # Without a manifest nothing says which links there were: those are another move.
        while "is still moving" in said or (not metadata and "moves them" in said):
            time.sleep(0.02)
            status, said = self.run()
        assert status == 0 or "is no job to undo" in said, f"it does not finish: {said}"
        self.check(metadata)

    def check(self, metadata=True):
        after, before = self.snapshot(self.target), self.before
        # The root's own time is known only once the record that has changed it is written.
        after, before = ({name: row if name != "." else row[:3] for name, row in each.items()}
                         for each in (after, before))
        if not metadata:
            # Nor can an undo tell then which links it had to move on.
            after, before = ({name: row[-1] for name, row in each.items()
                              if self.word != "undo" or not stat.S_ISLNK(row[0])}
                             for each in (after, before))
        assert after == before, [(name, *set(after.get(name, ())) ^ set(before.get(name, ())))
                                 for name in {**after, **before}
                                 if after.get(name) != before.get(name)]
        left = [name for name, row in self.snapshot(self.source).items() if row[-1] is not None
                and (metadata or not stat.S_ISLNK(row[0]))]
        assert not left, f"left behind: {left}"


WAYS = {"encrypt": Job, "decrypt": lambda: Job(False),
        "undo of an encrypt": lambda: Job().undo(), "undo of a decrypt": lambda: Job(False).undo()}


def sweep(title, test, cases):
    def attempt(case):
        try:
            test(case)
            return None
        except (AssertionError, subprocess.TimeoutExpired) as problem:
            return f"{case}: {problem}"
    with ThreadPoolExecutor(2 * os.cpu_count()) as pool:
        problems = [problem for problem in pool.map(attempt, cases) if problem]
    print(*problems, f"{title} survived {len(cases) - len(problems)}/{len(cases)}", sep="\n",
          flush=True)
    return not problems
