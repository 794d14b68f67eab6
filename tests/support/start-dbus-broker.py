"""start-dbus-broker.py SOCKET CONFIGURATION: becomes the launcher of a dbus-broker, without systemd.

The launcher wants what systemd gives it: a socket that listens already, a journal, and a service
manager on a bus. The journal is a socket that nobody reads, for the launcher never waits for it; the
bus is the launched one itself, where the service manager is missed by activation alone.
"""

import os
import socket
import subprocess
import sys

JOURNAL = "/run/systemd/journal/socket"

path, configuration = sys.argv[1:]
address = "unix:path=" + path

bus = socket.socket(socket.AF_UNIX)
bus.bind(path)
os.chmod(path, 0o666)
bus.listen(128)
print(address, flush=True)  # from here on one can connect

if os.geteuid() == 0:  # in a mount namespace of its own; otherwise the machine's journal has to do
    subprocess.run(["mount", "-t", "tmpfs", "tmpfs", "/run"], check=True)
    os.makedirs(os.path.dirname(JOURNAL))
    journal = socket.socket(socket.AF_UNIX, socket.SOCK_DGRAM)
    journal.bind(JOURNAL)
    journal.set_inheritable(True)

bus.set_inheritable(True)
os.dup2(bus.fileno(), 3)  # made first, so that this is not the journal's
os.environ.update(LISTEN_PID=str(os.getpid()), LISTEN_FDS="1", DBUS_SYSTEM_BUS_ADDRESS=address)
os.execvp("dbus-broker-launch", ["dbus-broker-launch", "--config-file", configuration])
