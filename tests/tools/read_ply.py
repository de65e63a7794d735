#!/usr/bin/env python3
"""A small PLY reader written for the tests, independent of luafxs.

Reads an ASCII or binary little-endian PLY file with one vertex element and
prints a JSON object: {"format": ..., "count": n, "properties": [...],
"vertices": [[...], ...]}. Exits 1 with a message when the file does not
follow the PLY layout (wrong magic, unknown type, short data, extra bytes).
"""
import json
import struct
import sys

TYPES = {"char": "b", "uchar": "B", "short": "h", "ushort": "H", "int": "i",
         "uint": "I", "float": "f", "double": "d", "int8": "b", "uint8": "B",
         "int16": "h", "uint16": "H", "int32": "i", "uint32": "I",
         "float32": "f", "float64": "d"}


def fail(message):
    print(message, file=sys.stderr)
    sys.exit(1)


def main(path):
    data = open(path, "rb").read()
    end = data.find(b"end_header\n")
    if end < 0:
        fail("no end_header line")
    header = data[:end].decode("ascii").split("\n")
    body = data[end + len(b"end_header\n"):]
    if header[0] != "ply":
        fail("First line should be 'ply'")
    fmt, count, props = None, None, []
    for line in header[1:]:
        words = line.split()
        if not words or words[0] == "comment":
            continue
        if words[0] == "format":
            fmt = words[1]
        elif words[0] == "element":
            if words[1] != "vertex" or count is not None:
                fail("only one vertex element is expected")
            count = int(words[2])
        elif words[0] == "property":
            if words[1] not in TYPES:
                fail("unknown property type " + words[1])
            props.append((words[2], TYPES[words[1]]))
    if fmt not in ("ascii", "binary_little_endian") or count is None:
        fail("unsupported format")
    vertices = []
    if fmt == "ascii":
        lines = body.decode("ascii").split("\n")
        if lines and lines[-1] == "":
            lines.pop()
        if len(lines) != count:
            fail("expected %d vertex lines, found %d" % (count, len(lines)))
        for line in lines:
            words = line.split()
            if len(words) != len(props):
                fail("vertex line with %d values, expected %d" % (len(words), len(props)))
            vertices.append([float(w) for w in words])
    else:
        layout = "<" + "".join(t for _, t in props)
        size = struct.calcsize(layout)
        if len(body) != size * count:
            fail("binary body of %d bytes, expected %d" % (len(body), size * count))
        for i in range(count):
            vertices.append(list(struct.unpack_from(layout, body, i * size)))
    json.dump({"format": fmt, "count": count, "properties": [n for n, _ in props],
               "vertices": vertices}, sys.stdout)


if __name__ == "__main__":
    main(sys.argv[1])
