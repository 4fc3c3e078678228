#!/usr/bin/env python3
"""Boots the test machine and takes its verdict: machine.py ARCH WORK KERNEL.

The guest's disks are served from here, over NBD, because only here the order of what both are told
is known. Killing a machine by itself loses what stands in its memory; here a power cut also takes
from each disk what was not flushed: nothing, all of it, or some of the 4 KiB blocks.
"""
import concurrent.futures, contextlib, copy, os, random, socket, struct, subprocess, sys, threading

ARCH, WORK, KERNEL = sys.argv[1:]
SEED = os.environ.get("SEED", "1")
CUTS, STATES = 10, 24
QEMU, CONSOLE = {
    "x86_64": (["qemu-system-x86_64", "-cpu", "max"], "ttyS0"),
    "arm64": (["qemu-system-aarch64", "-M", "virt", "-cpu", "cortex-a72"], "ttyAMA0"),
}[ARCH]


class Disk:
    """`now` is what the guest reads, `safe` what it has flushed, `cache` the writes in between."""

    def __init__(self, image):
        self.now, self.safe, self.cache = bytearray(image), bytearray(image), []

    def write(self, offset, data):
        self.now[offset:offset + len(data)] = data
        self.cache += [(offset + at, data[at:at + 4096]) for at in range(0, len(data), 4096)]

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
    def __init__(self, name, fs, way):
        self.name, self.fs, self.way, self.boots = f"{WORK}/{name}", fs, way, 0
        self.rng, self.lock = random.Random(f"{SEED} {name}"), threading.Lock()
        with open(f"{self.name}.disk", "w+b") as image:
            image.truncate(64 << 20)
            subprocess.run([f"mkfs.{fs}", "-q", *(["-m", "0"] if fs == "ext4" else []), image.name],
                           check=True, stdout=subprocess.DEVNULL)
            self.disks = [Disk(image.read()) for _ in range(2) if image.seek(0) == 0]

    def command(self, word):
        """The guest's word: events count from here on, or a number: show me that crash state."""
        if word == b"mark":
            self.marked, self.log = copy.deepcopy(self.disks), []
            return
        self.disks, log = copy.deepcopy(self.recorded[0]), self.recorded[1]
        for disk, offset, data in log[:len(log) * (int(word) + 1) // STATES]:
            self.disks[disk].flush() if data is None else self.disks[disk].write(offset, data)
        for disk, kept in zip(self.disks, [(1, 0), (0, 1), (.5, .5)][int(word) % 3]):
            disk.cut(kept, self.rng)

    def handle(self, index, kind, offset, length, data):
        """One request: 0 reads, 1 writes, 3 flushes. Returns what was read."""
        if index == 2:
            if kind == 1:
                self.command(data.split()[0])
            return bytes(length) if kind == 0 else b""
        disk = self.disks[index]
        if kind == 0:
            return disk.now[offset:offset + length]
        disk.flush() if kind == 3 else disk.write(offset, data)
        self.log.append((index, offset, data))
        if self.marked and len(self.log) == self.cut_after:
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
                link.write(struct.pack(">IIQ", 0x67446698, 0, handle) + answer)
                link.flush()

    def boot(self, job, cut_after=None):
        """Runs one job. False when the power was cut first; a job that fails is an exception."""
        self.boots, self.off, self.cut_after = self.boots + 1, False, cut_after
        self.marked, self.log = None, []
        words = f"job={job} fs={self.fs} way={self.way} states={STATES}"
        command = [*QEMU, "-accel", "tcg", "-m", "512", "-nographic", "-no-reboot", "-nic", "none",
                   "-kernel", KERNEL, "-initrd", f"{WORK}/initrd",
                   "-append", f"console={CONSOLE} quiet panic=-1 {words}"]
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
                self.qemu.wait(300)
            finally:
                self.qemu.kill()
            console.seek(0)
            text = console.read()
        if self.off:
            for disk in self.disks:
                disk.cut(self.rng.choice((0, .5, 1)), self.rng)
        elif "PASS: " not in text:
            raise RuntimeError(text[text.find("FAIL: "):] or f"no verdict, see {console.name}")
        return not self.off


def moves(fs):
    Machine(f"moves-{fs}", fs, 1).boot("moves")
    return f"{fs}: there and back, also by vaultctl, paused, out of space; plain and encrypted names"


def power_cuts(fs, way):
    """Records one undisturbed run and tries its crash states; then cuts the same job short."""
    machine = Machine(f"cuts-{fs}-{way}", fs, way)
    machine.boot("record")
    machine.recorded = start, log = machine.marked, machine.log
    machine.boot("states")
    machine.disks = copy.deepcopy(start)
    for cut in range(CUTS):
        if machine.boot("resume", machine.rng.randint(1, len(log) // CUTS)):
            raise RuntimeError(f"the move ended after {cut} power cuts")
    machine.boot("resume")
    return (f"{fs} {'encrypt' if way == 1 else 'decrypt'}: {STATES} crash states among {len(log)} "
            f"writes and flushes; {CUTS} power cuts in a chain of {CUTS + 1} boots")


jobs = [(moves, "ext4")]
if ARCH == "x86_64":
    jobs += [(power_cuts, fs, way) for fs in ("ext4", "f2fs") for way in (1, 2)]
passed = 0
with concurrent.futures.ThreadPoolExecutor(2) as pool:
    for run in concurrent.futures.as_completed([pool.submit(*job) for job in jobs]):
        passed += run.exception() is None
        print(f"FAIL {run.exception()}" if run.exception() else run.result(), flush=True)
verdict = "PASS" if passed == len(jobs) else "FAIL"
print(f"ecryptfs {ARCH}: {verdict} ({passed} of {len(jobs)} passed, seed {SEED})")
sys.exit(verdict != "PASS")
