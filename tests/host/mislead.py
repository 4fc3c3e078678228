#!/usr/bin/env python3
"""Stops vaultctl after each of its system calls and exchanges what it names next.

Whole jobs, from the beginning and resumed, in a tree of another user. Nothing outside may be read,
changed, created or removed, and vaultctl may not hang. Once the exchange is undone the same command
must finish the job, or the one that it names: every byte, mode, owner and time.

    mislead.py VAULTCTL WORKER [STRIDE]    only every STRIDE-th exchange (default 1)
"""
import collections
import contextlib
import functools
import itertools
import os
import re
import signal
import stat
import subprocess
import sys
import time
from pathlib import Path

from jobs import FILES, LINKS, Job

sys.path.insert(0, str(Path(__file__).parents[1] / "faults"))
from exchange import LIST, MAKE, SECRET, Exchanges, mislead  # noqa: E402
from sweep import sweep  # noqa: E402

CALLS = ("openat,mkdirat,unlinkat,renameat,fchown,fchmod,utimensat,newfstatat,fsync,write,read,"
         "getdents64,fstatfs,faccessat2,flock,symlinkat,readlinkat,fchownat,llistxattr,flistxattr,"
         "fgetxattr,fsetxattr,fremovexattr,pread64")
RECORDS = ".ecryptfs_job", ".ecryptfs_mark", ".ecryptfs_manifest", LIST
OF_FILES = [*MAKE]
MAKE["root's directory"] = lambda place, _: place.mkdir(0o700) or (place / "secret").touch()
STARTS = {"begun": lambda job: None, "paused": Job.pause, "undoing": Job.undo,
          "abandoned": lambda job: job.traced("renameat:signal=KILL:when=4")}  # after the scan


def children(pid):
    return Path(f"/proc/{pid}/task/{pid}/children").read_text().split()


def state(pid):
    return Path(f"/proc/{pid}/stat").read_text().rsplit(") ", 1)[1][0]


class Tree(Exchanges, Job):
    codes, lasting = (0, 1, 2, 3), ()

    def __init__(self, start):
        encrypt, state = start
        super().__init__(encrypt)
        self.target.mkdir(exist_ok=True)
        self.top = self.plain.parent
        files = {".ecryptfs_names/N": b"", ".ECRYPTFS_NAMES": b""}
        files |= {name + end: SECRET for name in RECORDS for end in ("", ".new")}
        files = {path + name: data for path in ("", "a/", "a/b/") for name, data in files.items()}
        files |= {re.sub("([^/]+)$", r".\1", name): data for name, data in FILES.items()} | FILES
        files |= dict.fromkeys(LINKS, SECRET)
        self.guard({f"{root}/{name}": data for root in ("box", "box_enc")
                    for name, data in files.items()})
        self.dress()
        self.before = self.snapshot(self.source)
        STARTS[state](self)

    @staticmethod
    def snapshot(root):
        """Without times of access: what was exchanged is found by listing and put back by name."""
        return {name: row[:4] + row[5:] for name, row in Job.snapshot(root).items()}

    def exchange(self, *kind):
        workers = [int(pid) for vaultctl in children(self.strace) for pid in children(vaultctl)]
        for pid in workers:
            os.kill(pid, signal.SIGSTOP)  # It would go on while its vaultctl is stopped.
            while state(pid) not in "tTZ":
                time.sleep(0.001)
        super().exchange(*kind)
        for pid in workers:
            os.kill(pid, signal.SIGCONT)

    def traced(self, *injections, meanwhile=lambda process: None):
        command = ["strace", "-qq", "-y", "-s0", f"-o{self.log}", f"-etrace={CALLS}",
                   *(f"-einject={text}" for text in injections), *self.command()]
        with subprocess.Popen(command, stdin=subprocess.DEVNULL, stdout=subprocess.PIPE,
                              stderr=subprocess.STDOUT, start_new_session=True) as process:
            self.strace = process.pid
            try:
                meanwhile(process)
                said, _ = process.communicate(timeout=self.limit)
            except BaseException:
                os.killpg(process.pid, signal.SIGKILL)
                raise
        return process.returncode, said.decode(errors="replace")

    def complete(self):
        if stat.S_ISDIR(self.fake.st_mode):
            return None  # with it went what has been moved there
        with contextlib.suppress(AssertionError):
            return self.check()
        if "`vaultctl repair" in self.run()[1]:
            self.run("repair")
        # A directory that was a link when the manifest was written.
        if re.search("is not the symbolic link|in the way", self.run()[1]):
            self.run("repair", "--as-it-is")
            self.run()
        return self.finish()


def exchanges(start):
    """Each call in the trees, with what the next name is exchanged for: the kinds take turns."""
    (job := Tree(start)).traced()
    # An undo leaves what he puts in the place of such a link, and then the link too.
    own = "".join("|" + re.escape(link) for link in LINKS if start[1] == "undoing")
    counts, stops, turn = collections.Counter(), [], itertools.count()
    for line in job.log.read_text().splitlines():
        counts[call := line.split("(")[0]] += 1
        names = re.findall(rf'<{job.top}/([^>]*)>, "([^".][^"]*|\.[^"]+)"', line)
        for path in map("/".join, names):
            kinds = ["link", "root's directory"] if (job.outside / path).is_dir() else OF_FILES
            moved = "/." in path or path.startswith(f"{job.source.name}/")
            if moved and ".ecryptfs_" not in path:
                # Another name of a foreign file is moved like any file, or taken for a copy.
                kinds = [kind for kind in kinds if kind != "hard link"]
            # They could not follow what is called .N; in the folder for trials he may do nothing.
            if not re.search(f"{job.source.name}/(.?N|a/x{own})$|_names/", path):
                yield from ((stop, ("top", path, kinds[next(turn) % len(kinds)])) for stop in stops)
        # Between a look and its list of attributes he can lose his own file's.
        stops = [] if names or call == "llistxattr" else stops
        if str(job.plain) in line:
            stops.append((start, call, counts[call]))


def main():
    stride = int(sys.argv[3]) if len(sys.argv) > 3 else 1
    starts = itertools.product((True, False), STARTS)
    every = [*itertools.chain.from_iterable(map(exchanges, starts))]
    return sweep("vaultctl: exchanges", functools.partial(mislead, tree=Tree), every[::stride])


if __name__ == "__main__":
    sys.exit(not main())
