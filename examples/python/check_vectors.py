#!/usr/bin/python3
"""Holds wire.py against the vectors: check_vectors.py docs/wire-vectors.json"""

import json
import sys

import wire

READ = {
    "requests": wire.read_request,
    "replies": wire.read_reply,
    "hellos": wire.read_hello,
    "policies": lambda body: wire.read_policy(body)[0],
    "answers": wire.read_answer,
}


def meaning(group, vector):
    """What a reader makes of it."""
    if group == "requests":
        return vector["type"], vector["waits"], bytes.fromhex(vector["data"])
    if group == "replies":
        return vector["result"], bytes.fromhex(vector["data"])
    if group == "hellos":
        return set(vector["types"])
    return bytes.fromhex(vector["policy"]) if group == "policies" else vector["answer"]


def write(group, vector, value):
    """What a writer makes of that."""
    if group == "requests":
        kind, waits, data = value
        return wire.write_request(kind, data, waits)
    if group == "replies":
        return wire.write_reply(*value)
    if group == "hellos":
        return wire.write_hello(value)
    header = wire.write_header(vector["word"] // 8, vector["version"])
    return (wire.write_policy if group == "policies" else wire.write_answer)(value, header)


def fault_of(group, vector):
    """Empty for none."""
    body = bytes.fromhex(vector["bytes"])
    try:
        read = READ[group](body)
    except ValueError as error:
        return "" if "refuse" in vector else "refused: %s" % error
    if "refuse" in vector:
        return "%r is read, and it is to be refused: %s" % (read, vector["refuse"])
    expected = meaning(group, vector)
    if read != expected:
        return "%r is read in place of %r" % (read, expected)
    written = write(group, vector, expected)
    if vector.get("written", True) and written != body:
        return "%s is written" % written.hex()
    return ""


def main():
    with open(sys.argv[1], encoding="utf-8") as file:
        vectors = json.load(file)
    if vectors["byte-order"] != sys.byteorder:
        sys.exit("these vectors are of the other byte order")
    checked = [(group, vector) for group in READ for vector in vectors[group]]
    faults = [(group, vector["name"], fault) for group, vector in checked
              if (fault := fault_of(group, vector))]
    for fault in faults:
        print("%s, %s: %s" % fault)
    print("%d vectors, %d faults" % (len(checked), len(faults)))
    return bool(faults)


sys.exit(main())
