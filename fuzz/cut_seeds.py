#!/usr/bin/env python3
"""Cuts seed inputs for fuzz_attr_create out of the captured IPP messages.

For every value tag seen, the first attribute that starts with it (with its
additional values), the first whole collection (begCollection up to its
endCollection), and the attribute part of two messages. Run from anywhere:
    fuzz/cut_seeds.py [corpus-dir] [seed-dir]
"""
import os
import struct
import sys

here = os.path.dirname(os.path.abspath(__file__))
corpus = sys.argv[1] if len(sys.argv) > 1 else os.path.join(here, "..", "..", "shared", "corpus")
seeds = sys.argv[2] if len(sys.argv) > 2 else os.path.join(here, "corpus", "fuzz_attr_create")


def fields(msg):
    """(offset, tag, name, end) of each field after the 8-byte header."""
    o = 8
    while o < len(msg):
        tag = msg[o]
        if tag < 0x10:
            if tag == 0x03:
                return
            o += 1
            continue
        if o + 3 > len(msg):
            return
        (nl,) = struct.unpack(">h", msg[o + 1:o + 3])
        if nl < 0 or o + 5 + nl > len(msg):
            return
        (vl,) = struct.unpack(">h", msg[o + 3 + nl:o + 5 + nl])
        end = o + 5 + nl + max(vl, 0)
        yield o, tag, msg[o + 3:o + 3 + nl], end
        o = end


def main():
    os.makedirs(seeds, exist_ok=True)
    out = {}
    names = sorted(n for n in os.listdir(corpus) if n.endswith(".ipp"))
    for n in names:
        msg = open(os.path.join(corpus, n), "rb").read()
        fl = list(fields(msg))
        for i, (o, tag, name, end) in enumerate(fl):
            if tag == 0x34 and name and "collection" not in out:
                depth, j = 0, i
                while j < len(fl):
                    depth += {0x34: 1, 0x37: -1}.get(fl[j][1], 0)
                    if depth == 0:
                        out["collection"] = msg[o:fl[j][3]]
                        break
                    j += 1
            key = "tag-%02x" % tag
            if not name or key in out:
                continue
            j = i + 1
            while j < len(fl) and not fl[j][2] and fl[j][1] not in (0x34, 0x37, 0x4A):
                j += 1
            out[key] = msg[o:fl[j - 1][3]]
    for n in ("001-get-printer-attributes.req.ipp", "010-print-job.req.ipp"):
        msg = open(os.path.join(corpus, n), "rb").read()
        fl = list(fields(msg))
        if fl:
            out["message-" + n.split(".")[0]] = msg[8:fl[-1][3]]
    for key, data in sorted(out.items()):
        with open(os.path.join(seeds, key), "wb") as f:
            f.write(data)
    print("%d seeds in %s" % (len(out), seeds))


if __name__ == "__main__":
    main()
