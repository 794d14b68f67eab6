"""The bytes of the channel: what every message and every archive is made of.

Nothing here knows a bus. What a reader has to refuse is a ValueError; what it has to take as something
else, it takes so. The numbers are in this machine's byte order, as those of all its programs are.
"""

import struct

SET_POLICY = 4  # from an application; the rest is from the agent
POLICY_UPDATE = 2
PROCESS_INFO = 4

SIGNATURE = b"serialization::archive"
OLDEST_VERSION = 8  # of older ones the version takes one byte or two
VERSION = 18  # of Boost 1.74. Boost reads what is no newer than itself
WORD = struct.calcsize("P")  # of this interpreter, and so of the programs around it, as a rule
LENGTH = {4: "=I", 8: "=Q"}  # a length has as many bytes as its writer's words


def write_request(kind, data=b"", waits=True):
    return struct.pack("=iB", kind, not waits) + data


def read_request(body):
    """The type, whether the sender waits for the reply, and the data."""
    if len(body) < 5:
        return 0, True, b""
    kind, flag = struct.unpack_from("=iB", body)
    return kind, flag == 0, body[5:]


def write_reply(handled, data=b""):
    return bytes([bool(handled)]) + data


def read_reply(body):
    """Whether the message was handled, and the data."""
    if not body:
        raise ValueError("a reply without a result")
    return body[0] != 0, body[1:]


def write_hello(kinds):
    kinds = sorted(set(kinds))
    return struct.pack("=%di" % len(kinds), *kinds)


def read_hello(body):
    return set(struct.unpack_from("=%di" % (len(body) // 4), body))


def write_header(word=WORD, version=VERSION):
    return (struct.pack(LENGTH[word], len(SIGNATURE)) + SIGNATURE + struct.pack("=H", version)
            + bytes([4, word, 4, 8])  # of an int, a long, a float and a double
            + struct.pack("=i", 1))


def read_header(archive):
    """The size of the writer's words, and the bytes of the header."""
    for word in LENGTH:
        end = len(write_header(word))
        version = archive[word + len(SIGNATURE):][:2]
        if len(version) == 2:
            number, = struct.unpack("=H", version)
            if number >= OLDEST_VERSION and archive[:end] == write_header(word, number):
                return word, archive[:end]
    raise ValueError("no archive, or one of another kind of machine")


def write_policy(policy, header=write_header()):
    word, _ = read_header(header)
    return header + struct.pack(LENGTH[word], len(policy)) + policy


def read_policy(archive):
    """The policy, and the header: an answer that begins with the same one can be read by who asks."""
    word, header = read_header(archive)
    begin = len(header) + word
    if len(archive) < begin:
        raise ValueError("an archive without a string")
    length, = struct.unpack_from(LENGTH[word], archive, len(header))
    if length != len(archive) - begin:
        raise ValueError("a string that does not end where the archive ends")
    return archive[begin:], header


def write_answer(answer, header=write_header()):
    return header + struct.pack("=i", answer)


def read_answer(archive):
    _, header = read_header(archive)
    if len(archive) < len(header) + 4:
        raise ValueError("an archive without a number")
    return struct.unpack_from("=i", archive, len(header))[0]
