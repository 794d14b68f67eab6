"""An agent that uses none of our code: it takes the policy out of the archive by hand, answers 0 to
what begins like XML and 5 to the rest."""

import struct
import sys

from gi.repository import Gio, GLib

NAME = "com.norvale.kel.IControl"
PATH = "/com/norvale/kel/CommunicationChannel"
INTERFACE = Gio.DBusNodeInfo.new_for_xml("""
<node>
  <interface name="com.norvale.kel.IControl">
    <method name="Send">
      <arg name="request" type="ay" direction="in"/>
      <arg name="response" type="ay" direction="out"/>
    </method>
    <method name="Hello">
      <arg name="events" type="ay" direction="in"/>
    </method>
  </interface>
</node>""").interfaces[0]

SIGNATURE = b"serialization::archive"


def say(text):
    print(text, flush=True)


def answer(request):
    kind, _asynchronous = struct.unpack_from("=i?", request)
    archive = request[5:]
    if kind != 4:
        return b"\0"
    # The signature stands behind its length, which has as many bytes as the sender's words.
    size = archive.index(SIGNATURE)
    header_length = size + len(SIGNATURE) + 2 + 8
    (length,) = struct.unpack_from("=Q" if size == 8 else "=I", archive, header_length)
    policy = archive[header_length + size :]
    assert len(policy) == length
    say("policy %r" % policy.decode())
    result = 0 if policy.startswith(b"<") else 5
    return b"\1" + archive[:header_length] + struct.pack("=i", result)


def on_call(_connection, _sender, _path, _interface, method, parameters, invocation):
    if method == "Send":
        request = bytes(parameters.get_child_value(0).get_data_as_bytes().get_data())
        invocation.return_value(GLib.Variant("(ay)", (answer(request),)))
    else:
        invocation.return_value(None)


connection = Gio.bus_get_sync(Gio.BusType.SYSTEM)
connection.register_object(PATH, INTERFACE, on_call, None, None)
Gio.bus_own_name_on_connection(
    connection, NAME, Gio.BusNameOwnerFlags.NONE, lambda *_: say("ready"), lambda *_: sys.exit(1)
)
GLib.MainLoop().run()
