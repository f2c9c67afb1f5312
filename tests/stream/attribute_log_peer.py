#!/usr/bin/env python3
"""Mounts the IPv4 interface configuration of an agent for writing, by docs/attribute-log.md alone.

Prints what the first synchronisation brings, a line for each interface; then turns forwarding off
on the first one, and says so once the owner has seen that.

Usage: attribute_log_peer.py SOCKET
"""

import socket
import struct
import sys

VALUE, REMOVAL, INSTANTIATE, ADOPT, BEGIN_WHOLE, END_WHOLE, STATE = range(7)
TYPE, ACK, AGAIN, BIND, ROOT, NO_ROOT, BEGIN, END = range(1, 9)
HELLO, MOUNT, REFUSED = 64, 65, 66
VARIES, COUNTS_ITSELF = 0, 255
MOUNT_NUMBER = 1

PLAIN, COLLECTION = 1, 3  # kinds of attributes
OWNS = 32  # a collection's shape

# What this peer knows of the types, from docs/reference: number, name, type, key type, kind, shape,
# and bytes in a state.
KNOWN = {
    'Ip::Config': [(258, 'ipIntfConfig', 'Ip::IpIntfConfig', 'Velon::IntfId', COLLECTION, OWNS, 1)],
    'Ip::IpIntfConfig': [
        (268, 'forwarding', 'bool', '', PLAIN, 0, 1),
        (280, 'maxMssEgress', 'U16', '', PLAIN, 0, 2),
    ],
}


def crc_table():
    table = []
    for byte in range(256):
        for _ in range(8):
            byte = byte >> 1 ^ (0x82F63B78 if byte & 1 else 0)
        table.append(byte)
    return table


CRC = crc_table()


def crc32c(data, before=0):
    crc = before ^ 0xFFFFFFFF
    for byte in data:
        crc = crc >> 8 ^ CRC[(crc ^ byte) & 0xFF]
    return crc ^ 0xFFFFFFFF


def mix(hash, text):
    for byte in text.encode() + b'\xff':
        hash = (hash ^ byte) * 0x100000001B3 % (1 << 64)
    return hash


def signature(row):
    number, name, type_name, key_type, kind, shape, _ = row
    hash = 0xCBF29CE484222325
    for part in (name, type_name, key_type, str(number), str(kind), str(shape)):
        hash = mix(hash, part)
    return (hash ^ hash >> 32) & 0xFFFFFFFF


def fingerprint(name):
    hash = mix(0xCBF29CE484222325, name)
    for row in sorted(KNOWN[name]):
        hash = mix(hash, str(signature(row)))
    return hash


def text(value):
    return struct.pack('>I', len(value)) + value.encode()


class Body:
    def __init__(self, data):
        self.data = data

    def bytes(self, count):
        assert count <= len(self.data), 'a record that is as long as it says'
        head, self.data = self.data[:count], self.data[count:]
        return head

    def number(self, size):
        return int.from_bytes(self.bytes(size), 'big')

    def text(self):
        return self.bytes(self.number(4)).decode()


class Peer:
    def __init__(self, path):
        self.socket = socket.socket(socket.AF_UNIX)
        self.socket.connect(path)
        self.received = self.sent = 0
        self.generations = {}  # of the owner's flows
        self.types = []  # the owner's: name, attributes in the order of a state
        self.own_types = []
        self.flows = {}  # the owner's: type's name, name or key, values
        self.own_flows = {}  # by the owner's
        self.seen = 0  # records of ours that the owner has seen
        self.complete = False

    # -- Writing

    def send(self, flow, attribute, body, kind=VALUE):
        body = b'\0' + body + b'\2'
        head = struct.pack('>IIHBB', 20 + len(body), flow, attribute, kind, 0)
        check = crc32c(struct.pack('>I', self.sent) + head)
        self.socket.sendall(head + struct.pack('>II', check, crc32c(body, check)) + body)
        self.sent += 1

    def type_number(self, name):
        if name not in self.own_types:
            self.own_types.append(name)
            body = struct.pack('>I', len(self.own_types)) + text(name)
            body += struct.pack('>QI', fingerprint(name), len(KNOWN[name]))
            for row in KNOWN[name]:
                body += struct.pack('>HIB', row[0], signature(row), row[6])
            self.send(0, TYPE, body)
        return self.own_types.index(name) + 1

    def bind(self, theirs):
        own = len(self.own_flows) + 1
        number = self.type_number(self.flows[theirs]['type'])
        self.own_flows[theirs] = own
        self.send(0, BIND, struct.pack('>5I', own, 0, theirs, self.generations[theirs], number))

    # -- Reading

    def record(self):
        head = self.exactly(20)
        length, flow, attribute, kind, flags, check, checksum = struct.unpack('>IIHBBII', head)
        assert crc32c(struct.pack('>I', self.received) + head[:12]) == check
        rest = self.exactly(length - 20)
        assert crc32c(rest, check) == checksum and rest[0] == 0 and rest[-1] == 2 and flags == 0
        self.received += 1
        body = Body(rest[1:-1])
        if flow == 0:
            self.control(attribute, body)
        elif kind in (INSTANTIATE, ADOPT):
            self.instance(body, attribute)
        elif kind == STATE:
            self.state(self.flows[flow], body)
        elif kind == VALUE and self.flows[flow]['type'] in KNOWN:
            self.value(self.flows[flow], attribute, body)

    def exactly(self, count):
        data = b''
        while len(data) < count:
            part = self.socket.recv(count - len(data))
            assert part, 'the owner closed the connection'
            data += part
        return data

    def control(self, message, body):
        if message == TYPE:
            body.number(4)
            name = body.text()
            body.number(8)
            attributes = [(body.number(2), body.number(4), body.number(1))
                          for _ in range(body.number(4))]
            self.types.append((name, attributes))
        elif message == ACK:
            self.seen = body.number(8)
        elif message == ROOT:
            assert body.number(4) == MOUNT_NUMBER
            body.text()  # of its type, which follows by number
            name = body.text()
            self.flow(body, name)
        elif message == END:
            self.complete = True
        elif message == REFUSED:
            body.number(4)
            sys.exit('refused: ' + body.text())

    def flow(self, body, key):
        number, generation, type_number = body.number(4), body.number(4), body.number(4)
        if key is None:
            key = body.text()
        if number:
            self.generations[number] = generation
            name = self.types[type_number - 1][0]
            self.flows[number] = {'type': name, 'key': key, 'values': {}}
            if name in KNOWN:
                self.bind(number)

    def instance(self, body, attribute):
        # Names, interface ids and texts are keys of one form; of others nothing is known here.
        self.flow(body, None)

    def state(self, flow, body):
        known = {row[0]: row for row in KNOWN.get(flow['type'], [])}
        for number, their_signature, size in dict(self.types)[flow['type']]:
            if size == VARIES or size == COUNTS_ITSELF:
                size = body.number(4)
            value = body.bytes(size)
            row = known.get(number)
            if row and row[4] == PLAIN:
                assert signature(row) == their_signature, row[1]
                flow['values'][row[1]] = int.from_bytes(value, 'big')
        assert not body.data

    def value(self, flow, attribute, body):
        for row in KNOWN[flow['type']]:
            if row[0] == attribute and row[4] == PLAIN:
                flow['values'][row[1]] = body.number(row[6])


def main():
    peer = Peer(sys.argv[1])
    peer.send(0, HELLO, b'ipst' + struct.pack('>H', 2))
    peer.send(0, MOUNT, struct.pack('>I', MOUNT_NUMBER) + text('ip/config') + text('Ip::Config') +
              text('w') + b'\0')
    while not peer.complete:
        peer.record()
    interfaces = sorted((flow['key'], number) for number, flow in peer.flows.items()
                        if flow['type'] == 'Ip::IpIntfConfig')
    for key, number in interfaces:
        values = peer.flows[number]['values']
        print(key, *(f'{name}={value}' for name, value in sorted(values.items())))
    first = interfaces[0][1]
    peer.send(peer.own_flows[first], 268, b'\0')
    while peer.seen < peer.sent:
        peer.record()
    print('seen')


main()
