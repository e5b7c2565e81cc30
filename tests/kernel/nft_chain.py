#!/usr/bin/python3
"""Makes a chain of another program in nftables, for machines without the program "nft":

    nft_chain.py FAMILY TABLE CHAIN TYPE HOOK PRIORITY POLICY [PORT drop|PORT redirect TO]...

such as: nft_chain.py inet others pre nat prerouting -100 accept 8443 redirect 23
"""

import socket
import struct
import sys

FAMILIES = {"inet": 1, "ip": 2, "ip6": 10}
HOOKS = {"prerouting": 0, "input": 1, "forward": 2}
DROP, ACCEPT = 0, 1

REQUEST, ACK, CREATE, APPEND = 0x1, 0x4, 0x400, 0x800
BATCH_BEGIN, BATCH_END = 0x10, 0x11
NFTABLES = 10
NEW_TABLE, NEW_CHAIN, NEW_RULE = 0, 3, 6
NESTED = 0x8000


def attribute(kind, value):
    length = 4 + len(value)
    return struct.pack("=HH", length, kind) + value + b"\0" * (-length % 4)


def text(kind, value):
    return attribute(kind, value.encode() + b"\0")


def number(kind, value):
    return attribute(kind, struct.pack("!i", value))


def nested(kind, *values):
    return attribute(kind | NESTED, b"".join(values))


def expression(name, *values):
    return nested(1, text(1, name), nested(2, *values))


def data(kind, value):
    return nested(kind, attribute(1, value))


def is_equal(value):
    return expression("cmp", number(1, 1), number(2, 0), data(3, value))


def rule(port, verdict, target):
    found = [
        expression("meta", number(1, 1), number(2, 16)),  # the protocol
        is_equal(b"\6"),
        expression("payload", number(1, 1), number(2, 2), number(3, 2), number(4, 2)),  # the port
        is_equal(struct.pack("!H", port)),
    ]
    if verdict == "drop":
        found.append(expression("immediate", number(1, 0), nested(2, nested(2, number(1, DROP)))))
    else:
        found.append(expression("immediate", number(1, 1), data(2, struct.pack("!H", target))))
        found.append(expression("redir", number(1, 1), number(2, 1)))
    return nested(4, *found)


def message(kind, flags, family, body, resource=0):
    content = struct.pack("=BBH", family, 0, socket.htons(resource)) + body
    return struct.pack("=IHHII", 16 + len(content), kind, flags, 1, 0) + content


def main():
    family, table, chain, kind, hook, priority, policy, *words = sys.argv[1:]
    requests = [
        (NEW_TABLE, CREATE, text(1, table)),
        (NEW_CHAIN, CREATE,
         text(1, table) + text(3, chain) +
         nested(4, number(1, HOOKS[hook]), number(2, int(priority))) +
         number(5, ACCEPT if policy == "accept" else DROP) + text(7, kind)),
    ]
    while words:
        port, verdict = int(words.pop(0)), words.pop(0)
        target = int(words.pop(0)) if verdict == "redirect" else 0
        requests.append((NEW_RULE, CREATE | APPEND,
                         text(1, table) + text(2, chain) + rule(port, verdict, target)))
    batch = message(BATCH_BEGIN, REQUEST, 0, b"", NFTABLES)
    for what, flags, body in requests:
        batch += message(NFTABLES << 8 | what, REQUEST | ACK | flags, FAMILIES[family], body)
    batch += message(BATCH_END, REQUEST, 0, b"", NFTABLES)
    with socket.socket(socket.AF_NETLINK, socket.SOCK_RAW, 12) as kernel:
        kernel.settimeout(5)
        kernel.send(batch)
        for _ in requests:
            answer = kernel.recv(65536)
            while answer:
                length, _, _, _, _, error = struct.unpack("=IHHIIi", answer[:20])
                if error:
                    sys.exit(f"nft_chain.py: the kernel answers {-error}")
                answer = answer[length:]


main()
