#!/usr/bin/python3
"""A desktop notification service for the demo, on a private session bus: it
owns org.freedesktop.Notifications, prints each Notify call as one JSON line
on stdout, and presses a button when told on stdin ("invoke ID KEY").

    notification_service.py --address DBUS_ADDRESS

Runs with the system's python3, which has Debian's python3-gi.
"""
import argparse
import json
import sys
import threading

from gi.repository import Gio, GLib

INTERFACE = """
<node>
  <interface name="org.freedesktop.Notifications">
    <method name="Notify">
      <arg type="s" direction="in"/><arg type="u" direction="in"/><arg type="s" direction="in"/>
      <arg type="s" direction="in"/><arg type="s" direction="in"/><arg type="as" direction="in"/>
      <arg type="a{sv}" direction="in"/><arg type="i" direction="in"/>
      <arg type="u" direction="out"/>
    </method>
    <method name="CloseNotification"><arg type="u" direction="in"/></method>
    <method name="GetCapabilities"><arg type="as" direction="out"/></method>
    <method name="GetServerInformation">
      <arg type="s" direction="out"/><arg type="s" direction="out"/>
      <arg type="s" direction="out"/><arg type="s" direction="out"/>
    </method>
    <signal name="ActionInvoked"><arg type="u"/><arg type="s"/></signal>
    <signal name="NotificationClosed"><arg type="u"/><arg type="u"/></signal>
  </interface>
</node>
"""
PATH = "/org/freedesktop/Notifications"
NAME = "org.freedesktop.Notifications"


def main():
    parser = argparse.ArgumentParser(description=__doc__.split("\n\n")[0])
    parser.add_argument("--address", required=True)
    args = parser.parse_args()

    loop = GLib.MainLoop()
    connection = Gio.DBusConnection.new_for_address_sync(
        args.address, Gio.DBusConnectionFlags.AUTHENTICATION_CLIENT
        | Gio.DBusConnectionFlags.MESSAGE_BUS_CONNECTION, None, None)
    counter = [0]

    def on_call(conn, sender, path, interface, method, params, invocation):
        if method == "Notify":
            app, _, _, summary, body, actions, _, _ = params.unpack()
            counter[0] += 1
            print(json.dumps({"id": counter[0], "app": app, "summary": summary, "body": body,
                              "actions": actions}, ensure_ascii=False), flush=True)
            invocation.return_value(GLib.Variant("(u)", (counter[0],)))
        elif method == "GetCapabilities":
            invocation.return_value(GLib.Variant("(as)", (["actions", "body"],)))
        elif method == "GetServerInformation":
            invocation.return_value(GLib.Variant("(ssss)", ("demo", "quorvia", "1", "1.2")))
        else:
            invocation.return_value(None)

    node = Gio.DBusNodeInfo.new_for_xml(INTERFACE)
    connection.register_object(PATH, node.interfaces[0], on_call, None, None)
    connection.call_sync("org.freedesktop.DBus", "/org/freedesktop/DBus", "org.freedesktop.DBus",
                         "RequestName", GLib.Variant("(su)", (NAME, 4)), None,
                         Gio.DBusCallFlags.NONE, -1, None)
    print(json.dumps({"ready": True}), flush=True)

    def emit(notification_id, key):
        connection.emit_signal(None, PATH, NAME, "ActionInvoked",
                               GLib.Variant("(us)", (notification_id, key)))
        return False

    def read_commands():
        for line in sys.stdin:
            words = line.split()
            if len(words) == 3 and words[0] == "invoke":
                GLib.idle_add(emit, int(words[1]), words[2])
        GLib.idle_add(loop.quit)

    threading.Thread(target=read_commands, daemon=True).start()
    loop.run()


if __name__ == "__main__":
    main()
