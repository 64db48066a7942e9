"""A random sequence of mapping operations, and what a gateway must answer to each of them."""

from support.network import WAN_ADDRESS, SoapError

PORTS = range(2000, 2032)
PROTOCOLS = ("TCP", "UDP")
# Ports of clients, by the usual policy.
NEVER_EXPOSED = {22, 23, 135, 137, 138, 139, 445, 3389, 5900}
DUMMY = {"NewRemoteHost": "", "NewExternalPort": "0", "NewProtocol": "TCP",
         "NewInternalPort": "0", "NewInternalClient": "0.0.0.0", "NewEnabled": "0",
         "NewPortMappingDescription": "Dummy inactive rule for windows to work",
         "NewLeaseDuration": "0"}


class Mapping:
    def __init__(self, client, internal_port, enabled, description):
        self.client = client
        self.internal_port = internal_port
        self.enabled = enabled
        self.description = description

    def out_arguments(self):
        return {"NewInternalPort": str(self.internal_port), "NewInternalClient": self.client,
                "NewEnabled": "1" if self.enabled else "0",
                "NewPortMappingDescription": self.description, "NewLeaseDuration": "0"}


class Operation:
    """An action with its arguments. `expected` is its out arguments or the code of its fault;
    `done` is called when it has been answered so."""

    def __init__(self, action, arguments, expected, done=lambda: None):
        self.action = action
        self.arguments = arguments
        self.expected = expected
        self.done = done

    def invoke(self, host, control):
        try:
            answer = host.invoke(self.action, self.arguments, control=control)
        except SoapError as fault:
            answer = fault.code
        if answer != self.expected:
            raise AssertionError(f"{self}: {answer}, not {self.expected}")
        self.done()

    def __repr__(self):
        return f"{self.action}({', '.join(str(value) for _, value in self.arguments)})"


class Mappings:
    """The table that the gateway must have; `table` maps (port, protocol) to Mapping. `random` is
    a random.Random, `clients` the addresses of the hosts that ports are opened for."""

    def __init__(self, random, clients):
        self.table = {}
        self._random = random
        self._clients = clients
        self._kinds = ((self.opening, 40), (self.closing, 25), (self.listing, 15),
                       (self.looking_up, 15), (self.refused, 5))

    def next(self):
        kinds, weights = zip(*self._kinds)
        return self._random.choices(kinds, weights)[0]()

    def opening(self, port=None, protocol=None, enabled=None):
        """Opens or changes a port, of these properties if they are given."""
        key = (port or self._random.choice(PORTS), protocol or self._random.choice(PROTOCOLS))
        internal_port = self._random.randrange(1, 65536)
        while internal_port in NEVER_EXPOSED:
            internal_port += 1
        mapping = Mapping(self._random.choice(self._clients), internal_port,
                          self._random.random() < 0.9 if enabled is None else enabled,
                          f"number {self._random.randrange(1000)}")
        old = self.table.get(key)
        conflict = old and old.client != mapping.client
        return Operation("AddPortMapping", _add_arguments(key, mapping),
                         718 if conflict else {},
                         lambda: conflict or self.table.update({key: mapping}))

    def all_openings(self):
        """Operations that open all ports that there may be."""
        return [self.opening(port, protocol, enabled=True)
                for port in PORTS for protocol in PROTOCOLS]

    def closing(self):
        key = self._any_key()
        return Operation("DeletePortMapping", _key_arguments(key),
                         {} if key in self.table else 714, lambda: self.table.pop(key, None))

    def listing(self, index=None):
        if index is None:
            index = self._random.randrange(len(self.table) + 3)
        return Operation("GetGenericPortMappingEntry", [("NewPortMappingIndex", index)],
                         self.entry(index) or 713)

    def looking_up(self):
        key = self._any_key()
        mapping = self.table.get(key)
        return Operation("GetSpecificPortMappingEntry", _key_arguments(key),
                         mapping.out_arguments() if mapping else 714)

    def refused(self):
        """A port that nobody may open like that."""
        free = (1024 + self._random.randrange(900), self._random.choice(PROTOCOLS))
        client = self._clients[0]
        key, changes, code = self._random.choice((
            ((80, "TCP"), {}, 501),
            (free, {"NewInternalClient": "8.8.8.8"}, 501),
            (free, {"NewInternalClient": WAN_ADDRESS}, 501),
            (free, {"NewInternalPort": "65536"}, 402),
            (free, {"NewInternalPort": "3389"}, 501),
            (free, {"NewProtocol": "SCTP"}, 402),
            (free, {"NewLeaseDuration": "3600"}, 725),
            (free, {"NewRemoteHost": "8.8.8.8"}, 726),
            (free, {"NewExternalPort": ""}, 716)))
        arguments = dict(_add_arguments(key, Mapping(client, 80, True, "refused")), **changes)
        return Operation("AddPortMapping", list(arguments.items()), code)

    def entry(self, index):
        """What is listed at the index, with the dummy before the others; None behind the end."""
        if index == 0:
            return DUMMY
        keys = sorted(self.table)
        if index > len(keys):
            return None
        port, protocol = keys[index - 1]
        return {"NewRemoteHost": "", "NewExternalPort": str(port), "NewProtocol": protocol,
                **self.table[keys[index - 1]].out_arguments()}

    def enabled(self):
        """The entries that the kernel must have: (port, protocol, client, its port)."""
        return {(port, protocol.lower(), m.client, m.internal_port)
                for (port, protocol), m in self.table.items() if m.enabled}

    def _any_key(self):
        """One that is in the table three times of four."""
        if self.table and self._random.random() < 0.75:
            return self._random.choice(sorted(self.table))
        return self._random.choice(PORTS), self._random.choice(PROTOCOLS)


def _key_arguments(key):
    return [("NewRemoteHost", ""), ("NewExternalPort", key[0]), ("NewProtocol", key[1])]


def _add_arguments(key, mapping):
    return _key_arguments(key) + [
        ("NewInternalPort", mapping.internal_port), ("NewInternalClient", mapping.client),
        ("NewEnabled", "1" if mapping.enabled else "0"),
        ("NewPortMappingDescription", mapping.description), ("NewLeaseDuration", "0")]
