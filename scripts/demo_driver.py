#!/usr/bin/env python3
"""Drives the end-to-end demo: a mosquitto broker, the local poll service and
the host simulator, all on loopback. A poll arrives by push and is answered from
the banner; a second one is fetched when the app becomes active and answered
too; a third is pushed while the app is not running, the broker is restarted,
and the push still reaches the app when it starts again. Every step is printed
as it happens and checked; any failure ends the run with a message and exit
status 1.

    demo_driver.py --devserver PATH --sim PATH --host PATH --work DIR --png-dir DIR

With --host, a third poll is pushed to the desktop host in a real window: on a
machine with a display a person clicks it; without one it runs under Xvfb and
xdotool clicks the card and an option where the host says the banner is.
"""
import argparse
import json
import os
import pwd
import queue
import secrets
import shutil
import signal
import socket
import subprocess
import sys
import threading
import time
import urllib.request

APP_TOKEN = "demo-app"
WAIT = 20  # seconds any one step may take
FETCH_CALLBACK = "application:didReceiveRemoteNotification:fetchCompletionHandler:"


class DemoFailed(Exception):
    pass


def step(text):
    print(f"\n== {text}", flush=True)


def free_port():
    with socket.socket() as s:
        s.bind(("127.0.0.1", 0))
        return s.getsockname()[1]


def wait_for_port(port, process, what):
    deadline = time.monotonic() + WAIT
    while time.monotonic() < deadline:
        if process.poll() is not None:
            raise DemoFailed(f"{what} exited at start")
        try:
            with socket.create_connection(("127.0.0.1", port), timeout=0.2):
                return
        except OSError:
            time.sleep(0.05)
    raise DemoFailed(f"{what} did not accept connections on port {port} within {WAIT} s")


class Service:
    def __init__(self, base, token):
        self.base, self.token = base, token

    def call(self, method, path, body=None):
        data = None if body is None else json.dumps(body).encode()
        request = urllib.request.Request(self.base + path, data=data, method=method)
        request.add_header("X-Quorvia-Admin-Token", self.token)
        if data is not None:
            request.add_header("Content-Type", "application/json")
        try:
            with urllib.request.urlopen(request, timeout=WAIT) as answer:
                return json.load(answer)
        except urllib.error.HTTPError as e:
            raise DemoFailed(f"{method} {path} answered {e.code}: {e.read().decode(errors='replace')}")


class Simulator:
    """The host simulator as a child: commands in, events out, printed as they come."""

    def __init__(self, path, options, data_dir, png_dir, log):
        self.process = subprocess.Popen(
            [path, "--script", "-", "--data-dir", data_dir, "--png-dir", png_dir] + options,
            stdin=subprocess.PIPE, stdout=subprocess.PIPE, stderr=log, text=True)
        self.events = queue.Queue()
        self.seen = []
        threading.Thread(target=self._read, daemon=True).start()

    def _read(self):
        for line in self.process.stdout:
            event = json.loads(line)
            self.events.put(event)
        self.events.put(None)

    def send(self, command):
        self.process.stdin.write(json.dumps(command, ensure_ascii=False) + "\n")
        self.process.stdin.flush()

    def wait_for(self, what, matches):
        deadline = time.monotonic() + WAIT
        while True:
            left = deadline - time.monotonic()
            if left <= 0:
                raise DemoFailed(f"no {what} within {WAIT} s")
            try:
                event = self.events.get(timeout=left)
            except queue.Empty:
                continue
            if event is None:
                raise DemoFailed(f"the simulator ended before {what}")
            self.seen.append(event)
            show(event)
            if event["event"] == "error":
                raise DemoFailed(f"the simulator refused a command: {event['message']}")
            if matches(event):
                return event

    def log_line(self, what, prefix):
        return self.wait_for(what, lambda e: e["event"] == "log" and e["line"].startswith(prefix))

    def event(self, what, name, **fields):
        """The next event `name` whose fields hold `fields`: what the SDK tells its observer."""
        return self.wait_for(what, lambda e: e["event"] == name and all(
            e.get(k) == v for k, v in fields.items()))

    def state(self):
        self.send({"cmd": "state"})
        return self.wait_for("a state", lambda e: e["event"] == "state")

    def quit(self):
        if self.process.poll() is None:
            self.send({"cmd": "quit"})
            try:
                self.process.wait(timeout=WAIT)
            except subprocess.TimeoutExpired:
                self.process.kill()


def show(event):
    kind = event.get("event")
    if kind == "log":
        print("  sdk:", event["line"], flush=True)
        if event["line"].startswith("QuorviaSDK: Failed to set user info"):
            print("       (the SDK's two user-info messages are swapped on purpose: "
                  "this one means it was sent)")
    elif kind == "state":
        b = event["banner"]
        banner = "none" if b is None else "%s, %s" % (
            "expanded" if b["expanded"] else "collapsed", json.dumps(b["question"], ensure_ascii=False))
        print("  state: access token %s, banner %s" % (
            "stored" if event["accessToken"] else "none", banner), flush=True)
    elif kind not in ("hostCallback", "completion", "backgroundTask"):
        print("  %s: %s" % (kind, json.dumps({k: v for k, v in event.items() if k != "event"},
                                            ensure_ascii=False)), flush=True)


def check(ok, what):
    print("  %s %s" % ("ok  " if ok else "FAIL", what), flush=True)
    if not ok:
        raise DemoFailed(what)


def answer_banner(sim, png_dir, stem, option):
    sim.send({"cmd": "wait", "seconds": 0.5})  # the slide-in takes 0.3 s
    state = sim.state()
    check(state["banner"] is not None and not state["banner"]["expanded"], "the banner slid in collapsed")
    sim.send({"cmd": "snapshot", "path": f"{stem}-collapsed.png"})
    sim.wait_for("a snapshot", lambda e: e["event"] == "snapshot")
    sim.send({"cmd": "tapCard"})
    sim.send({"cmd": "wait", "seconds": 0.6})
    state = sim.state()
    check(state["banner"] is not None and state["banner"]["expanded"], "tapping the card expanded it")
    sim.send({"cmd": "snapshot", "path": f"{stem}-expanded.png"})
    sim.wait_for("a snapshot", lambda e: e["event"] == "snapshot")
    sim.send({"cmd": "tapOption", "index": option})
    reply = sim.event("the reply", "replied")
    check(reply["error"] is None, "the service got the reply " + json.dumps(reply["replyText"],
                                                                           ensure_ascii=False))
    sim.send({"cmd": "wait", "seconds": 0.5})
    check(not sim.state()["presentedPollView"], "the banner went away")
    for name in (f"{stem}-collapsed.png", f"{stem}-expanded.png"):
        path = os.path.join(png_dir, name)
        check(os.path.exists(path) and os.path.getsize(path) > 10000, "wrote " + path)


class Host:
    """The desktop host as a child; its stdout and stderr lines are kept and waited on."""

    def __init__(self, command, env):
        self.process = subprocess.Popen(command, stdout=subprocess.PIPE, stderr=subprocess.PIPE,
                                        env=env, text=True)
        self.lines = queue.Queue()
        for stream in (self.process.stdout, self.process.stderr):
            threading.Thread(target=self._read, args=(stream,), daemon=True).start()

    def _read(self, stream):
        for line in stream:
            self.lines.put(line.rstrip("\n"))

    def wait_for(self, what, matches, seconds=WAIT, quiet=False):
        deadline = time.monotonic() + seconds
        while time.monotonic() < deadline:
            try:
                line = self.lines.get(timeout=max(0.0, deadline - time.monotonic()))
            except queue.Empty:
                break
            if not quiet and not line.startswith("host: elements"):
                print("  host:", line, flush=True)
            if matches(line):
                return line
        raise DemoFailed(f"no {what} from the desktop host within {seconds:.0f} s")


def elements_of(line):
    """The banner's elements as the host says them once they settle ("host: elements; ROLE
    X,Y,W,H[ hidden] NAME; ..."): name -> (role, [x, y, w, h], showing)."""
    elements = {}
    if not line.startswith("host: elements"):
        return elements
    for part in line.split("; ")[1:]:
        role, box, rest = part.split(" ", 2)
        hidden = rest.startswith("hidden ")
        name = rest[len("hidden "):] if hidden else rest
        elements[name] = (role, [float(v) for v in box.split(",")], not hidden)
    return elements


def screenshot(display, path):
    subprocess.run(["import", "-display", display, "-window", "root", path], check=True,
                   timeout=WAIT, stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL)


def click(display, box):
    x, y = int(box[0] + box[2] / 2), int(box[1] + box[3] / 2)
    subprocess.run(["xdotool", "mousemove", "--sync", str(x), str(y), "click", "1"], check=True,
                   timeout=WAIT, env=dict(os.environ, DISPLAY=display))


BUS_CONFIG = """<!DOCTYPE busconfig PUBLIC "-//freedesktop//DTD D-Bus Bus Configuration 1.0//EN"
 "http://www.freedesktop.org/standards/dbus/1.0/busconfig.dtd">
<busconfig>
  <type>session</type>
  <listen>unix:dir={dir}</listen>
  <auth>EXTERNAL</auth>
  <policy context="default">
    <allow send_destination="*" eavesdrop="true"/>
    <allow eavesdrop="true"/>
    <allow own="*"/>
  </policy>
</busconfig>
"""


class NotificationService:
    """A private session bus with the demo's notification service on it."""

    def __init__(self, work, children):
        self.address = None
        system_python = "/usr/bin/python3"
        if subprocess.run([system_python, "-c", "import gi"], capture_output=True).returncode:
            self.missing = "the system's python3 has no python3-gi"
            return
        config = os.path.join(work, "bus.conf")
        with open(config, "w") as f:
            f.write(BUS_CONFIG.format(dir=work))
        bus = subprocess.Popen(["dbus-daemon", f"--config-file={config}", "--nofork",
                                "--print-address=1"], stdout=subprocess.PIPE, text=True)
        children.append(bus)
        self.address = bus.stdout.readline().strip()
        self.process = subprocess.Popen(
            [system_python, os.path.join(os.path.dirname(__file__), "notification_service.py"),
             "--address", self.address], stdin=subprocess.PIPE, stdout=subprocess.PIPE, text=True)
        children.append(self.process)
        self.notes = queue.Queue()
        threading.Thread(target=self._read, daemon=True).start()
        if not self.next("the notification service").get("ready"):
            raise DemoFailed("the notification service did not start")

    def _read(self):
        for line in self.process.stdout:
            self.notes.put(json.loads(line))

    def next(self, what):
        try:
            return self.notes.get(timeout=WAIT)
        except queue.Empty:
            raise DemoFailed(f"no {what} within {WAIT} s")

    def press(self, notification_id, key):
        self.process.stdin.write(f"invoke {notification_id} {key}\n")
        self.process.stdin.flush()


def notification_act(service, host, bus, person, display):
    step("a poll answered from a desktop notification's button")
    if not person:
        # The window has the focus since it was clicked: give it to the root
        # window, so that the app is in the background, as for a bubble.
        env = dict(os.environ, DISPLAY=display)
        root = subprocess.run(["xdotool", "search", "--maxdepth", "0", "--name", ""], env=env,
                              capture_output=True, text=True, timeout=WAIT).stdout.split()
        if root:
            subprocess.run(["xdotool", "windowfocus", "--sync", root[0]], env=env, timeout=WAIT)
        host.wait_for("the window losing the focus", lambda l: l == "host: focus lost")
    poll = service.call("POST", "/admin/polls", {
        "app_token": APP_TOKEN + "-desktop", "question": "Was this demo clear?", "category": "Yes.No",
        "options": [{"text": "Yes"}, {"text": "No"}]})
    service.call("POST", f"/admin/polls/{poll['id']}/push", {})
    if person:
        print("  Press Yes or No on the notification bubble (the window must not have the focus).",
              flush=True)
        line = host.wait_for("a reply", lambda l: l.startswith("host: replied "), seconds=300)
        return poll, line[len("host: replied "):].rsplit(" ", 1)[0]
    note = bus.next("a notification")
    # A bubble of an earlier poll that came while the window was in the
    # background may be there too; the app withdrew it when it was answered.
    while note["body"] != "Was this demo clear?":
        print(f"  earlier bubble: {json.dumps(note, ensure_ascii=False)}", flush=True)
        note = bus.next("a notification")
    print(f"  bubble: {json.dumps(note, ensure_ascii=False)}", flush=True)
    check(note["body"] == "Was this demo clear?", "the bubble shows the alert text")
    check(note["actions"][:4] == ["Yes", "Yes", "No", "No"] and "default" in note["actions"],
          "the bubble has the category's buttons, Yes then No, and the default action")
    bus.press(note["id"], "Yes")
    host.wait_for("the reply", lambda l: l == "host: replied Yes ok")
    return poll, "Yes"


def real_window(args, service, broker_url, base, children):
    display = os.environ.get("DISPLAY")
    person = bool(display)
    if not person:
        step("the same in a real window: the desktop host under Xvfb (no display here)")
        read_fd, write_fd = os.pipe()
        xvfb = subprocess.Popen(["Xvfb", "-displayfd", str(write_fd), "-screen", "0", "375x667x24",
                                 "-nolisten", "tcp"], pass_fds=[write_fd],
                                stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL)
        children.append(xvfb)
        os.close(write_fd)
        with os.fdopen(read_fd) as numbers:
            number = numbers.readline().strip()
        if not number:
            raise DemoFailed("Xvfb did not start (scripts/setup.sh installs it)")
        display = ":" + number
        print(f"  Xvfb on display {display} (pid {xvfb.pid})")
    else:
        step(f"the same in a real window: the desktop host on your display {display}")
    env = dict(os.environ, DISPLAY=display, XDG_DATA_HOME=os.path.join(args.work, "host-home"))
    bus = None
    if not person:
        env.update(SDL_VIDEODRIVER="x11", SDL_RENDER_DRIVER="software")
        if shutil.which("dbus-daemon"):
            bus = NotificationService(args.work, children)
            if bus.address:
                env["DBUS_SESSION_BUS_ADDRESS"] = bus.address
            else:
                print(f"  (notifications will be skipped: {bus.missing})")
                bus = None
    host = Host([args.host, "--print-frames", "--app-token", APP_TOKEN + "-desktop",
                 "--service-url", base, "--push-broker", broker_url,
                 "--data-dir", os.path.join(args.work, "host-data")], env)
    children.append(host.process)
    host.wait_for("a window", lambda l: l.startswith("host: ready"))
    host.wait_for("a registration", lambda l: l == "host: registered")

    poll = service.call("POST", "/admin/polls", {
        "app_token": APP_TOKEN + "-desktop", "question": "Tea or coffee?",
        "options": [{"text": "Tea"}, {"text": "Coffee"}]})
    sent = service.call("POST", f"/admin/polls/{poll['id']}/push", {})
    check(sent.get("sent", 0) >= 1, "the service pushed the poll to the desktop host")
    collapsed = elements_of(host.wait_for(
        "the banner", lambda l: elements_of(l).get("Poll", ("", [0, 0]))[1][1] == 20, quiet=True))
    check(True, "the banner slid into the window")
    shots = {}
    if person:
        print("  Click the card, then an option, in the window.", flush=True)
        host.wait_for("a reply", lambda l: l.startswith("host: replied "), seconds=300)
    else:
        shots["collapsed"] = os.path.join(args.png_dir, "window-collapsed.png")
        screenshot(display, shots["collapsed"])
        click(display, collapsed["Tea or coffee?"][1])
        expanded = elements_of(host.wait_for(
            "the expanded banner", lambda l: elements_of(l).get("Coffee", ("", [], False))[2],
            quiet=True))
        check(True, "clicking the card expanded it")
        shots["expanded"] = os.path.join(args.png_dir, "window-expanded.png")
        screenshot(display, shots["expanded"])
        click(display, expanded["Coffee"][1])
        host.wait_for("the reply", lambda l: l == "host: replied Coffee ok")
    for name, path in shots.items():
        check(os.path.exists(path) and os.path.getsize(path) > 1000, f"saved the {name} window: {path}")
    answers = {poll["id"]: "Coffee"} if not person else {}
    if bus or (person and os.environ.get("DBUS_SESSION_BUS_ADDRESS")):
        notified, answer = notification_act(service, host, bus, person, display)
        answers[notified["id"]] = answer
    else:
        step("a poll answered from a desktop notification: SKIPPED, no notification service "
             "(dbus-daemon and the system's python3-gi are needed)")
    return answers


class Broker:
    """The demo's own mosquitto on a loopback port, keeping its sessions and queued messages in
    a directory of the demo's work; its log goes to broker.log there, kept when the demo fails."""

    def __init__(self, work, children):
        self.port = free_port()
        self.url = f"mqtt://127.0.0.1:{self.port}"
        self.store = os.path.join(work, "broker")
        os.makedirs(self.store, mode=0o700, exist_ok=True)
        self.config = os.path.join(work, "mosquitto.conf")
        # Started as root, mosquitto would drop to its own user, which may not write in the
        # demo's private directory: its store would be lost at every stop. It stays who we are.
        with open(self.config, "w") as conf:
            conf.write(f"listener {self.port} 127.0.0.1\nallow_anonymous true\n"
                       f"persistence true\npersistence_location {self.store}/\n"
                       f"user {pwd.getpwuid(os.getuid()).pw_name}\nlog_dest stderr\n")
        self.log = os.path.join(work, "broker.log")
        self.children = children
        self.process = None

    def start(self):
        self.process = subprocess.Popen(["mosquitto", "-c", self.config],
                                        stdout=open(self.log, "a"), stderr=subprocess.STDOUT)
        self.children.append(self.process)
        wait_for_port(self.port, self.process, "mosquitto")

    def stop(self):
        self.process.send_signal(signal.SIGTERM)
        try:
            self.process.wait(timeout=WAIT)
        except subprocess.TimeoutExpired:
            raise DemoFailed(f"mosquitto did not stop within {WAIT} s")
        with open(self.log) as log:
            errors = [line.strip() for line in log if "Error" in line]
        if errors:
            raise DemoFailed("mosquitto could not save its store: " + "; ".join(errors))


def offline_push(args, service, broker, sim_options, sim, children):
    step("a poll pushed while the device is offline, kept by the broker through a restart")
    sim.quit()
    poll = service.call("POST", "/admin/polls", {
        "app_token": APP_TOKEN, "question": "Did the broker keep this one? 📬",
        "options": [{"text": "Yes"}, {"text": "No"}]})
    sent = service.call("POST", f"/admin/polls/{poll['id']}/push", {})
    check(sent.get("sent", 0) >= 1, "the service handed the push to the broker; the device is offline")
    broker.stop()
    check(os.path.exists(os.path.join(broker.store, "mosquitto.db")),
          "the broker saved its sessions and the queued push as it stopped")
    broker.start()
    print(f"  broker: restarted on {broker.url} (pid {broker.process.pid})")
    # The same device again: same data, so the same token and the same broker session.
    sim = Simulator(args.sim, sim_options, os.path.join(args.work, "app-data"), args.png_dir,
                    open(os.path.join(args.work, "sim.stderr"), "a"))
    children.append(sim.process)
    sim.send({"cmd": "launch", "appToken": APP_TOKEN, "launchOptions": None, "swizzling": True,
              "delegate": {"implements": [FETCH_CALLBACK]},
              "settings": {"types": 7, "categories": []}})
    sim.wait_for("the push the broker kept", lambda e: e["event"] == "hostCallback"
                 and e["selector"] == FETCH_CALLBACK)
    check(True, "the push sent while the device was offline arrived after the broker's restart")
    # Start-up fetched the same poll; dismissing its banner also takes back its bubble, if any.
    sim.send({"cmd": "wait", "seconds": 0.5})
    check(sim.state()["presentedPollView"], "the poll is on screen")
    sim.send({"cmd": "tapClose"})
    sim.log_line("the dismissal", "QuorviaSDK: Successfuly sent reply: Dismiss")
    sim.quit()
    return poll


def replies_of(service, poll_id):
    return service.call("GET", f"/admin/polls/{poll_id}/replies")["replies"]


def run(args):
    children = []
    work = args.work
    try:
        step("starting a mosquitto broker on a free loopback port")
        broker = Broker(work, children)
        broker.start()
        broker_url = broker.url
        print(f"broker: {broker_url} (pid {broker.process.pid})")

        step("starting the poll service, pushing through that broker")
        port = free_port()
        admin = secrets.token_hex(16)
        server = subprocess.Popen(
            [args.devserver, "--host", "127.0.0.1", "--port", str(port), "--db",
             os.path.join(work, "devserver.sqlite3"), "--admin-token", admin, "--broker", broker_url],
            stdout=open(os.path.join(work, "server.log"), "w"), stderr=subprocess.STDOUT)
        children.append(server)
        wait_for_port(port, server, "the poll service")
        base = f"http://127.0.0.1:{port}"
        service = Service(base, admin)
        print(f"service: {base} (pid {server.pid})\ndashboard: {base}/?token={admin}")

        step("launching the host simulator: the device gets its token from the broker")
        sim_options = ["--service-url", base, "--push-broker", broker_url]
        sim = Simulator(args.sim, sim_options, os.path.join(work, "app-data"), args.png_dir,
                        open(os.path.join(work, "sim.stderr"), "w"))
        children.append(sim.process)
        sim.send({"cmd": "launch", "appToken": APP_TOKEN, "launchOptions": None, "swizzling": True,
                  "delegate": {"implements": []},
                  "settings": {"types": 7, "categories": []}})
        sim.send({"cmd": "askPermission"})
        sim.log_line("a device token from the broker", "QuorviaSDK: Received device push token")
        sim.event("the registration", "registered")
        check(sim.state()["accessToken"], "the access token is in the keychain")

        step("pushing a poll from the service's admin API")
        pushed = service.call("POST", "/admin/polls", {
            "app_token": APP_TOKEN, "question": "How was your trip today? 🚆", "category": "thumbsup.thumbsdown",
            "options": [{"text": "👍 Loved it"}, {"text": "🤔 It was fine"},
                        {"text": "👎 Not really", "link": "https://example.com/feedback"}]})
        sent = service.call("POST", f"/admin/polls/{pushed['id']}/push", {})
        print(f"  service: {json.dumps(sent)}")
        check(sent.get("sent", 0) >= 1, "the service published the push")
        sim.event("the pushed poll", "presented", pollId=str(pushed["id"]))
        answer_banner(sim, args.png_dir, "banner", 0)
        # User info rides on the header the reply installed.
        sim.send({"cmd": "setUserInfo", "userInfo": {"name": "Demo user", "plan": "trial"}})
        sim.log_line("the user info", "QuorviaSDK: Failed to set user info")

        step("a second poll, fetched when the app becomes active")
        fetched = service.call("POST", "/admin/polls", {
            "app_token": APP_TOKEN, "question": "Coffee or tea?",
            "options": [{"text": "☕ Coffee"}, {"text": "🍵 Tea"}]})
        sim.send({"cmd": "becomeActive"})
        sim.event("the fetched poll", "presented", question="Coffee or tea?")
        answer_banner(sim, args.png_dir, "fetched", 1)
        kept = offline_push(args, service, broker, sim_options, sim, children)

        window_answers = {}
        if args.host:
            window_answers = real_window(args, service, broker_url, base, children)
        else:
            step("the real window is skipped: the desktop host was not built (SDL2 missing)")

        step("replies recorded by the service")
        expected = {pushed["id"]: "👍 Loved it", fetched["id"]: "🍵 Tea", kept["id"]: "Dismiss"}
        expected.update(window_answers)
        recorded = {}
        for poll_id, text in expected.items():
            replies = recorded[poll_id] = replies_of(service, poll_id)
            for r in replies:
                d = r["device"]
                print("  poll %s, reply %d at %s: %s  (push token %s, user info %s)" % (
                    poll_id, r["id"], r["created_at"], json.dumps(r["reply_text"], ensure_ascii=False),
                    d["push_token"], json.dumps(d["user_info"], ensure_ascii=False)))
            check(len(replies) == 1 and replies[0]["reply_text"] == text,
                  f"the service recorded {json.dumps(text, ensure_ascii=False)} for poll {poll_id}")
        # A form body carries the dictionary's description, as the service receives it.
        check("Demo user" in json.dumps(recorded[pushed["id"]][0]["device"]["user_info"]),
              "the service keeps the user info the host sent")
    finally:
        for child in reversed(children):
            if child.poll() is None:
                child.send_signal(signal.SIGTERM)
                try:
                    child.wait(timeout=5)
                except subprocess.TimeoutExpired:
                    child.kill()
                    child.wait()


def main():
    parser = argparse.ArgumentParser(description=__doc__.split("\n\n")[0])
    for name in ("--devserver", "--sim", "--work", "--png-dir"):
        parser.add_argument(name, required=True)
    parser.add_argument("--host", default="", help="the desktop host; without it the window part is skipped")
    args = parser.parse_args()
    try:
        run(args)
    except DemoFailed as e:
        print(f"\ndemo: FAILED: {e}", file=sys.stderr)
        return 1
    return 0


if __name__ == "__main__":
    sys.exit(main())
