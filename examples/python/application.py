#!/usr/bin/python3
"""An application without our library: it sets the policy in a file, if one is named, and tells of the
agent's events until it is ended."""

import argparse
import signal
import sys

from gi.repository import Gio, GLib

import bus
import wire


def say(text):
    print(text, flush=True)


class Application:
    def __init__(self, connection):
        self.connection = connection
        self.callbacks = {
            wire.POLICY_UPDATE: lambda: say("the policy has changed"),
            wire.PROCESS_INFO: lambda: say("process information is wanted"),
        }
        bus.serve(connection, self.on_send)
        # Each agent that comes knows nobody.
        Gio.bus_watch_name_on_connection(
            connection, bus.NAME, Gio.BusNameWatcherFlags.NONE, lambda *_: self.say_hello(), None)

    def say_hello(self):
        bus.call(self.connection, bus.NAME, "Hello", wire.write_hello(self.callbacks))

    def on_send(self, _sender, body):
        kind, _waits, _data = wire.read_request(body)
        if kind not in self.callbacks:
            return wire.write_reply(False)
        self.callbacks[kind]()
        return wire.write_reply(True)

    def set_policy(self, policy, word):
        """The agent's answer; None for none. The bus starts the agent, if need be."""
        self.say_hello()  # before the policy, so that we hear of this one, too
        archive = wire.write_policy(policy, wire.write_header(word))
        request = wire.write_request(wire.SET_POLICY, archive)
        try:
            reply = self.connection.call_sync(
                bus.NAME, bus.PATH, bus.NAME, "Send", bus.pack(request), GLib.VariantType("(ay)"),
                Gio.DBusCallFlags.NONE, bus.TIMEOUT, None)
            handled, data = wire.read_reply(bus.unpack(reply))
            return wire.read_answer(data) if handled else None
        except (GLib.Error, ValueError) as error:
            print("application: %s" % error, file=sys.stderr)
            return None


options = argparse.ArgumentParser(description=__doc__)
options.add_argument("policy", nargs="?", metavar="FILE")
options.add_argument("--word", type=int, choices=wire.LENGTH, default=wire.WORD,
                     help="how many bytes the agent's words have, where not as many as ours")
options = options.parse_args()

signal.signal(signal.SIGINT, signal.SIG_DFL)  # ends without a word
application = Application(Gio.bus_get_sync(Gio.BusType.SYSTEM))
if options.policy:
    with open(options.policy, "rb") as file:
        answer = application.set_policy(file.read(), options.word)
    if answer is None:
        sys.exit("application: no answer")
    say("the agent answers %d" % answer)
GLib.MainLoop().run()
