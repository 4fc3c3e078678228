#!/usr/bin/env python3
"""Boots the test machine and takes its verdict: machine.py ARCH WORK KERNEL.

Its disks are served from here, over NBD, because only here the order of both is known. Killing a
machine by itself loses what stands in its memory and nothing that a disk was told; here a power cut
also takes from each disk's cache what was written since the last flush: nothing, all, or some of
its 4 KiB blocks.
"""
import concurrent.futures, contextlib, copy, os, random, socket, struct, subprocess, sys
import threading, time

ARCH, WORK, KERNEL = sys.argv[1:]
SEED = int(os.environ.get("SEED", "1"))
CUTS, STATES = 10, 30
QEMU = {"x86_64": ["qemu-system-x86_64", "-cpu", "max"],
        "arm64": ["qemu-system-aarch64", "-M", "virt", "-cpu", "cortex-a72"]}[ARCH]
CONSOLE = {"x86_64": "ttyS0", "arm64": "ttyAMA0"}[ARCH]
MKFS = {"ext4": ["mkfs.ext4", "-q", "-m", "0"], "f2fs": ["mkfs.f2fs", "-q"]}


class Disk:
    """`now` is what the guest reads, `safe` what it has flushed, `cache` the writes in between."""

    def __init__(self, image):
        self.now, self.safe, self.cache = bytearray(image), bytearray(image), []

    def write(self, offset, data):
        self.now[offset:offset + len(data)] = data
        self.cache.append((offset, data))

    def flush(self):
        for offset, data in self.cache:
            self.safe[offset:offset + len(data)] = data
        self.cache = []

    def cut(self, kept, rng):
        """Power off: of the cache, each block is kept with that probability."""
        for offset, data in self.cache:
            for at in range(0, len(data), 4096):
                if rng.random() < kept:
                    block = data[at:at + 4096]
                    self.safe[offset + at:offset + at + len(block)] = block
        self.now, self.cache = bytearray(self.safe), []


class Machine:
    def __init__(self, name, fs):
        self.name, self.fs, self.boots = f"{WORK}/{name}", fs, 0
        self.rng, self.lock = random.Random(f"{SEED} {name}"), threading.Lock()
        image = f"{self.name}.disk"
        with open(image, "wb") as file:
            file.truncate(64 << 20)
        subprocess.run([*MKFS[fs], image], check=True, stdout=subprocess.DEVNULL)
        with open(image, "rb") as file:
            empty = file.read()
        os.remove(image)
        self.disks, self.start, self.log = [Disk(empty), Disk(empty)], None, []

    def command(self, word):
        """The guest's word: from here on events count, or: show me crash state N."""
        if word == b"mark":
            self.start, self.log = copy.deepcopy(self.disks), []
            return
        number = int(word)
        self.disks[:] = self.crash_state(number)

    def crash_state(self, number):
        """What a cut after some event of the record leaves: the worst for one disk, the other, both."""
        disks, log = copy.deepcopy(self.recorded[0]), self.recorded[1]
        for disk, offset, data in log[:len(log) * (number + 1) // STATES]:
            disks[disk].flush() if data is None else disks[disk].write(offset, data)
        for disk, kept in zip(disks, [(1, 0), (0, 1), (.5, .5)][number % 3]):
            disk.cut(kept, self.rng)
        return disks

    def serve(self, listener, index):
        size = 4096 if index == 2 else len(self.disks[index].now)
        with contextlib.suppress(ConnectionError), listener.accept()[0].makefile("rwb") as link:
            link.write(struct.pack(">8sQQI124x", b"NBDMAGIC", 0x420281861253, size, 5))
            link.flush()
            while len(head := link.read(28)) == 28:
                _, _, kind, handle, offset, length = struct.unpack(">IHHQQI", head)
                data = link.read(length) if kind == 1 else None
                with self.lock:
                    if kind == 2 or self.off:
                        return
                    answer = self.handle(index, kind, offset, length, data)
                link.write(struct.pack(">IIQ", 0x67446698, 0, handle) + answer)
                link.flush()

    def handle(self, index, kind, offset, length, data):
        if index == 2:
            if kind == 1:
                self.command(data.split()[0])
            return bytes(length) if kind == 0 else b""
        disk = self.disks[index]
        if kind == 0:
            return disk.now[offset:offset + length]
        disk.flush() if kind == 3 else disk.write(offset, data)
        self.log.append((index, offset, data))
        if self.cut_after and self.start and len(self.log) >= self.cut_after:
            self.off = True
            self.qemu.kill()
        return b""

    def boot(self, job, way=1, cut_after=None):
        """Runs one job; False when the power was cut, and an exception if it did not succeed."""
        self.boots, self.off, self.cut_after = self.boots + 1, False, cut_after
        self.start, self.log = None, []
        words = f"console={CONSOLE} quiet panic=-1 job={job} fs={self.fs} way={way} states={STATES}"
        command = [*QEMU, "-accel", "tcg", "-m", "512", "-nographic", "-no-reboot", "-nic", "none",
                   "-kernel", KERNEL, "-initrd", f"{WORK}/initrd", "-append", words]
        for index in range(3):
            path = f"{self.name}.{index}"
            if os.path.exists(path):
                os.remove(path)
            listener = socket.socket(socket.AF_UNIX)
            listener.bind(path)
            listener.listen()
            threading.Thread(target=self.serve, args=(listener, index), daemon=True).start()
            command += ["-drive", f"file=nbd+unix:///?socket={path},format=raw,if=virtio"]
        console = f"{self.name}.{self.boots}.console"
        with open(console, "wb") as out:
            self.qemu = subprocess.Popen(command, stdin=subprocess.DEVNULL, stdout=out, stderr=out)
        try:
            self.qemu.wait(300)
        except subprocess.TimeoutExpired:
            self.qemu.kill()
        with open(console, errors="replace") as file:
            text = file.read()
        if self.off:
            for disk in self.disks:
                disk.cut(self.rng.choice((0, .5, 1)), self.rng)
        elif "PASS: " not in text:
            raise RuntimeError(text[text.find("FAIL: "):].strip() or f"no verdict, see {console}")
        return not self.off


def moves(fs):
    Machine(f"moves-{fs}", fs).boot("moves")
    return f"{fs}: moved there and back, paused, out of space, with plain and encrypted names"


def power_cuts(fs, way):
    """One undisturbed run is recorded; its crash states are tried, and the same job is cut short."""
    machine = Machine(f"cuts-{fs}-{way}", fs)
    machine.boot("record", way)
    machine.recorded = machine.start, machine.log
    machine.boot("states", way)
    machine.disks = copy.deepcopy(machine.recorded[0])
    events = len(machine.recorded[1])
    cuts = 0
    while cuts < CUTS:
        if machine.boot("resume", way, machine.rng.randint(1, events // CUTS)):
            raise RuntimeError(f"the move ended after {cuts} cuts")
        cuts += 1
    machine.boot("resume", way)
    return (f"{fs} {'encrypt' if way == 1 else 'decrypt'}: {STATES} crash states among {events} "
            f"writes and flushes, {cuts} power cuts in a chain of {cuts + 1} boots")


jobs = [(moves, "ext4")]
if ARCH == "x86_64":
    jobs += [(power_cuts, fs, way) for fs in ("ext4", "f2fs") for way in (1, 2)]
print(f"seed {SEED}", flush=True)
failures = 0
with concurrent.futures.ThreadPoolExecutor(2) as pool:
    runs = [pool.submit(*job) for job in jobs]
    for run in concurrent.futures.as_completed(runs):
        failures += run.exception() is not None
        print(f"FAIL: {run.exception()}" if run.exception() else run.result(), flush=True)
print(f"ecryptfs {ARCH}: {'FAIL' if failures else 'PASS'} ({len(jobs) - failures} of {len(jobs)})")
sys.exit(failures > 0)
