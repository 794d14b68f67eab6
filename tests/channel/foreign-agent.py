#!/usr/bin/python3
"""An agent that shares no code with the library: Python's own D-Bus binding.

Its answer to a "Send" is the byte 1, then the latest "Hello", then the request, byte for byte.
A request of type 98 kills it before it answers, one of type 99 after.
"""

import os
import struct

import dbus
import dbus.service
from dbus.mainloop.glib import DBusGMainLoop
from gi.repository import GLib

INTERFACE = "com.norvale.kel.IControl"
DIE_BEFORE = 98
DIE_AFTER = 99


class Agent(dbus.service.Object):
    hello = b""

    @dbus.service.method(INTERFACE, in_signature="ay", out_signature="ay", byte_arrays=True)
    def Send(self, data):
        message_type = struct.unpack("=i", data[:4])[0]
        if message_type == DIE_BEFORE:
            os._exit(1)
        if message_type == DIE_AFTER:
            GLib.idle_add(lambda: os._exit(1))
        return dbus.ByteArray(b"\x01" + self.hello + data)

    @dbus.service.method(INTERFACE, in_signature="ay", byte_arrays=True)
    def Hello(self, events):
        self.hello = bytes(events)


DBusGMainLoop(set_as_default=True)
bus = dbus.SystemBus()
agent = Agent(bus, "/com/norvale/kel/CommunicationChannel")
name = dbus.service.BusName(INTERFACE, bus, do_not_queue=True)
GLib.MainLoop().run()
