#!/usr/bin/env python3
"""Runs what was built against devices that are not ours, in a virtual machine with Debian's kernel.

    vm_test.py BUILD_DIRECTORY [CASE...]     cases by pattern, as '*Words*'; by default all

Prints a line for each case. Exit code 0: all passed, or no machine can be had here, which a line
says that begins with "skipped"; 1: something went wrong. Logs stay in BUILD_DIRECTORY/vm.
"""

import argparse
import ast
import fnmatch
import os
import queue
import shutil
import signal
import struct
import sys
import time
import traceback

sys.path.insert(0, os.path.dirname(os.path.abspath(__file__)))
# Where Debian keeps tools that are not only for root.
os.environ["PATH"] = os.environ.get("PATH", "") + ":/usr/sbin:/sbin"

import kernel  # noqa: E402
import machine  # noqa: E402

BOOTS = {"devices": ["case_stub", "case_eeprom", "case_pci", "case_shadow"],
         "loss": ["case_loss", "case_bus"]}
PROGRAMS = ("tarnreg", "nimbod", "tarn-shadowd", "vm_register_client", "shadow_client")
TOOLS = {"qemu-system-x86_64": "qemu-system-x86", "depmod": "kmod", "modprobe": "kmod",
         "i2cget": "i2c-tools", "dpkg-deb": "dpkg", "setpriv": "util-linux"}

# Seconds for one boot with its cases. An idle machine needs a small part of them.
PATIENCE = int(os.environ.get("VM_PATIENCE", "1200"))
GOOD_EXIT = 0x10 << 1 | 1


def cases_of(module, patterns):
    """The cases of a module of the guest's, in its order."""
    with open(os.path.join(machine.HERE, "guest", f"{module}.py"), encoding="utf-8") as file:
        tree = ast.parse(file.read())
    names = [f"{module}.{group.name}.{case.name}"
             for group in tree.body if isinstance(group, ast.ClassDef)
             for case in group.body
             if isinstance(case, ast.FunctionDef) and case.name.startswith("test")]
    return [name for name in names
            if not patterns or any(fnmatch.fnmatchcase(name, each) for each in patterns)]


class Boot:
    """The cases of one boot."""

    def __init__(self, name, cases, options, guest_kernel):
        self.name = name
        self.waiting = list(cases)
        self.failed = []
        self.passed = 0
        self.directory = os.path.join(options.build, "vm", name)
        self.setting = {"bin": os.path.join(options.build, "bin"), "cases": cases}
        self.kernel = guest_kernel

    def run(self):
        shutil.rmtree(self.directory, ignore_errors=True)
        os.makedirs(self.directory)
        deadline = time.monotonic() + PATIENCE
        print(f"-- {self.name}: console in {os.path.join(self.directory, 'console.log')}",
              flush=True)
        self.machine = machine.Machine(self.kernel, self.directory, self.setting, deadline)
        try:
            if self._serve(deadline):
                code = self.machine.wait()
                if (code == GOOD_EXIT) != (not self.failed):
                    self._fail(f"the machine's exit code {code} is not that of its cases")
        except Exception:
            self._fail(traceback.format_exc())
        finally:
            self.machine.close()
        if self.failed:
            self._show_console()

    def _serve(self, deadline):
        """Does what the guest asks for until its end; whether that came."""
        while True:
            try:
                document = self.machine.port.arrived.get(
                    timeout=max(0, deadline - time.monotonic()))
            except queue.Empty:
                self._fail(f"not done after {PATIENCE} s")
                return False
            if document is None:
                self._fail("the machine ended before its cases")
                return False
            if "end" in document:
                for case in self.waiting:
                    self._fail(f"{case} was not run")
                return True
            if "case" in document:
                self._result(**document)
            elif "request" in document:
                self._answer(document.pop("request"), document)
            else:
                self._fail(f"the guest: {document.get('broken', document)}")

    def _result(self, case, outcome, text, seconds):
        print(f"{outcome:6} {case} ({seconds} s)", flush=True)
        if case in self.waiting:
            self.waiting.remove(case)
        else:
            outcome, text = "failed", f"nobody asked for it, or it ended before\n{text}"
        if outcome == "ok":
            self.passed += 1
        else:
            self.failed.append(case)
            print(text, flush=True)

    def _fail(self, text):
        self.failed.append(text)
        print(f"failed {self.name}: {text}", flush=True)

    def _answer(self, request, arguments):
        try:
            answer = {"answer": getattr(self, f"_on_{request}")(**arguments)}
        except Exception:
            answer = {"error": traceback.format_exc()}
        self.machine.port.send(answer)

    def _show_console(self):
        try:
            with open(self.machine.console, encoding="utf-8", errors="replace") as file:
                print("The console's last lines:", *file.read().splitlines()[-40:], sep="\n   ")
        except OSError as error:
            print(f"no console: {error}")

    # What the guest may ask for.

    def _on_fill(self, word):
        with open(self.machine.shared, "r+b") as file:
            file.write(word.to_bytes(4, "little") * (machine.SHARED_SIZE // 4))

    def _on_put(self, number, value):
        with open(self.machine.shared, "r+b") as file:
            file.seek(4 * number)
            file.write(value.to_bytes(4, "little"))

    def _on_words(self, other_than):
        """Number and value of all words of the shared memory but those of one value."""
        with open(self.machine.shared, "rb") as file:
            words = struct.unpack(f"<{machine.SHARED_SIZE // 4}I", file.read())
        return [(number, word) for number, word in enumerate(words) if word != other_than]

    def _on_unplug(self, device):
        """Takes a device out, and waits until the guest has let it go."""
        self.machine.unplug(device)

    def _on_plug(self, device):
        self.machine.plug(device)

    def _on_record(self, wanted):
        self.machine.record(wanted)

    def _on_accesses(self, region):
        return self.machine.accesses(region)


def main():
    parser = argparse.ArgumentParser(description=__doc__.splitlines()[0])
    parser.add_argument("build")
    parser.add_argument("cases", nargs="*")
    options = parser.parse_args()
    signal.signal(signal.SIGTERM, lambda *_: sys.exit("terminated"))
    options.build = os.path.abspath(options.build)
    for program in PROGRAMS:
        if not os.access(os.path.join(options.build, "bin", program), os.X_OK):
            sys.exit(f"{program} is not in {options.build}/bin")
    for tool, package in TOOLS.items():
        if not shutil.which(tool):
            print(f"skipped: {tool} of the Debian package {package} is not installed")
            return 0
    began = time.monotonic()
    try:
        guest_kernel = kernel.prepare()
    except kernel.Unavailable as error:
        print(f"skipped: no kernel for a guest: {error}")
        return 0
    print(f"-- Debian's kernel {guest_kernel.version}, there after "
          f"{time.monotonic() - began:.0f} s", flush=True)
    passed, failed = 0, 0
    for name, modules in BOOTS.items():
        cases = [case for module in modules for case in cases_of(module, options.cases)]
        if not cases:
            continue
        boot = Boot(name, cases, options, guest_kernel)
        boot.run()
        passed += boot.passed
        failed += len(boot.failed)
    print(f"-- after {time.monotonic() - began:.0f} s:")
    print(f"{passed} passed, {failed} failed")
    return 1 if failed or not passed else 0


if __name__ == "__main__":
    sys.exit(main())
