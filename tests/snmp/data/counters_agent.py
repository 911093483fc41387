#!/usr/bin/env python3
# A pass_persist helper for snmpd in the SNMP tests: serves sysUpTime and two
# interfaces whose figures the test sets. It reads STATE (its first argument)
# on every request: lines of "name value" for uptime (hundredths of a second),
# in32/out32 (interface 1's 32-bit ifInOctets/ifOutOctets) and in64/out64
# (interface 2's ifHCInOctets/ifHCOutOctets). Registered once per subtree it
# serves; each registration answers only inside its own subtree (the second
# argument).
import bisect
import sys

state_path = sys.argv[1]
root = tuple(int(p) for p in sys.argv[2].strip(".").split("."))


def state():
    values = {}
    try:
        with open(state_path) as f:
            for line in f:
                parts = line.split()
                if len(parts) == 2:
                    values[parts[0]] = int(parts[1])
    except OSError:
        pass
    return values


def table(s):
    sys_up = (1, 3, 6, 1, 2, 1, 1, 3, 0)
    if_entry = (1, 3, 6, 1, 2, 1, 2, 2, 1)
    ifx_entry = (1, 3, 6, 1, 2, 1, 31, 1, 1, 1)
    rows = {sys_up: ("timeticks", s.get("uptime", 0))}
    for index, name, speed in ((1, "wrap32", 100000000), (2, "hc64", 4294967295)):
        rows[if_entry + (1, index)] = ("integer", index)
        rows[if_entry + (2, index)] = ("string", name)
        rows[if_entry + (5, index)] = ("gauge", speed)
        rows[if_entry + (7, index)] = ("integer", 1)
        rows[if_entry + (8, index)] = ("integer", 1)
        for column in (13, 14, 19, 20):
            rows[if_entry + (column, index)] = ("counter", 0)
        rows[ifx_entry + (1, index)] = ("string", name)
    rows[if_entry + (10, 1)] = ("counter", s.get("in32", 0))
    rows[if_entry + (16, 1)] = ("counter", s.get("out32", 0))
    rows[if_entry + (10, 2)] = ("counter", s.get("in64", 0) % (1 << 32))
    rows[if_entry + (16, 2)] = ("counter", s.get("out64", 0) % (1 << 32))
    rows[ifx_entry + (6, 2)] = ("counter64", s.get("in64", 0))
    rows[ifx_entry + (10, 2)] = ("counter64", s.get("out64", 0))
    rows[ifx_entry + (15, 2)] = ("gauge", 10000)
    return {oid: v for oid, v in rows.items() if oid[: len(root)] == root}


def parse(text):
    return tuple(int(p) for p in text.strip().strip(".").split(".") if p)


for line in sys.stdin:
    command = line.strip()
    if command == "PING":
        sys.stdout.write("PONG\n")
    elif command in ("get", "getnext"):
        oid = parse(sys.stdin.readline())
        rows = table(state())
        oids = sorted(rows)
        i = bisect.bisect_left(oids, oid) if command == "get" else bisect.bisect_right(oids, oid)
        if i < len(oids) and (command == "getnext" or oids[i] == oid):
            kind, value = rows[oids[i]]
            sys.stdout.write("." + ".".join(map(str, oids[i])) + "\n%s\n%s\n" % (kind, value))
        else:
            sys.stdout.write("NONE\n")
    elif command == "set":
        sys.stdin.readline()
        sys.stdin.readline()
        sys.stdout.write("not-writable\n")
    elif command == "":
        break
    sys.stdout.flush()
