#!/usr/bin/env python3
"""Runs the worker on trees and records that somebody has spoilt.

It must neither hang nor crash nor touch anything outside; without the obstacle a run finishes.

    hostile.py WORKER [all]    "all" adds the large trees
"""
import itertools
import os
import shutil
import subprocess
import sys
from pathlib import Path

from sweep import BYTES, Job

sys.setrecursionlimit(10000)  # to remove the deep tree
HEADER = bytes(64) + b"\n"
# record of the root -> exit status, status line, whether the record is gone afterwards
RECORDS = {BYTES(1000).replace(b"\n", b"") + b"\nlarge\n": (1, "", False),
           b"x" * 10_000_000: (1, "", False),
           b"\xfe" * 64 + b"\nlarge\n": (0, "", True),
           bytes(8) + b"\xff" * 4 + bytes(52) + b"\nlarge\n": (0, "", True),
           HEADER + b"..\nlarge\n": (1, "error crypto -", False),
           HEADER + b"./precious\nlarge\n": (1, "error crypto -22", False),
           HEADER + b"../large\nlarge\n": (1, "error crypto -22", False),
           HEADER + b"\nlarge\n": (0, "", False)}
KINDS = {"link": "../precious", "dangling link": "/nowhere", "device": "/dev/zero"}


def spoilt_record(content, code, status, gone):
    (job := Job(True)).run([])
    (record := job.source / ".ecryptfs_process").write_bytes(content)
    (job.target / "large").rename(job.source / "large")
    (precious := job.source.parent / "precious").write_bytes(b"mine")
    result = job.run([])
    assert result[0] == code and result[1].startswith(status), result
    assert precious.read_bytes() == b"mine" and record.exists() != gone
    job.check(finished=False)


def obstacle(place, kind, scanned):
    job = Job(True)
    (precious := job.source.parent / "precious").write_bytes(b"mine")
    path = {"base": job.source / "large", "record": job.source / ".ecryptfs_process",
            "intermediate": job.target / ".ecryptfs_intermediate_large",
            "stash": job.target / ".large", "target": job.target / "large"}[place]
    path.unlink(missing_ok=True)
    if kind == "pipe":
        os.mkfifo(path)
    elif kind == "directory":
        (path / "inside").mkdir(parents=True)
    else:
        path.symlink_to(KINDS[kind])
    if scanned:
        job.scan()
    code, status = job.run([])
    assert code in (0, 1) and (not status or code == 1), (code, status)
    assert precious.read_bytes() == b"mine"
    if path.is_dir():
        shutil.rmtree(path)
    elif path.is_symlink() or path.is_fifo():
        path.unlink()
    if place != "base":
        job.check(finished=False)
        if place == "record":
            job.scan()  # only here: a new scan would forget a stash
        assert job.run([]) == (0, "") and (job.target / "large").is_file(), "the restart failed"


def deep():
    job, path = Job(True), ""
    for _ in range(1000):
        path += "/d"
        for side in (job.source, job.target):
            os.mkdir(f"{side}{path}")
    Path(f"{job.source}{path}/f").write_bytes(b"deep")
    job.scan()
    assert job.run(["prlimit", "--nofile=1024"]) == (0, "")
    assert Path(f"{job.target}{path}/f").read_bytes() == b"deep"


def many():
    job, names = Job(True), {f"file {number}" for number in range(200_000)}
    for name in names:
        (job.source / name).touch()
    job.scan()
    assert job.run([]) == (0, "") and names <= set(os.listdir(job.target))


places = ("base", "record", "intermediate", "stash", "target")
cases = [(spoilt_record, (content, *expected)) for content, expected in RECORDS.items()]
cases += [(obstacle, case)
          for case in itertools.product(places, ("pipe", "directory", *KINDS), (False, True))]
if sys.argv[2:] == ["all"]:
    cases += [(deep, ()), (many, ())]
failed = 0
for test, arguments in cases:
    try:
        test(*arguments)
    except (AssertionError, subprocess.TimeoutExpired) as problem:
        failed += 1
        print(test.__name__, str(arguments)[:100], problem)
print(f"hostile trees survived {len(cases) - failed}/{len(cases)}")
sys.exit(failed != 0)
