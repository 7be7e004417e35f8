#!/usr/bin/env python3
"""Screenshots of the example hosts with an expanded poll banner, for the docs.

    scripts/host_screenshots.py [--out docs/images] [--build build/dev]

For each host that is built (SDL 2, GTK 4, Qt 6) it starts Xvfb, a mosquitto
broker, the devserver and the host on free loopback ports, pushes a poll,
clicks the card open where the host says it is, and saves the window as
host-<name>.png. Everything it starts it stops again.
"""
import argparse
import json
import os
import re
import socket
import subprocess
import sys
import tempfile
import time
import urllib.request

HOSTS = [
    ("sdl", "quorvia-desktop-host", {"SDL_VIDEODRIVER": "x11", "SDL_RENDER_DRIVER": "software"}),
    ("gtk4", "quorvia-gtk4-host", {"GDK_BACKEND": "x11", "GSK_RENDERER": "cairo"}),
    ("qt6", "quorvia-qt6-host", {"QT_QPA_PLATFORM": "xcb"}),
]
ELEMENT = re.compile(r"; (\w+) (-?[\d.]+),(-?[\d.]+),([\d.]+),([\d.]+)( hidden)? ([^;]*)")
WAIT = 30


def free_port():
    with socket.socket() as s:
        s.bind(("127.0.0.1", 0))
        return s.getsockname()[1]


def lines_until(process, matches, what):
    deadline = time.monotonic() + WAIT
    while time.monotonic() < deadline:
        line = process.stdout.readline()
        if not line:
            break
        if matches(line.rstrip("\n")):
            return line.rstrip("\n")
    raise SystemExit(f"host_screenshots: no {what} within {WAIT} s")


def call(base, admin, method, path, body):
    request = urllib.request.Request(base + path, data=json.dumps(body).encode(), method=method,
                                     headers={"X-Quorvia-Admin-Token": admin,
                                              "Content-Type": "application/json"})
    with urllib.request.urlopen(request, timeout=WAIT) as answer:
        return json.loads(answer.read())


def shoot(name, binary, toolkit_env, build, out, work):
    children = []
    try:
        numbers_r, numbers_w = os.pipe()
        xvfb = subprocess.Popen(["Xvfb", "-displayfd", str(numbers_w), "-screen", "0", "375x667x24",
                                 "-nolisten", "tcp"], pass_fds=[numbers_w],
                                stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL)
        children.append(xvfb)
        os.close(numbers_w)
        with os.fdopen(numbers_r) as numbers:
            display = ":" + numbers.readline().strip()
        broker_port = free_port()
        conf = os.path.join(work, f"{name}-mosquitto.conf")
        with open(conf, "w") as f:
            f.write(f"listener {broker_port} 127.0.0.1\nallow_anonymous true\n")
        children.append(subprocess.Popen(["/usr/sbin/mosquitto", "-c", conf],
                                         stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL))
        port, admin = free_port(), "screenshots"
        children.append(subprocess.Popen(
            [os.path.join(build, "tools/devserver/quorvia-devserver"), "--port", str(port),
             "--db", os.path.join(work, f"{name}.sqlite3"), "--admin-token", admin,
             "--broker", f"mqtt://127.0.0.1:{broker_port}"],
            stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL))
        base = f"http://127.0.0.1:{port}"
        env = dict(os.environ, DISPLAY=display, **toolkit_env)
        host = subprocess.Popen(
            [os.path.join(build, "examples", binary), "--print-frames", "--service-url", base,
             "--push-broker", f"mqtt://127.0.0.1:{broker_port}", "--data-dir",
             os.path.join(work, f"{name}-data")],
            stdout=subprocess.PIPE, stderr=subprocess.DEVNULL, env=env, text=True)
        children.append(host)
        lines_until(host, lambda l: l == "host: registered", "registration")
        poll = call(base, admin, "POST", "/admin/polls", {
            "app_token": "demo-app-token", "question": "Tea or coffee?",
            "options": [{"text": "Tea"}, {"text": "Coffee"}, {"text": "Neither"}]})
        call(base, admin, "POST", f"/admin/polls/{poll['id']}/push", {})
        collapsed = lines_until(host, lambda l: "Tea or coffee?" in l and l.startswith(
            "host: elements"), "banner")
        question = next(m for m in ELEMENT.finditer(collapsed) if m[7] == "Tea or coffee?")
        x, y, w, h = (float(question[i]) for i in range(2, 6))
        subprocess.run(["xdotool", "mousemove", "--sync", str(int(x + w / 2)), str(int(y + h / 2)),
                        "click", "1"], env=env, check=True, timeout=WAIT)
        lines_until(host, lambda l: "; button" in l and "Neither" in l, "expanded banner")
        path = os.path.join(out, f"host-{name}.png")
        subprocess.run(["import", "-display", display, "-window", "root", path], check=True,
                       timeout=WAIT)
        print(f"host_screenshots: {path}", flush=True)
    finally:
        for child in reversed(children):
            child.terminate()
            try:
                child.wait(timeout=5)
            except subprocess.TimeoutExpired:
                child.kill()


def main():
    parser = argparse.ArgumentParser(description=__doc__.split("\n\n")[0])
    parser.add_argument("--out", default="docs/images")
    parser.add_argument("--build", default="build/dev")
    args = parser.parse_args()
    with tempfile.TemporaryDirectory(prefix="quorvia-screenshots-") as work:
        for name, binary, env in HOSTS:
            if os.path.exists(os.path.join(args.build, "examples", binary)):
                shoot(name, binary, env, args.build, args.out, work)
            else:
                print(f"host_screenshots: {binary} is not built; skipped", flush=True)
    return 0


if __name__ == "__main__":
    sys.exit(main())
