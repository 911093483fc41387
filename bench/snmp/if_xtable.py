#!/usr/bin/env python3
# A pass_persist helper for snmpd: serves an ifXTable of N interfaces (N from
# the first argument, 500 by default) with counters that grow on every read,
# so a walk sees the shape and sizes of a big switch. With "interfaces" as the
# second argument it serves that switch's ifNumber and ifTable instead.
import bisect
import sys

base = (1, 3, 6, 1, 2, 1, 31, 1, 1, 1)
count = int(sys.argv[1]) if len(sys.argv) > 1 else 500
kinds = {1: "string", 2: "counter", 3: "counter", 4: "counter", 5: "counter", 6: "counter64",
         7: "counter64", 8: "counter64", 9: "counter64", 10: "counter64", 11: "counter64",
         12: "counter64", 13: "counter64", 14: "integer", 15: "gauge", 16: "integer",
         17: "integer", 18: "string", 19: "timeticks"}
if sys.argv[2:3] == ["interfaces"]:
    base = (1, 3, 6, 1, 2, 1, 2, 2, 1)
    kinds = {1: "index", 2: "string", 3: "integer", 4: "integer", 5: "gauge", 6: "empty", 7: "integer",
             8: "integer", 9: "timeticks", 21: "gauge", 22: "objectid"}
    kinds.update((column, "counter") for column in range(10, 21))
oids = sorted(base + (column, index) for column in kinds for index in range(1, count + 1))
if sys.argv[2:3] == ["interfaces"]:
    oids.insert(0, (1, 3, 6, 1, 2, 1, 2, 1, 0))
reads = 0


def value(oid):
    global reads
    if oid[: len(base)] != base:  # ifNumber
        return "integer", str(count)
    column, index = oid[-2], oid[-1]
    kind = kinds[column]
    reads += 1
    if kind == "index":
        return "integer", str(index)
    if kind == "objectid":
        return kind, ".0.0"
    if kind == "empty":
        return "string", ""
    if kind == "string":
        return kind, ("Te1/0/%d" % index) if column in (1, 2) else ("uplink %d" % index)
    if kind == "counter64":
        return kind, str((index * 1000003 + reads * 1500) % (1 << 64))
    if kind == "counter":
        return kind, str((index * 7 + reads) % (1 << 32))
    if kind == "gauge":
        return kind, "10000"
    return kind, "1" if kind == "integer" else "0"


def parse(text):
    return tuple(int(p) for p in text.strip().strip(".").split(".") if p)


def answer(oid):
    kind, val = value(oid)
    sys.stdout.write("." + ".".join(map(str, oid)) + "\n" + kind + "\n" + val + "\n")


for line in sys.stdin:
    command = line.strip()
    if command == "PING":
        sys.stdout.write("PONG\n")
    elif command in ("get", "getnext"):
        oid = parse(sys.stdin.readline())
        if command == "get":
            i = bisect.bisect_left(oids, oid)
            found = i < len(oids) and oids[i] == oid
        else:
            i = bisect.bisect_right(oids, oid)
            found = i < len(oids)
        if found:
            answer(oids[i])
        else:
            sys.stdout.write("NONE\n")
    elif command == "set":
        sys.stdin.readline()
        sys.stdin.readline()
        sys.stdout.write("not-writable\n")
    elif command == "":
        break
    sys.stdout.flush()
