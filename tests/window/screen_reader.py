#!/usr/bin/python3
"""A screen reader for the windowed tests: a real AT-SPI client (Debian's
python3-pyatspi) on the accessibility bus of DBUS_SESSION_BUS_ADDRESS. It
prints, one JSON line each, the events a screen reader hears (children added
and removed, focus) and answers commands on stdin:

    tree          the application that shows an alert, the alert and what it holds
    click NAME    the action "click" of the element named NAME in the alert
    focus NAME    asks for keyboard focus on it

It runs pyatspi's own event loop, which keeps a cache of the tree that the
application's events keep up to date, as a screen reader's does. Runs with the
system's python3, which has Debian's python3-pyatspi.
"""
import json
import sys

import pyatspi
from gi.repository import GLib


def say(message):
    print(json.dumps(message, ensure_ascii=False), flush=True)


def describe(accessible):
    """Role, name, states, extents on the screen and actions of an element."""
    if accessible is None:
        return None
    info = {"role": accessible.getRoleName(), "name": accessible.name}
    try:
        info["states"] = sorted(s.value_nick for s in accessible.getState().getStates())
    except Exception:  # an element that went: it has no states to read
        info["states"] = []
    try:
        box = accessible.queryComponent().getExtents(pyatspi.DESKTOP_COORDS)
        info["extents"] = [box.x, box.y, box.width, box.height]
    except NotImplementedError:
        pass
    try:
        action = accessible.queryAction()
        info["actions"] = [action.getName(i) for i in range(action.nActions)]
    except NotImplementedError:
        info["actions"] = []
    return info


def find_alert():
    """The first element of role alert that an application holds, at any depth (in a
    toolkit's own tree it lies inside the window), and the application."""
    desktop = pyatspi.Registry.getDesktop(0)
    for app in desktop:
        if app is None:
            continue
        alert = pyatspi.findDescendant(app, lambda a: a is not None and a.getRole() == pyatspi.ROLE_ALERT)
        if alert is not None:
            return app, alert
    return None, None


def find_in_alert(name):
    _, alert = find_alert()
    if alert is None:
        return None
    for child in alert:
        if child is not None and child.name == name:
            return child
    return None


def on_event(event):
    message = {"event": event.type}
    try:
        message["source"] = {"role": event.source.getRoleName(), "name": event.source.name}
        if event.type.startswith("object:children-changed"):
            # Its path is known without asking it: a child that went cannot be asked.
            message["path"] = event.any_data.path if event.any_data is not None else None
            message["child"] = describe(event.any_data)
        else:
            message["detail1"] = event.detail1
    except Exception as error:  # what went is still worth saying
        message["error"] = str(error)
    say(message)


def on_command(source, condition):
    line = sys.stdin.readline()
    if not line:
        pyatspi.Registry.stop()
        return False
    words = line.split(maxsplit=1)
    command = words[0] if words else ""
    argument = words[1].strip() if len(words) > 1 else ""
    try:
        if command == "tree":
            app, alert = find_alert()
            say({"app": app.name if app else None, "alert": describe(alert),
                 "children": [describe(c) for c in alert] if alert else []})
        elif command in ("click", "focus"):
            element = find_in_alert(argument)
            done = False
            if element is not None and command == "click":
                action = element.queryAction()
                names = [action.getName(i) for i in range(action.nActions)]
                done = "click" in names and action.doAction(names.index("click"))
            elif element is not None:
                done = element.queryComponent().grabFocus()
            say({command: argument, "done": bool(done)})
        else:
            say({"error": "unknown command " + command})
    except Exception as error:
        say({"error": str(error), "command": line.strip()})
    return True


def main():
    pyatspi.Registry.registerEventListener(
        on_event, "object:children-changed", "object:state-changed", "focus:")
    GLib.io_add_watch(sys.stdin, GLib.PRIORITY_DEFAULT, GLib.IO_IN | GLib.IO_HUP, on_command)
    # Reaching the desktop proves the registry answers.
    say({"ready": True, "applications": pyatspi.Registry.getDesktop(0).childCount})
    pyatspi.Registry.start()


if __name__ == "__main__":
    main()
