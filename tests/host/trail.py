#!/usr/bin/env python3
"""A job of vaultctl never loses its trail: its records spoilt, its trees changed by others during a
pause, and owners, modes, attributes and times refused. What vaultctl names must lead on, and no
file be lost.

    trail.py VAULTCTL WORKER [STRIDE]    only every STRIDE-th of what is spoilt or changed
"""
import os
import re
import shutil
import sys

from jobs import ACL, FILES, WAYS, Job, sweep

def put(path, data=b"somebody's"):
    path.write_bytes(data)


def change(path, old, new):
    data = path.read_bytes()
    assert old in data, data
    path.write_bytes(data.replace(old, new))


def cut(path, size):
    os.truncate(path, size)


def change_summed(path, old, new):
    """In a manifest, which sums up again."""
    change(path, old, new)
    *lines, _ = path.read_bytes().splitlines(True)
    total = 0xcbf29ce484222325
    for byte in b"".join(lines):
        total = (total ^ byte) * 0x100000001b3 % 2**64
    put(path, b"".join(lines) + b"end %d %016x\n" % (len(lines), total))


RECORD, MARK, MANIFEST = ".ecryptfs_job", ".ecryptfs_mark", ".ecryptfs_manifest"
LIST = ".ecryptfs_process"
# What is spoilt while a job is paused, and what repairs it: "" or "--as-it-is". Then the job's own
# command must be refused, and after the repair finish.
SPOILT = {
    "state": (lambda job: change(job.plain / RECORD, b"moving", b"movinh"), ""),
    "direction": (lambda job: change(job.plain / RECORD, b"crypt", b"drypt"), ""),
    "format": (lambda job: change(job.plain / RECORD, b'"format":1', b'"format":2'), ""),
    "member": (lambda job: change(job.plain / RECORD, b'"bytes"', b'"bites"'), ""),
    "record cut": (lambda job: cut(job.plain / RECORD, 20), ""),
    "record empty": (lambda job: cut(job.plain / RECORD, 0), ""),
    "record gone": (lambda job: (job.plain / RECORD).unlink(), ""),
    "record and mark gone": (lambda job: [(job.plain / RECORD).unlink(),
                                          (job.encrypted / MARK).unlink()], ""),
    "mark gone": (lambda job: (job.encrypted / MARK).unlink(), ""),
    "mark of another": (lambda job: put(job.encrypted / MARK), ""),
    "list garbage": (lambda job: put(job.source / LIST), ""),
    "list empty": (lambda job: cut(job.source / LIST, 0), ""),
    "list cut": (lambda job: cut(job.source / LIST, 66), ""),
    "list gone": (lambda job: (job.source / LIST).unlink(), ""),
    "manifest gone": (lambda job: (job.plain / MANIFEST).unlink(), "--as-it-is"),
    "manifest empty": (lambda job: cut(job.plain / MANIFEST, 0), "--as-it-is"),
    "manifest cut": (lambda job: cut(job.plain / MANIFEST, (  # between two lines
        job.plain / MANIFEST).read_bytes().rindex(b"\nf ") + 1), "--as-it-is"),
    "manifest spoilt": (lambda job: change(job.plain / MANIFEST, b"uid=", b"uid=1"), "--as-it-is"),
    "manifest line": (lambda job: change_summed(job.plain / MANIFEST, b" gid=", b" gid=x"),
                      "--as-it-is"),
    "manifest longer": (lambda job: change(job.plain / MANIFEST, b"end ", b"end 0"), "--as-it-is"),
    "manifest of another": (lambda job: (other := Job().pause()) and put(
        job.plain / MANIFEST, (other.plain / MANIFEST).read_bytes()), "--as-it-is"),
}


def spoil(case):
    (name, (spoilt, option)), way = case
    spoilt(job := WAYS[way]().pause())
    sides = [job.snapshot(side) for side in (job.plain, job.encrypted)]
    status, said = job.run()
    assert status == 2 and str(job.plain) in said, f"not refused: {said}"
    if option:
        status, said = job.run("repair")
        assert status == 2 and option in said, f"repaired without a word: {said}"
    assert sides == [job.snapshot(side) for side in (job.plain, job.encrypted)], "it was touched"
    status, said = job.run("repair", *option.split())
    assert status == 0 and f"vaultctl {job.word} " in said, f"not repaired: {said}"
    job.finish(metadata=not option)


NEXT = "a/x"  # which waits, untouched, while a job is paused


def dotted(path):
    return path.with_name(f".{path.name}")


def bring_next(job):
    put(job.source / NEXT, FILES[NEXT])
    os.utime(job.source / NEXT, ns=(0, job.before[NEXT][3]))


# What others do during a pause, whether that is refused, and what leads on: their undoing it, or
# "repair --as-it-is" with what NEXT is then, or None for gone.
MEANWHILE = {
    "a stranger's copy": (lambda job: put(dotted(job.target / NEXT)), True,
                          lambda job: dotted(job.target / NEXT).unlink()),
    "one of the same size": (lambda job: put(dotted(job.target / NEXT),
                                             FILES[NEXT][:-1] + b"y"), True,
                             lambda job: dotted(job.target / NEXT).unlink()),
    "name taken": (lambda job: put(job.target / NEXT), True,
                   lambda job: (job.target / NEXT).unlink()),
    "changed": (lambda job: put(job.source / NEXT), True, b"somebody's"),
    "changed beside its copy": (lambda job: [put(dotted(job.target / NEXT), FILES[NEXT]),
                                             put(job.source / NEXT, b"y" * 70000)], True,
                                bring_next),
    "touched": (lambda job: os.utime(job.source / NEXT), True, FILES[NEXT]),
    "gone": (lambda job: (job.source / NEXT).unlink(), True, None),
    "list longer": (lambda job: put(job.source / "a" / LIST,
                                    (job.source / "a" / LIST).read_bytes() + b"late\n"),
                    True, FILES[NEXT]),
    "a count in which a line ends": (lambda job: change(
        job.source / "a" / LIST, bytes(64) + b"\n",
        bytes(9) + b"\n" + bytes(54) + b"\n" + b"done\n" * 2560), False, None),
    "its copy cut short": (lambda job: [put(dotted(job.target / NEXT), FILES[NEXT][:9]),
                                        (job.source / NEXT).unlink()], True,
                           lambda job: [dotted(job.target / NEXT).unlink(), bring_next(job)]),
    "its copy": (lambda job: put(dotted(job.target / NEXT), FILES[NEXT]), False, None),
    "its twin": (lambda job: put(job.target / NEXT, FILES[NEXT]), False, None),
}


def meddle(case):
    (_, (deed, refused, way)), kind = case
    deed(job := WAYS[kind]().pause())
    if not refused:
        return job.finish()
    sides = [job.snapshot(side) for side in (job.plain, job.encrypted)]
    status, said = job.run()
    assert status == 2 and str(job.plain) in said, f"not refused: {said}"
    assert sides == [job.snapshot(side) for side in (job.plain, job.encrypted)], "it was touched"
    if callable(way):
        way(job)
        return job.finish()
    status, said = job.run("repair", "--as-it-is")
    assert status == 0, f"not repaired: {said}"
    status, said = job.run()
    assert status == 0, f"it does not finish: {said}"
    found = {str(path.relative_to(job.target)): path.read_bytes()
             for path in job.target.rglob("*") if path.is_file()}
    expected = {**FILES, NEXT: way}
    assert found == {name: data for name, data in expected.items() if data is not None}, found
    return None


def refuse_to_put_back(case):
    """What the file system refuses to put back is said until somebody gives it up."""
    call, encrypt = case
    job = Job(encrypt)
    for which in (":when=8+", ""):  # not yet those of the directories that are made
        status, said, _ = job.traced(call, "error=EPERM" + which)
        assert status == 1 and "box/a/b/" in said.replace("_enc", ""), said
        assert "vaultctl forget" in said, said
    assert str(job.target / "a/b") in job.run("status")[1]
    status, said = job.run("forget")
    assert status == 2 and str(job.target / "a/b") in said and "--yes" in said, said
    status, said = job.run("forget", "--yes")
    assert status == 0 and "No job" in job.run("status")[1], said
    job.check(metadata=False)


def lend_no_rights(case):
    """What may not be the file that had set-ID bits gets none until it is for certain."""
    other_bytes, encrypt = case
    job = Job(encrypt).pause(10)
    place = job.target / "N"
    with place.open("r+b") as held:
        if other_bytes:
            held.write(b"of M")
            held.close()
        status, said = job.run()
    assert status == 1 and f"{place}: set-ID bits" in said, said
    assert place.stat().st_mode & 0o7777 == 0o755, oct(place.stat().st_mode)
    put(place, FILES["N"])
    job.finish()


def leave_no_attribute_unsaid(encrypt):
    """What the target does not take of attributes and links is refused, or dropped by word."""
    job = Job(encrypt)
    status, said, _ = job.traced("symlinkat", "error=EPERM")
    assert status == 2 and f"{job.source}/..N is a symbolic link that" in said, said
    status, said, _ = job.traced("fsetxattr", "error=EOPNOTSUPP")
    assert status == 2 and f"{job.source}/a/x has attributes" in said, said
    drop = job.word, "--allow-plain", "--drop-attributes"
    status, said, _ = job.traced("fsetxattr", "error=EOPNOTSUPP", *drop)
    assert status == 0 and "which the target does not take: trusted.of" in said, said
    assert (job.target / "a/x").stat().st_mode & 0o7777 == 0o700, "the group got the mask's rights"


def hand_down_nothing(encrypt):
    """What a directory of the target hands down lets nobody in, then or later."""
    job = Job(encrypt)
    for name in ("a", "a/b"):
        (job.target / name).mkdir(parents=True, exist_ok=True)
        os.setxattr(job.target / name, "system.posix_acl_default", ACL)
        os.chown(job.target / name, *job.before[name][1:3])
    job.pause(10)
    files = [path for path in job.target.rglob("*") if path.is_file()]
    assert files and not [path for path in files if path.stat().st_mode & 0o77], files
    job.finish()


def know_whom(encrypt):
    """A namespace that does not map the owners shows another one, who must not get the files."""
    status, said = Job(encrypt).run(wrapper=("unshare", "--user", "--map-root-user"))
    assert status == 2 and "only root could give it back to" in said, said


def fall_short(way):
    """A file that has gone after it had arrived is missed, with where it was last seen."""
    job = WAYS[way]().pause(10)
    (job.target / NEXT).unlink()
    for _ in range(2):
        status, said = job.run()
        assert status == 1 and f"{job.target / NEXT} is not there" in said, said
        assert str(job.source / NEXT) in said and "lost" not in said, said
    put(job.target / NEXT, FILES[NEXT])
    job.finish()


def bring_back(encrypt):
    """A directory that was away while links were moved; its files still need their names."""
    job = Job(encrypt).pause(1)
    (job.source / "a").rename(aside := job.plain.parent / "aside")
    status, said = job.run()
    assert status == 1 and f"{job.target / NEXT} is not there" in said, said
    assert os.readlink(dotted(job.target / NEXT)) == "/", "a link's own name"
    aside.rename(job.source / "a")
    job.finish()


def make_directories_again(encrypt):
    """They have gone from the target before the first file has arrived there."""
    job = Job(encrypt).pause(1)
    shutil.rmtree(job.target / "a")
    job.finish()


def build_on_no_sand(way):
    """A file system that takes no changes any more may show what is not on the disk."""
    for root, *words in (1,), (2,), (1, "repair"), (2, "repair"):
        job = WAYS[way]().pause()
        sides = [job.snapshot(side) for side in (job.plain, job.encrypted)]
        status, said, _ = job.traced("fremovexattr", f"error=EROFS:when={root}", *words)
        assert status == 1 and "cannot sync" in said, said
        assert sides == [job.snapshot(side) for side in (job.plain, job.encrypted)], "it went on"
        job.finish()


def miss_no_file(encrypt):
    """A listing that fails is not taken for one that has come to its end."""
    lines = re.findall(r"^getdents64.*", Job(encrypt).traced("getdents64", "")[2], re.MULTILINE)
    first = next(n for n, line in enumerate(lines, 1) if "/a>" in line)
    status, said, _ = (job := Job(encrypt)).traced("getdents64", f"error=EIO:when={first}")
    assert status != 0 and str(job.source / "a") in said, said
    job.finish()


def keep_order(encrypt):
    """Nothing is built upon, or given up, before all that it needs is on the disk."""
    job, due, synced, road = Job(encrypt), set(), set(), [""]
    folders = [job.source, job.source / "a", job.source / "a/b"]
    # A sync of everything reports nothing, and one of what has not changed may not either.
    sound = {f"{side} takes changes" for side in (job.source, job.target)}
    needed = {"moving": {*map(str, folders), *(str(path / LIST) for path in folders),
                         f"{job.source} takes changes"},
              "unlinkat ..N": {f"{job.target} takes changes"}, "closing": sound}
    status, said, trace = job.traced("write,fsync,sync,renameat,unlinkat,mkdir,mkdirat,symlinkat,"
                                     "fchown,fchmod,fsetxattr,fremovexattr,utimensat", "")
    for call, place, rest in re.findall(r"^(\w+)\((?:[^<(\n]*<(.*?)>)?(.*)\) += (?:\d+|.*ENODATA.*|"
                                        r".*EOPNOTSUPP.*)$", trace, re.MULTILINE):
        if ".ecryptfs_names" in place + rest:
            continue  # only a trial
        names, step = re.findall('"(.*?)"', rest), None
        if call == "write" and RECORD in place:
            step = re.search(r'state\\":\\"(\w+)', rest)[1]
        elif call == "unlinkat" or (call == "renameat" and names[1] in (MARK, MANIFEST)):
            step = f"{call} {names[-1]}"
        if step:
            assert not due and needed.pop(step, set()) <= synced, f"{step} before {due}"
            road += [step] if step != road[-1] else []
            synced.clear()
        # What makes a root's owner and mode last; others' while files arrive are made to be so.
        arrived = "restoring" in road and "closing" not in road
        if call == "fsync":
            due.discard(place)
            synced.add(place)
        elif call == "sync":
            due.clear()
            synced.clear()
        elif call == "fremovexattr" and "none" in rest:
            synced.add(f"{place} takes changes")
        elif call == "renameat":
            assert f"{place}/{names[0]}" not in due, f"{names[0]} is not synced"
            due.add(place)
        elif call in ("unlinkat", "mkdir", "mkdirat", "symlinkat") or place.endswith(".new"):
            due.add(place or str(job.plain.parent))
        elif f"{place}/".startswith(f"{job.target}/") if arrived else call == "fchown" and (
                place == str(job.target)):
            due.add(place)
    links = [f"unlinkat {name}" for name in ("..N", ".x", "y")]
    assert (status, due, road[1:]) == (0, set(), [
        "preparing", f"renameat {MARK}", f"renameat {MANIFEST}", "preparing", "moving",
        "restoring", *links, "closing", *(f"unlinkat {name}" for name in (MANIFEST, MARK, RECORD))
    ]), f"{due}, {road}: {said}"


def main():
    ways = (True, False)
    stride = int(sys.argv[3]) if len(sys.argv) > 3 else 1
    sound = [
        sweep("spoilt records", spoil,
              [(row, way) for row in SPOILT.items() for way in WAYS][::stride]),
        sweep("changes during a pause", meddle,
              [(row, way) for row in MEANWHILE.items() for way in WAYS][::stride]),
        sweep("refusals to put back", refuse_to_put_back,
              [(call, way) for call in ("fchown", "fchmod", "utimensat") for way in ways]),
        sweep("lent rights", lend_no_rights, [(way, other) for way in ways for other in ways]),
        sweep("attributes that are not taken", leave_no_attribute_unsaid, ways),
        sweep("lists that are handed down", hand_down_nothing, ways),
        sweep("owners who are not known", know_whom, ways),
        sweep("directories that are back", bring_back, ways),
        sweep("files that have gone", fall_short, WAYS),
        sweep("directories that have gone", make_directories_again, ways),
        sweep("file systems that have failed", build_on_no_sand, WAYS),
        sweep("listings", miss_no_file, ways),
        sweep("orders", keep_order, ways)]
    return all(sound)


if __name__ == "__main__":
    sys.exit(not main())
