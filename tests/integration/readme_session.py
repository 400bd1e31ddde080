#!/usr/bin/env python3
"""Runs the sessions that README.md shows and compares what they print, so that the page stays true.

usage: readme_session.py BIN-DIRECTORY SOURCE-DIRECTORY

A session is an indented block with lines that begin with "$ ". Its commands run in one shell, one
after the other, in a fresh folder that has the sample devices in examples/. What the page shows
below a command is what the command must print, standard output and standard error together.
"""

import os
import pathlib
import re
import subprocess
import sys
import tempfile


def sessions(text):
    """The commands of the page, each with the output shown and its line number."""
    shown = None
    for number, line in enumerate(text.splitlines(), 1):
        indented = re.match(r"    (.*)", line)
        if indented and indented[1].startswith("$ "):
            if shown:
                yield shown
            shown = (number, indented[1][2:], [])
        elif indented and shown:
            shown[2].append(indented[1])
        elif shown and line.strip():
            yield shown
            shown = None
    if shown:
        yield shown


def main():
    binaries, source = (pathlib.Path(path).resolve() for path in sys.argv[1:3])
    commands = list(sessions((source / "README.md").read_text(encoding="utf-8")))
    if not commands:
        sys.exit("README.md shows no session: nothing was checked")
    environment = {**os.environ, "PATH": f"{binaries}:{os.environ['PATH']}", "NO_COLOR": "1"}
    for variable in ("REG_VALUES_FILE", "TARN_TRACE"):
        environment.pop(variable, None)
    wrong = 0
    status = 0
    with tempfile.TemporaryDirectory() as folder:
        os.symlink(source / "examples", pathlib.Path(folder) / "examples")
        for number, command, expected in commands:
            # "echo $?" tells the status of the command before, which ran in a shell of its own.
            result = subprocess.run(
                ["bash", "-c", f"(exit {status}); {command}"], cwd=folder, env=environment,
                stdin=subprocess.DEVNULL, stdout=subprocess.PIPE, stderr=subprocess.STDOUT,
                timeout=60, check=False, text=True)
            status = result.returncode
            printed = result.stdout.splitlines()
            if printed != expected:
                wrong += 1
                print(f"README.md:{number}: $ {command}")
                print("\n".join(["--- shown", *expected, "--- printed", *printed]))
    print(f"{len(commands)} commands, {wrong} wrong")
    sys.exit(1 if wrong else 0)


if __name__ == "__main__":
    main()
