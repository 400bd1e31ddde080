"""The guest's kernel, its modules and a static busybox: Debian's own packages, fetched and unpacked
once into a cache directory, never installed."""

import glob
import lzma
import os
import re
import shutil
import subprocess
import tempfile

# What the guest loads, by file name; what these need in turn is found by their dependencies.
FIRST_MODULES = ("virtio_pci", "9pnet_virtio", "9p", "overlay", "virtio_console")
LATER_MODULES = ("i2c-dev", "i2c-stub", "i2c-i801", "lm75", "e1000")
FOLDERS = ("net/9p", "fs/9p", "fs/netfs", "fs/fscache", "fs/overlayfs", "drivers/char",
           "drivers/virtio", "drivers/i2c", "drivers/hwmon", "drivers/base/regmap",
           "drivers/net/ethernet/intel/e1000")
METAPACKAGE = "linux-image-amd64"


class Unavailable(Exception):
    """The packages cannot be had here; no fault of what is tested."""


def run(*command, cwd=None):
    return subprocess.run(command, cwd=cwd, capture_output=True, text=True, check=False)


def cache_directory():
    base = os.environ.get("XDG_CACHE_HOME") or os.path.expanduser("~/.cache")
    return os.environ.get("TARN_VM_CACHE") or os.path.join(base, "tarn-vm")


def _newest_kernel():
    """The package that the metapackage of the machine's lists stands for."""
    found = re.search(r"^\s*Depends: (linux-image-\d\S+)$",
                      run("apt-cache", "depends", METAPACKAGE).stdout, re.MULTILINE)
    return found[1] if found else None


def _download(directory):
    """Fetches the packages; returns their files, the kernel's first."""
    if not shutil.which("apt-get"):
        raise Unavailable("there is no apt-get here")
    # A machine that has never asked knows of no packages.
    if not _newest_kernel() and os.geteuid() == 0:
        run("apt-get", "update", "-q")
    package = _newest_kernel()
    if not package:
        raise Unavailable(f"the package lists know no {METAPACKAGE}; apt-get update may help")
    for name in (package, "busybox-static"):
        done = run("apt-get", "download", "-q", name, cwd=directory)
        if done.returncode != 0:
            said = done.stderr.strip().splitlines() or [f"exit code {done.returncode}"]
            raise Unavailable(f"apt-get cannot download {name}: {said[-1]}")
    return (glob.glob(os.path.join(directory, f"{package}_*.deb"))[0],
            glob.glob(os.path.join(directory, "busybox-static_*.deb"))[0])


def _unpack(package, wanted, directory):
    """Writes those files of a package that one of the patterns fits."""
    with subprocess.Popen(["dpkg-deb", "--fsys-tarfile", package],
                          stdout=subprocess.PIPE) as content:
        subprocess.run(["tar", "-x", "-C", directory, "--wildcards", *wanted],
                       stdin=content.stdout, check=True)
        content.stdout.read()


def _unpack_kernel(image):
    """The ELF file inside a compressed kernel image: QEMU starts it at once, where the image would
    first unpack itself on an emulated processor."""
    with open(image, "rb") as file:
        content = file.read()
    return lzma.LZMADecompressor().decompress(content[content.index(b"\xfd7zXZ\x00"):])


class Kernel:
    """An unpacked kernel in the cache."""

    def __init__(self, directory):
        self.directory = directory
        self.image = os.path.join(directory, "vmlinux")
        self.busybox = os.path.join(directory, "bin", "busybox")
        self.version = os.path.basename(glob.glob(os.path.join(directory, "lib/modules/*"))[0])

    def modules(self, *names):
        """Paths of the modules and of all that they need, in the order in which to load them."""
        paths = []
        for name in names:
            done = run("modprobe", "-d", self.directory, "-S", self.version, "--show-depends",
                       name)
            if done.returncode != 0:
                raise RuntimeError(f"kernel module {name}: {done.stderr.strip()}")
            for line in done.stdout.splitlines():
                word = line.split()
                if word[0] == "insmod" and word[1] not in paths:
                    paths.append(word[1])
        return paths


def prepare():
    """The kernel from the cache, after fetching it if it is not there. The cache is good until
    somebody removes it."""
    cache = cache_directory()
    ready = os.path.join(cache, "guest")
    if os.path.isdir(ready):
        return Kernel(ready)
    os.makedirs(cache, exist_ok=True)
    with tempfile.TemporaryDirectory(dir=cache) as work:
        kernel, busybox = _download(work)
        made = os.path.join(work, "guest")
        os.mkdir(made)
        _unpack(kernel, ["./boot/vmlinuz-*", "./lib/modules/*/modules.order",
                         "./lib/modules/*/modules.builtin*",
                         *(f"./lib/modules/*/kernel/{folder}/*.ko" for folder in FOLDERS)], made)
        _unpack(busybox, ["./bin/busybox"], made)
        image = glob.glob(os.path.join(made, "boot", "vmlinuz-*"))[0]
        with open(os.path.join(made, "vmlinux"), "wb") as file:
            file.write(_unpack_kernel(image))
        version = os.path.basename(glob.glob(os.path.join(made, "lib/modules/*"))[0])
        subprocess.run(["depmod", "-b", made, version], check=True)
        try:
            os.rename(made, ready)
        except OSError:
            # Somebody else was faster.
            if not os.path.isdir(ready):
                raise
    return Kernel(ready)
