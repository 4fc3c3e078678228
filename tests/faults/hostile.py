#!/usr/bin/env python3
"""Runs the worker on trees and records that somebody has spoilt.

It must neither hang nor crash nor touch anything outside; without the obstacle a run finishes.

    hostile.py WORKER [all]    "all" adds the large tree
"""
import functools
import itertools
import os
import shutil
import sys

from sweep import BYTES, Job, sweep

sys.setrecursionlimit(10000)  # to make and remove the large tree
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
    assert result == (0, "") or result[0] == 1, result
    if path.is_dir():
        shutil.rmtree(path)
    elif path.is_symlink() or path.is_fifo():
        path.unlink()
    if place == RECORD:
        job.run(scan=True)  # only here: a new scan would forget a stash
    if place != BASE:
        job.check()
        assert job.run() == (0, "") and (job.target / "large").is_file(), "the restart failed"


def large_tree(job):
    names = ["d/" * 1000 + "f", *(f"file {number}" for number in range(200_000))]
    for side in (job.source, job.target):
        os.makedirs(side / ("d/" * 1000))
    for name in names:
        (job.source / name).touch()
    job.run(scan=True)
    assert job.run("prlimit", "--nofile=1024") == (0, "")
    assert all((job.target / name).is_file() for name in names)


def survives(case):
    test, *arguments = case
    (precious := (job := Job(True)).source.parent / "precious").write_bytes(b"mine")
    test(job, *arguments)
    assert precious.read_bytes() == b"mine" and len(os.listdir(job.folder.name)) == 3
    return True


cases = [(spoilt_record, name) for name in RECORDS]
cases += [(obstacle, *case) for case in itertools.product(PLACES, KINDS, (False, True))]
cases += [(large_tree,)] if sys.argv[2:] == ["all"] else []
sys.exit(not sweep("hostile trees", survives, cases))
