"""The channel on D-Bus, with GLib's own binding: one object with two methods, at either end."""

import traceback

from gi.repository import Gio, GLib

NAME = "com.norvale.kel.IControl"  # the agent's; the interface has the same
PATH = "/com/norvale/kel/CommunicationChannel"
TIMEOUT = 10000  # milliseconds
MOST_BYTES = 32 * 1024 * 1024 - 4096  # a stock system bus disconnects who sends 32 MiB, header and all
INTERFACE = Gio.DBusNodeInfo.new_for_xml("""
<node>
  <interface name="com.norvale.kel.IControl">
    <method name="Send">
      <arg name="data" type="ay" direction="in"/>
      <arg name="response" type="ay" direction="out"/>
    </method>
    <method name="Hello">
      <arg name="events" type="ay" direction="in"/>
    </method>
  </interface>
</node>""").interfaces[0]


def pack(body):
    """The one argument, as a whole: GLib.Variant("(ay)", ...) would take a megabyte byte by byte."""
    if len(body) > MOST_BYTES:
        raise ValueError("%d bytes are more than the bus takes" % len(body))
    array = GLib.Variant.new_from_bytes(GLib.VariantType("ay"), GLib.Bytes.new(body), True)
    return GLib.Variant.new_tuple(array)


def unpack(parameters):
    return bytes(parameters.get_child_value(0).get_data_as_bytes().get_data() or b"")


def serve(connection, on_send, on_hello=None):
    """Has functions called for what comes in: on_send(sender, body) gives the body of the reply, and
    on_hello(sender, body) nothing. What one throws is told here, and the caller gets "not handled"."""

    def on_call(_connection, sender, _path, _interface, method, parameters, invocation):
        reply = b"\0"
        try:
            if method == "Send":
                reply = on_send(sender, unpack(parameters))
            elif on_hello:
                on_hello(sender, unpack(parameters))
        except Exception:
            traceback.print_exc()
        invocation.return_value(pack(reply) if method == "Send" else None)

    connection.register_object(PATH, INTERFACE, on_call, None, None)


def call(connection, destination, method, body, done=None, flags=Gio.DBusCallFlags.NONE):
    """Calls the other end, and waits for nothing: done(task) is called with the reply, if it is wanted."""
    connection.call(destination, PATH, NAME, method, pack(body), None, flags, TIMEOUT, None,
                    done and (lambda _connection, task: done(task)))
