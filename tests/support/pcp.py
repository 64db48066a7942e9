"""Requests of NAT-PMP (RFC 6886) and PCP (RFC 6887), byte for byte."""

import socket
import struct

PORT = 5351
TCP, UDP = 6, 17
NONCE = bytes(range(12))


def natpmp_map(protocol, internal, external=0, lifetime=3600):
    """RFC 6886 section 3.3: version 0, opcode 1 (UDP) or 2 (TCP), ports, lifetime."""
    return struct.pack("!BBHHHI", 0, 2 if protocol == TCP else 1, 0, internal, external, lifetime)


def mapped(text):
    """An IPv4 address as one of IPv6."""
    return bytes(10) + b"\xff\xff" + socket.inet_aton(text)


def pcp_map(protocol, internal, external=0, *, host, lifetime=3600, options=b""):
    """RFC 6887 sections 7.1 and 11.1: header, then nonce, protocol, ports and wished address."""
    return (struct.pack("!BBHI", 2, 1, 0, lifetime) + mapped(host) + NONCE +
            struct.pack("!B3xHH", protocol, internal, external) + mapped("0.0.0.0") + options)


def ipv6_map(protocol, port, *, host, lifetime=3600, options=b""):
    """The same of an IPv6 host, without a wish."""
    return (struct.pack("!BBHI", 2, 1, 0, lifetime) + socket.inet_pton(socket.AF_INET6, host) +
            NONCE + struct.pack("!B3xHH", protocol, port, 0) + bytes(16) + options)
