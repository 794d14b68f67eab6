#!/usr/bin/python3
"""An agent without our library: it accepts a policy that begins like XML, refuses any other with 5,
and tells the applications that asked for it. SIGUSR1 has it ask them for information."""

import signal
import sys

from gi.repository import Gio, GLib

import bus
import wire

ACCEPTED = 0
REFUSED = 5  # an agent's numbers are its own


def say(text):
    print(text, flush=True)


class Agent:
    def __init__(self, connection):
        self.connection = connection
        self.clients = {}  # the types that each has asked for, by its unique name
        bus.serve(connection, self.on_send, self.on_hello)
        connection.signal_subscribe(
            "org.freedesktop.DBus", "org.freedesktop.DBus", "NameOwnerChanged",
            "/org/freedesktop/DBus", None, Gio.DBusSignalFlags.NONE, self.on_name)
        # The object first: who sees the name calls at once.
        Gio.bus_own_name_on_connection(
            connection, bus.NAME, Gio.BusNameOwnerFlags.NONE,
            lambda *_: say("ready"), lambda *_: sys.exit("the name is somebody else's, or forbidden"))

    def on_hello(self, sender, body):
        self.clients[sender] = wire.read_hello(body)  # the whole set, in place of the last one

    def on_name(self, _connection, _sender, _path, _interface, _signal, parameters):
        name, _old, new = parameters.unpack()
        if not new:
            self.clients.pop(name, None)

    def on_send(self, _sender, body):
        kind, _waits, data = wire.read_request(body)
        if kind != wire.SET_POLICY:
            return wire.write_reply(False)
        try:
            policy, header = wire.read_policy(data)
        except ValueError as error:
            say("declined: %s" % error)
            return wire.write_reply(False)
        say("policy of %d bytes: %.60r" % (len(policy), policy.decode(errors="replace")))
        if not policy.startswith(b"<"):
            return wire.write_reply(True, wire.write_answer(REFUSED, header))
        # When this call is over: whoever has made it takes no event while it waits for our answer.
        GLib.idle_add(self.send, wire.POLICY_UPDATE)
        return wire.write_reply(True, wire.write_answer(ACCEPTED, header))

    def send(self, kind):
        """To each application that has asked for it, to all at once."""
        for name in [name for name, kinds in self.clients.items() if kind in kinds]:
            bus.call(self.connection, name, "Send", wire.write_request(kind),
                     lambda task, name=name: self.on_outcome(name, kind, task),
                     Gio.DBusCallFlags.NO_AUTO_START)
        return GLib.SOURCE_REMOVE

    def on_outcome(self, name, kind, task):
        try:
            handled, _data = wire.read_reply(bus.unpack(self.connection.call_finish(task)))
            say("event %d: %s %s" % (kind, name, "handled" if handled else "not handled"))
        except (GLib.Error, ValueError) as error:
            say("event %d: %s: %s" % (kind, name, error))


signal.signal(signal.SIGINT, signal.SIG_DFL)  # ends without a word
agent = Agent(Gio.bus_get_sync(Gio.BusType.SYSTEM))
signal.signal(signal.SIGUSR1, lambda *_: agent.send(wire.PROCESS_INFO))
GLib.MainLoop().run()
