"""A virtual machine with the devices that the cases need, and the ways to talk to it."""

import json
import os
import queue
import re
import shlex
import socket
import stat
import subprocess
import threading
import time

import kernel

QEMU = "qemu-system-x86_64"
HERE = os.path.dirname(os.path.abspath(__file__))

# With an environment of its own, so that a case sees no more of the host than its files.
START = ("exec env -i PATH=/usr/local/sbin:/usr/local/bin:/usr/sbin:/usr/bin:/sbin:/bin HOME=/root "
         "LANG=C.UTF-8 python3 -B")

# Where devices are plugged in; guest/setting.py has the same numbers.
SLOTS = {"edu": 5, "shared": 6, "card": 7}
CARD_ADDRESS = "52:54:00:12:34:56"
SHARED_SIZE = 1 << 20

# QEMU's line for an access of memory that a device answers for.
ACCESS = re.compile(r"memory_region_ops_(?P<what>read|write) .* addr (?P<at>0x\w+) "
                    r"value (?P<value>0x\w+) size (?P<size>\d+) name '(?P<name>[^']*)'")


def archive(files):
    """An initramfs: a cpio archive of (path, mode, content)."""
    out = bytearray()

    def add(path, mode, content):
        name = path.encode() + b"\0"
        numbers = (len(out) + 1, mode, 0, 0, 1, 0, len(content), 0, 0, 0, 0, len(name), 0)
        out.extend(b"070701" + b"".join(b"%08x" % number for number in numbers) + name)
        out.extend(bytes(-len(out) % 4))
        out.extend(content)
        out.extend(bytes(-len(out) % 4))

    for path, mode, content in files:
        add(path, mode, content)
    add("TRAILER!!!", 0, b"")
    return bytes(out)


def initramfs(guest_kernel, setting):
    """What the guest starts from; `setting` is for the cases."""
    def content(path):
        with open(path, "rb") as file:
            return file.read()

    modules = f"lib/modules/{guest_kernel.version}"
    first = guest_kernel.modules(*kernel.FIRST_MODULES)
    files = [(folder, stat.S_IFDIR | 0o755, b"") for folder in
             ("bin", "dev", "proc", "sys", "lib", "lib/modules", modules, "first", "host", "new",
              "upper")]
    files.append(("init", stat.S_IFREG | 0o755, content(os.path.join(HERE, "guest", "init"))))
    files.append(("bin/busybox", stat.S_IFREG | 0o755, content(guest_kernel.busybox)))
    runner = shlex.quote(os.path.join(HERE, "guest", "runner.py"))
    files.append(("start", stat.S_IFREG | 0o755,
                  f"#!/bin/sh\n{START} {runner}\n".encode()))
    files.append(("setting.json", stat.S_IFREG | 0o644, json.dumps(setting).encode()))
    # Numbered, as the order in which they can be loaded.
    for number, path in enumerate(first):
        files.append((f"first/{number:02}-{os.path.basename(path)}", stat.S_IFREG | 0o644,
                      content(path)))
    # The others go where modprobe looks for them.
    source = os.path.join(guest_kernel.directory, modules)
    for path in guest_kernel.modules(*kernel.LATER_MODULES):
        name = os.path.relpath(path, source)
        folder = modules
        for part in os.path.dirname(name).split(os.sep):
            folder = f"{folder}/{part}"
            if (folder, stat.S_IFDIR | 0o755, b"") not in files:
                files.append((folder, stat.S_IFDIR | 0o755, b""))
        files.append((f"{modules}/{name}", stat.S_IFREG | 0o644, content(path)))
    for name in sorted(os.listdir(source)):
        if name.startswith("modules."):
            files.append((f"{modules}/{name}", stat.S_IFREG | 0o644,
                          content(os.path.join(source, name))))
    return archive(files)


def connect(directory, name, process, deadline):
    """Connects to a socket that the process makes, by a path that is short wherever it is."""
    folder = os.open(directory, os.O_PATH)
    try:
        client = socket.socket(socket.AF_UNIX, socket.SOCK_STREAM)
        while True:
            try:
                client.connect(f"/proc/self/fd/{folder}/{name}")
                return client
            except (FileNotFoundError, ConnectionRefusedError):
                if process.poll() is not None or time.monotonic() > deadline:
                    raise
                time.sleep(0.05)
    finally:
        os.close(folder)


class Lines:
    """Lines of JSON over a Unix socket. What comes waits in `arrived`; None is the end."""

    def __init__(self, connected):
        self.socket = connected
        self.arrived = queue.Queue()
        threading.Thread(target=self._read, daemon=True).start()

    def _read(self):
        try:
            with self.socket.makefile("rb") as stream:
                for line in stream:
                    self.arrived.put(json.loads(line))
        except (OSError, ValueError) as error:
            self.arrived.put({"broken": str(error)})
        self.arrived.put(None)

    def send(self, document):
        self.socket.sendall(json.dumps(document).encode() + b"\n")

    def close(self):
        self.socket.close()


class Monitor:
    """QEMU's own command channel."""

    def __init__(self, connected, deadline):
        self.deadline = deadline
        self.lines = Lines(connected)
        self.events = []
        self._next()  # the greeting
        self.do("qmp_capabilities")

    def _next(self):
        document = self.lines.arrived.get(timeout=max(0, self.deadline - time.monotonic()))
        if document is None:
            raise RuntimeError("QEMU has closed its command channel")
        return document

    def do(self, command, **arguments):
        self.lines.send({"execute": command, "arguments": arguments})
        while True:
            answer = self._next()
            if "return" in answer:
                return answer["return"]
            if "error" in answer:
                raise RuntimeError(f"{command}: {answer['error']['desc']}")
            self.events.append(answer)

    def await_event(self, name, **data):
        """Waits for an event, which may have come before."""
        while True:
            for event in self.events:
                if event.get("event") == name and data.items() <= event["data"].items():
                    self.events.remove(event)
                    return
            self.events.append(self._next())


class Machine:
    """One boot. `directory` gets its files: the console's log, and what QEMU says."""

    def __init__(self, guest_kernel, directory, setting, deadline):
        self.directory = directory
        self.deadline = deadline
        self.shared = os.path.join(directory, "shared-memory")
        self.trace = os.path.join(directory, "accesses.log")
        self.memories = 1
        with open(self.shared, "wb") as file:
            file.truncate(SHARED_SIZE)
        with open(self._path("initramfs"), "wb") as file:
            file.write(initramfs(guest_kernel, setting))
        self.console = self._path("console.log")
        self.said = open(self._path("qemu.log"), "wb")
        self.process = subprocess.Popen(
            self._command(guest_kernel), stdin=subprocess.DEVNULL, stdout=self.said,
            stderr=subprocess.STDOUT, cwd=directory)
        try:
            self.monitor = Monitor(connect(directory, "monitor", self.process, deadline), deadline)
            self.port = Lines(connect(directory, "port", self.process, deadline))
        except BaseException:
            self.close()
            raise

    def _path(self, name):
        return os.path.join(self.directory, name)

    def _command(self, guest_kernel):
        # Its files by names in its directory, whatever characters are in the path there. It ends with
        # who started it.
        return [
            "setpriv", "--pdeathsig", "KILL", QEMU, "-machine", "q35", "-accel", "tcg", "-cpu", "max", "-smp", "1", "-m", "1024",
            "-nodefaults", "-no-user-config", "-display", "none", "-no-reboot",
            "-kernel", guest_kernel.image, "-initrd", "initramfs",
            "-append", "console=ttyS0 panic=-1 mitigations=off",
            "-serial", "file:console.log", "-D", "accesses.log",
            "-qmp", "unix:monitor,server=on,wait=off",
            "-chardev", "socket,id=port,path=port,server=on,wait=off",
            "-device", "virtio-serial-pci", "-device", "virtserialport,chardev=port,name=tarn",
            "-fsdev", "local,id=host,path=/,security_model=none,readonly=on,multidevs=remap",
            "-device", "virtio-9p-pci,fsdev=host,mount_tag=host",
            "-device", "isa-debug-exit,iobase=0xf4,iosize=1",
            *(part for name, slot in SLOTS.items() for part in
              ("-device", f"pcie-root-port,id=slot-{name},chassis={slot},slot={slot},"
                          f"addr={slot:#x}")),
            "-object", f"memory-backend-file,id=shared,share=on,mem-path=shared-memory,"
                       f"size={SHARED_SIZE}",
            "-device", self._device_argument("edu"),
            "-device", self._device_argument("shared"),
            "-device", self._device_argument("card"),
        ]

    @staticmethod
    def device(name):
        """The options of a device that can be taken out and put back."""
        return {"id": name, "bus": f"slot-{name}",
                **{"edu": {"driver": "edu"},
                   "shared": {"driver": "ivshmem-plain", "memdev": "shared"},
                   "card": {"driver": "e1000", "mac": CARD_ADDRESS}}[name]}

    def _device_argument(self, name):
        options = self.device(name)
        return ",".join([options.pop("driver"),
                         *(f"{key}={value}" for key, value in options.items())])

    def unplug(self, name):
        """Has the guest let a device go, and takes it out."""
        self.monitor.do("device_del", id=name)
        self.monitor.await_event("DEVICE_DELETED", device=name)

    def plug(self, name):
        """Puts a device back in the slot that it was in."""
        options = self.device(name)
        if name == "shared":
            # QEMU does not survive a memory object that a second device takes.
            self.memories += 1
            options["memdev"] = f"shared-{self.memories}"
            self.monitor.do("object-add", **{
                "qom-type": "memory-backend-file", "id": options["memdev"], "share": True,
                "mem-path": "shared-memory", "size": SHARED_SIZE})
        self.monitor.do("device_add", **options)

    def record(self, wanted):
        """Begins, or ends, noting each access of a device's memory."""
        if wanted:
            self.noted = os.path.getsize(self.trace)
        for name in ("read", "write"):
            self.monitor.do("trace-event-set-state", name=f"memory_region_ops_{name}",
                            enable=wanted)

    def accesses(self, region):
        """What was noted last of a region: (what, address, bytes, value)."""
        with open(self.trace, encoding="ascii") as file:
            file.seek(self.noted)
            return [(found["what"], int(found["at"], 16), int(found["size"]),
                     int(found["value"], 16))
                    for found in ACCESS.finditer(file.read()) if found["name"] == region]

    def wait(self):
        """The exit code of QEMU."""
        return self.process.wait(max(1, self.deadline - time.monotonic()))

    def close(self):
        """Ends it, if it has not ended."""
        if self.process.poll() is None:
            self.process.kill()
            self.process.wait()
        self.said.close()
