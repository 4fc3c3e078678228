#!/usr/bin/env python3
"""Runs the worker on trees, records and descriptors that somebody has spoilt.

It must neither hang nor crash nor touch anything outside; without the obstacle a run finishes.

    hostile.py WORKER [all]    "all" adds the large tree
"""
import functools
import itertools
import os
import resource
import shutil
import sys

from sweep import BYTES, FILES, Job, sweep

sys.setrecursionlimit(10000)  # to remove the large tree; it takes a descriptor for each level too
resource.setrlimit(resource.RLIMIT_NOFILE, resource.getrlimit(resource.RLIMIT_NOFILE)[1:] * 2)
HEADER = bytes(64) + b"\n"
# record of the root, exit status, status line, whether the record stays
RECORDS = {"garbage": (BYTES(1000).replace(b"\n", b"") + b"\nlarge\n", 1, "", True),
           "no line end": (b"x" * 10_000_000, 1, "", True),
           "largest count": (bytes(8) + b"\xff" * 4 + bytes(52) + b"\nlarge\n", 0, "", False),
           "parent": (HEADER + b"..\nlarge\n", 1, "error crypto -", True),
           "slash": (HEADER + b"./precious\nlarge\n", 1, "error crypto -22", True),
           "empty line": (HEADER + b"\nlarge\n", 0, "", True)}
BASE, RECORD = ("source", "large"), ("source", ".ecryptfs_process")
PLACES = (BASE, RECORD, ("target", "large"), ("target", ".large"),
          ("target", ".ecryptfs_intermediate_large"))
LINKS = (functools.partial(os.symlink, to) for to in ("../precious", "../nowhere", "/dev/zero"))
# Some of the three standard descriptors closed; two of them used as pipes and the third closed.
DESCRIPTORS = [("".join(f" {number}>&-" for number in closed), "6", "7")
               for count in range(4) for closed in itertools.combinations("012", count)]
DESCRIPTORS += [(f" {command}<&6 {status}>&7 {third}>&-", command, status)
                for command, status, third in itertools.permutations("012")]
KINDS = (os.mkfifo, lambda path: (path / "inside").mkdir(parents=True), *LINKS)


def spoilt_record(job, name):
    content, code, status, stays = RECORDS[name]
    (record := job.source / ".ecryptfs_process").write_bytes(content)
    result = job.run()
    assert (result[0], record.exists()) == (code, stays) and result[1].startswith(status), result
    job.check()


def obstacle(job, place, kind, scanned):
    path = getattr(job, place[0]) / place[1]
    path.unlink(missing_ok=True)
    kind(path)
    if scanned:
        job.run(scan=True)
    result = job.run()
    assert result == (0, "") or result[0] == 1 and (place != RECORD or path.is_symlink()), result
    if path.is_dir():
        shutil.rmtree(path)
    elif path.is_symlink() or path.is_fifo():
        path.unlink()
    if place == RECORD:
        job.run(scan=True)  # only here: a new scan would forget a stash
    if place != BASE:
        job.check()
        assert job.run() == (0, "") and (job.target / "large").is_file(), "the restart failed"


def second_name(job):
    """The copy in progress is a file of somebody else's, and its name cannot be removed."""
    os.link(job.source.parent / "precious", job.target / ".ecryptfs_intermediate_large")
    result = job.traced("unlinkat:error=EACCES")
    assert result == (1, "error crypto -31"), result
    job.log.unlink()


def descriptors(job, redirections, *pipes):
    shell = ("sh", "-c", f'exec env vold.ecryptfs.debug=1 "$@" 6<&0 7>&1{redirections}', "sh")
    result = job.run(*shell, pipes=pipes)
    copied = sum(len(data) + len(os.path.basename(name)) for name, data in FILES.items()
                 if name not in ("stashed", "copied"))
    assert result == (0, "") and job.check() == ({}, FILES), result
    words = {line.split()[0] for line in job.status.splitlines()}
    assert words <= {"progress", "record_progress"}, sorted(words)
    assert job.status.endswith(f"record_progress {copied} 0\n"), job.status[-80:]
    job.run(*shell, pipes=pipes, scan=True)
    assert (job.source / ".ecryptfs_process").read_bytes() == HEADER, "the log is in the list"


def innermost(folder):
    """Makes 1,100 levels. Returns a descriptor, since no call takes a path of 5,500 bytes."""
    inner = os.open(folder, os.O_RDONLY)
    for _ in range(1100):
        os.mkdir("deep", dir_fd=inner)
        outer, inner = inner, os.open("deep", os.O_RDONLY, dir_fd=inner)
        os.close(outer)
    return inner


def large_tree(job):
    names = [f"file {number}" for number in range(200_000)]
    for name in names:
        (job.source / name).touch()
    source, target = innermost(job.source), innermost(job.target)
    os.close(os.open("last", os.O_CREAT, dir_fd=source))
    limits = ("prlimit", "--nofile=1024:4096")
    job.run(*limits, scan=True)
    assert job.run(*limits) == (0, "")
    assert all((job.target / name).is_file() for name in names) and os.listdir(target) == ["last"]
    os.close(source)
    os.close(target)


def survives(case):
    test, *arguments = case
    (precious := (job := Job(True)).source.parent / "precious").write_bytes(b"mine")
    test(job, *arguments)
    assert precious.read_bytes() == b"mine" and len(os.listdir(job.folder.name)) == 3
    return True


cases = [(spoilt_record, name) for name in RECORDS]
cases += [(obstacle, *case) for case in itertools.product(PLACES, KINDS, (False, True))]
cases += [(descriptors, *case) for case in DESCRIPTORS]
cases += [(second_name,)]
cases += [(large_tree,)] if sys.argv[2:] == ["all"] else []
sys.exit(not sweep("hostile trees", survives, cases))
