#!/usr/bin/env python3
"""Boots the test machine and takes its verdict: machine.py ARCH RELEASE JOBS WORK KERNEL.

The guest's disks are served from here, over NBD, because only here the order of what both are told
is known. Killing a machine by itself loses what stands in its memory; here a power cut also takes
from each disk what was not flushed: nothing, all of it, or some of the 4 KiB blocks. And a disk can
be made to fail.
"""
import concurrent.futures, contextlib, copy, os, random, socket, struct, subprocess, sys, threading

ARCH, RELEASE, JOBS, WORK, KERNEL = sys.argv[1:]
SEED = os.environ.get("SEED", "1")
SECONDS = 900  # for one boot
QEMU, CONSOLE = {
    "x86_64": (["qemu-system-x86_64", "-cpu", "max"], "ttyS0"),
    "arm64": (["qemu-system-aarch64", "-M", "virt", "-cpu", "cortex-a72"], "ttyAMA0"),
}[ARCH]
FORMATS = {
    "ext4": ["mkfs.ext4", "-q", "-m", "0"],
    "ext4+F": ["mkfs.ext4", "-q", "-m", "0", "-O", "casefold"],
    "f2fs": ["mkfs.f2fs", "-q"],
    "xfs": ["mkfs.xfs", "-q", "--unsupported"],  # so small a disk
    "btrfs": ["mkfs.btrfs", "-q", "--mixed"],
}


class Disk:
    """`now` is what the guest reads, `safe` what it has flushed, `cache` the writes in between."""

    def __init__(self, image):
        self.now, self.safe, self.cache = bytearray(image), bytearray(image), []

    def write(self, offset, data):
        self.now[offset:offset + len(data)] = data
        self.cache += [(offset + at, data[at:at + 4096]) for at in range(0, len(data), 4096)]

    def copy_from(self, other):
        self.now[:], self.safe[:], self.cache = other.now, other.safe, list(other.cache)

    def flush(self):
        for offset, block in self.cache:
            self.safe[offset:offset + len(block)] = block
        self.cache = []

    def cut(self, kept, rng):
        """The power goes: each block of the cache is kept with that probability."""
        self.cache = [write for write in self.cache if rng.random() < kept]
        self.flush()
        self.now[:] = self.safe


class Machine:
    """A machine with its disks. `words` go to the guest on the kernel's command line."""

    def __init__(self, name, fs, size, **words):
        self.name, self.boots = f"{WORK}/{name}", 0
        self.words = words | dict(zip(("fs", "fold"), (*fs.replace("+", " +").split(), "")))
        self.rng, self.lock = random.Random(f"{SEED} {name}"), threading.Lock()
        self.disks = [Disk(self.format(FORMATS[fs], size)) for _ in range(2)]

    def format(self, command, size):
        with open(f"{self.name}.disk", "w+b") as image:
            image.truncate(size << 20)
            subprocess.run([*command, image.name], check=True, stdout=subprocess.DEVNULL)
            return image.read()

    def mark(self):
        """The guest's first word: this is how the job begins. Events count from here on."""
        self.start, self.log, self.steps = copy.deepcopy(self.disks), [], []

    def step(self):
        """One part of the job has ended."""
        self.steps.append(len(self.log))

    def recorded(self):
        """That was the job. What comes after the move may be told more than once."""
        self.record, self.bounds = self.log, [0, *self.steps[:2], len(self.log)]

    def event(self, number, kind):
        """The event that a try belongs to. Each part of the job gets as many of them."""
        part, place = divmod(number * (len(self.bounds) - 1) / self.words[kind], 1)
        first, last = (self.bounds + self.bounds[-1:])[int(part):int(part) + 2]
        return int(first + place * (last - first))

    def back(self):
        self.log = []
        for disk, start in zip(self.disks, self.start):
            disk.copy_from(start)

    def cut(self, number):
        """Makes the disks a crash state of the job."""
        self.back()
        for disk, offset, data in self.record[:self.event(number, "states")]:
            self.disks[disk].flush() if data is None else self.disks[disk].write(offset, data)
        for disk, kept in zip(self.disks, [(1, 0), (0, 1), (.5, .5)][number % 3]):
            disk.cut(kept, self.rng)

    def damage(self, number):
        """Lets a disk fail at an event of the job, every other time for good."""
        self.log, self.fails_at = [], self.event(number, "failures")
        self.for_good = number % 2

    def mend(self):
        self.fails_at, self.broken = 0, None

    def check(self):
        """What an unmounted disk that has failed needs before it is mounted again: after some
        failures ext4 does not look into its journal by itself."""
        if self.words["fs"] == "ext4":
            for disk in self.disks:
                with open(f"{self.name}.disk", "w+b") as image:
                    image.write(disk.now)
                    image.flush()
                    subprocess.run(["e2fsck", "-fy", image.name], check=False,  # 1: it was mended
                                   stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL)
                    image.seek(0)
                    disk.copy_from(Disk(image.read()))

    def handle(self, index, kind, offset, length, data):
        """One request: 0 reads, 1 writes, 3 flushes. Returns what was read; None is an error."""
        if index == 2:
            if kind == 1:
                word, *numbers = data.split(b"\n")[0].split()
                getattr(self, word.decode())(*map(int, numbers))
            return bytes(length) if kind == 0 else b""
        disk = self.disks[index]
        if kind == 0:
            return disk.now[offset:offset + length]
        self.log.append((index, offset, data))
        if len(self.log) == self.fails_at:
            self.broken = index
        if self.broken == index:
            self.broken = index if self.for_good else None
            return None
        disk.flush() if kind == 3 else disk.write(offset, data)
        if self.start and len(self.log) == self.cut_after:
            self.off = True
            self.qemu.kill()
        return b""

    def serve(self, connection, index):
        size = 4096 if index == 2 else len(self.disks[index].now)
        with contextlib.suppress(ConnectionError), connection.makefile("rwb") as link:
            link.write(struct.pack(">8sQQI124x", b"NBDMAGIC", 0x420281861253, size, 5))
            link.flush()
            while len(head := link.read(28)) == 28:
                kind, handle, offset, length = struct.unpack(">6xHQQI", head)
                data = link.read(length) if kind == 1 else None
                with self.lock:
                    if kind == 2 or self.off:
                        return
                    answer = self.handle(index, kind, offset, length, data)
                error = 5 if answer is None else 0
                link.write(struct.pack(">IIQ", 0x67446698, error, handle) + (answer or b""))
                link.flush()

    def boot(self, job, cut_after=None):
        """Runs one job. False when the power was cut first; a job that fails is an exception."""
        self.boots, self.off, self.cut_after = self.boots + 1, False, cut_after
        self.start, self.log = None, []
        self.mend()
        words = [f"{key}={value}" for key, value in {"job": job, **self.words}.items()]
        # A kernel that is emulated on a busy machine may find its timer too slow, and panic.
        line = " ".join([f"console={CONSOLE} quiet panic=-1 no_timer_check", *words])
        command = [*QEMU, "-accel", "tcg", "-m", "512", "-nographic", "-no-reboot", "-nic", "none",
                   "-kernel", KERNEL, "-initrd", f"{WORK}/initrd", "-append", line]
        ends = [socket.socketpair() for _ in range(3)]
        for index, (ours, theirs) in enumerate(ends):
            threading.Thread(target=self.serve, args=(ours, index), daemon=True).start()
            command += ["-drive", "if=virtio,format=raw,file.driver=nbd,file.server.type=fd,"
                                  f"file.server.str={theirs.fileno()}"]
        with open(f"{self.name}.{self.boots}.console", "w+", errors="replace") as console:
            self.qemu = subprocess.Popen(command, stdin=subprocess.DEVNULL, stdout=console,
                                         stderr=console, pass_fds=[end[1].fileno() for end in ends])
            for _, theirs in ends:
                theirs.close()
            try:
                self.qemu.wait(SECONDS)
            finally:
                self.qemu.kill()
            console.seek(0)
            text = console.read()
        if self.off:
            for disk in self.disks:
                disk.cut(self.rng.choice((0, .5, 1)), self.rng)
        elif "PASS: " not in text:
            said = [line for line in text.splitlines() if "FAIL: " in line]
            raise RuntimeError("\n".join([f"see {console.name}", *said]))
        return not self.off


def moves(fs):
    Machine(f"moves-{fs}", fs, 100, runner="worker").boot("moves")
    return f"{fs}: there and back, also by vaultctl, paused, out of space; names plain, encrypted"


def power_cuts(runner, fs, way, names, states, failures, cuts):
    """Records one undisturbed run and tries its crash states, then the same with each disk failing;
    then cuts the same job short, again and again."""
    machine = Machine("-".join((runner, fs, way, names)), fs, 64, runner=runner,
                      states=states, failures=failures, way=1 if way == "encrypt" else 2,
                      encrypt_names=names.replace("plain", ""))
    machine.boot("record")
    tried = [f"{states} crash states among {len(machine.record)} writes and flushes"]
    if failures:
        tried.append(f"{failures} failing writes")
    if cuts:
        machine.disks, parts = machine.start, len(machine.record) // cuts
        for cut in range(cuts):
            if machine.boot("resume", machine.rng.randint(1, parts)):
                raise RuntimeError(f"the move ended after {cut} power cuts")
        machine.boot("resume")
        tried.append(f"{cuts} power cuts in a chain of {cuts + 1} boots")
    return f"{fs}, {runner}, {way}, {names} names: {'; '.join(tried)}"


WAYS = ("encrypt", "decrypt")
# Debian's kernels know upper from lower case as a choice since trixie.
jobs = [(moves, "ext4" if RELEASE in ("bullseye", "bookworm") else "ext4+F")]
if JOBS == "all":
    jobs += [(moves, fs) for fs in ("xfs", "btrfs")]
    jobs += [(power_cuts, "vaultctl", fs, way, "plain", 24, 18, 0)
             for fs in ("ext4", "f2fs") for way in WAYS]
    jobs += [(power_cuts, "undo", fs, way, "plain", 24, 18, 0)
             for fs, way in zip(("ext4", "f2fs"), WAYS)]
    jobs += [(power_cuts, "worker", fs, way, names, 20, 0, 5)
             for fs, names in (("ext4", "plain"), ("f2fs", "plain"), ("ext4", "encrypted"))
             for way in WAYS]
else:
    jobs += [(power_cuts, "vaultctl", "f2fs", "decrypt", "plain", 18, 0, 0),
             (power_cuts, "worker", "ext4", "encrypt", "encrypted", 18, 0, 0)]
jobs = [job for job in jobs if os.environ.get("ONLY", "") in str(job)]
passed = 0
with concurrent.futures.ThreadPoolExecutor(2) as pool:
    for run in concurrent.futures.as_completed([pool.submit(*job) for job in jobs]):
        passed += run.exception() is None
        print(f"FAIL {run.exception()}" if run.exception() else run.result(), flush=True)
verdict = "PASS" if passed == len(jobs) else "FAIL"
print(f"ecryptfs {ARCH} {RELEASE}: {verdict} ({passed} of {len(jobs)} passed, seed {SEED})")
sys.exit(verdict != "PASS")
