#!/usr/bin/env python3
"""Runs the desktop's part of scripts/demo, on its hidden display.

DemoTest.py pictures DEMO BUILD_DIR      to the end: its screenshots show something, in the right sizes and colours
DemoTest.py interrupted DEMO BUILD_DIR   until it is in full swing, and interrupts it: nothing is left
"""

import os
import pathlib
import re
import signal
import subprocess
import sys
import tempfile

what, demo, build = sys.argv[1:]


def start(folder):
    # A group of its own, as a terminal gives each command, and a Ctrl-C that is not ignored.
    return subprocess.Popen([demo, "--desktop", "--quick", "--build-dir", build, "--screenshots", folder + "/pictures"],
                            env={**os.environ, "TMPDIR": folder}, stdin=subprocess.DEVNULL, stdout=subprocess.PIPE, text=True,
                            start_new_session=True, preexec_fn=lambda: signal.signal(signal.SIGINT, signal.SIG_DFL))


def shown(process):
    for line in process.stdout:
        print(line, end="")
        yield line


def check(condition, message):
    if not condition:
        sys.exit("demo: " + message)


def processes_in(folder):
    for environment in pathlib.Path("/proc").glob("[0-9]*/environ"):
        try:
            if f"XDG_RUNTIME_DIR={folder}/".encode() in environment.read_bytes():
                yield (environment.parent / "cmdline").read_bytes()
        except OSError:
            pass  # it has ended, or is another user's


# Somebody else may have the number by now, and listens there.
def is_free_or_taken(display):
    socket = f"/tmp/.X11-unix/X{display}"
    return not os.path.exists(socket) or f" @{socket}\n" in pathlib.Path("/proc/net/unix").read_text()


def look_at(path):
    told = subprocess.run(["convert", path, "-format", "%m %w %h %k %[fx:mean]", "info:-"], check=True, capture_output=True,
                          text=True).stdout.split()
    return told[0], *map(int, told[1:4]), float(told[4])


def pictures(folder):
    process = start(folder)
    last = list(shown(process))[-1]
    check(process.wait() == 0, f"ends with status {process.returncode}")
    check(re.search(r"All \d+ things happened", last), "does not say that all went well")
    names = [f"{kind}-{scheme}.png" for kind in ("desktop", "menu", "settings", "window") for scheme in ("dark", "light")]
    check(sorted(os.listdir(folder + "/pictures")) == sorted(names), f"leaves {os.listdir(folder + '/pictures')}")
    for name in names:
        form, width, height, colors, brightness = look_at(f"{folder}/pictures/{name}")
        print(name, form, width, height, colors, brightness)
        check(form == "PNG", name + " is no PNG")
        if name.startswith("desktop"):
            check((width, height) == (960, 620), name + " is not the whole screen")
        else:
            check(150 < width < 960 and 150 < height < 620, name + " is no part of the screen")
        check(colors > 200, name + " shows nothing")
        check(brightness < 0.4 if "dark" in name else brightness > 0.6, name + " has the wrong colours")
    check(os.listdir(folder) == ["pictures"], f"leaves {os.listdir(folder)}")
    check(not list(processes_in(folder)), "leaves processes")


def interrupted(folder):
    process = start(folder)
    display = None
    for line in shown(process):
        display = (re.match(r"display +:(\d+)", line) or [None, display])[1]
        if "the window is open" in line:
            os.killpg(process.pid, signal.SIGINT)
    check(process.wait() == 130, f"ends with status {process.returncode}")
    check(os.listdir(folder) == ["pictures"], f"leaves {os.listdir(folder)}")
    check(not list(processes_in(folder)), f"leaves {list(processes_in(folder))}")
    check(display and is_free_or_taken(display), "leaves its display")


with tempfile.TemporaryDirectory() as folder:
    {"pictures": pictures, "interrupted": interrupted}[what](os.path.realpath(folder))
