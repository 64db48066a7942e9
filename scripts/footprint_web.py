"""What scripts/footprint --web does: the cost of the status page."""

import argparse
import contextlib
import pathlib
import selectors
import subprocess
import tempfile
import threading
import time

from footprint import PORTS, figures, measure_references, report
from support.bench import processor_time
from support.network import LAN_ADDRESS, ControlPoint, Network, wait_until
from support.processes import wait_until_at_rest
from support.router import Router

LISTENERS, LISTENERS_OF_A_HOST = 32, 4
CHANGES = 20  # and as many seconds
CHANGED_PORT = 19999
REFERENCE_PORT = 8099

# Accepts connections; then writes to each of them once a second.
WRITES = """
#include <arpa/inet.h>
#include <stdlib.h>
#include <sys/socket.h>
#include <unistd.h>
int main(int count, char** words) {
  (void)count;
  int sockets[1024], amount = atoi(words[2]), bytes = atoi(words[3]);
  char* text = calloc(1, bytes);
  struct sockaddr_in place = {.sin_family = AF_INET, .sin_port = htons(atoi(words[1]))};
  int listener = socket(AF_INET, SOCK_STREAM, 0);
  if (bind(listener, (struct sockaddr*)&place, sizeof place) != 0) return 1;
  listen(listener, amount);
  for (int i = 0; i < amount; ++i) sockets[i] = accept(listener, NULL, NULL);
  while (sleep(1) == 0)
    for (int i = 0; i < amount; ++i)
      if (write(sockets[i], text, bytes) != bytes) return 1;
}
"""

HEADS = ("", "resident", "own", "dirty", "processor")
MEANING = ("Memory in kB of 1,000 bytes: resident: in use; own: what of it no other process shares;"
           "\ndirty: what of that is in no file. Processor time in microseconds a second.")


class Listeners(contextlib.ExitStack):
    """Connections of many addresses of a LAN host that read all that comes."""

    def __init__(self, host):
        super().__init__()
        self.received = 0
        self._host = host
        self._addresses = [f"192.168.88.{100 + i}" for i in range(LISTENERS // LISTENERS_OF_A_HOST)]
        for address in self._addresses:
            host.namespace.ip("address", "add", f"{address}/24", "dev", ControlPoint.LINK)
        self._selector = self.enter_context(selectors.DefaultSelector())
        self._ends = threading.Event()
        self._reader = threading.Thread(target=self._read)
        self.callback(self._stop)
        self._reader.start()

    def connect(self, port, say=b""):
        for number in range(LISTENERS):
            sock = self.enter_context(self._host.namespace.socket())
            sock.bind((self._addresses[number // LISTENERS_OF_A_HOST], 0))
            sock.connect((LAN_ADDRESS, port))
            sock.sendall(say)
            self._selector.register(sock, selectors.EVENT_READ)

    def _read(self):
        while not self._ends.is_set():
            for ready, _ in self._selector.select(0.05):
                part = ready.fileobj.recv(65536)
                self.received += len(part)
                if not part:
                    self._selector.unregister(ready.fileobj)

    def _stop(self):
        self._ends.set()
        self._reader.join()


def spent(pid, work):
    """The microseconds of processor time that the process took for each second of the work."""
    before, began = processor_time(pid), time.monotonic()
    work()
    return round((processor_time(pid) - before) / 1000 / (time.monotonic() - began))


def rest():
    time.sleep(CHANGES)


def at_one_a_second(change):
    """Calls it with 0, 1, 2 and so on."""
    began = time.monotonic()
    for number in range(CHANGES):
        change(number)
        time.sleep(max(0.0, began + number + 1 - time.monotonic()))


def measure_page(rows):
    """Adds the rows of lumen-web. Returns the bytes of a change to one listener."""
    with Network() as network, Router(network) as router, Listeners(network.lan[1]) as listeners:
        router.set_up()
        router.lumenctl("nat", "policy", "set", f"max-rules-per-client={len(PORTS) + 1}")
        router.lumenctl("web", "on")
        pid = router.service("web")["process"]
        host = network.lan[0]
        control = host.connection_control()

        def look(state, work=rest):
            wait_until_at_rest([router.lumend.pid], seconds=1.0)
            processor = spent(pid, work)
            rows[state] = {**figures(pid), "processor": processor}

        def change(number):
            act = host.close_port if number % 2 else host.open_port
            act(CHANGED_PORT, "TCP", control=control)

        look("no listener")
        look("no listener, a change a second", lambda: at_one_a_second(change))
        listeners.connect(80, f"GET /events HTTP/1.0\r\nHost: {LAN_ADDRESS}\r\n\r\n".encode())
        metrics = f"palinode_web_listeners {LISTENERS}\n".encode()
        wait_until(lambda: metrics in fetched_metrics(host), "all listen")
        look(f"{LISTENERS} listeners")
        for port in PORTS:
            host.open_port(port, "TCP", control=control)
        look(f"{LISTENERS} listeners, {len(PORTS):,} ports")
        before = listeners.received
        look("the same, a change a second", lambda: at_one_a_second(change))
        return (listeners.received - before) // LISTENERS // CHANGES


def fetched_metrics(host):
    with host.connect(LAN_ADDRESS, 80) as sock:
        sock.sendall(f"GET /metrics HTTP/1.0\r\nHost: {LAN_ADDRESS}\r\n\r\n".encode())
        text = b""
        while part := sock.recv(65536):
            text += part
        return text


def measure_writer(rows, length):
    """Adds the row of a program in C that writes as many bytes to as many listeners."""
    with tempfile.TemporaryDirectory(prefix="palinode-") as folder, Network() as network, \
            Listeners(network.lan[1]) as listeners:
        source, program = pathlib.Path(folder, "writes.c"), pathlib.Path(folder, "writes")
        source.write_text(WRITES, encoding="ascii")
        subprocess.run(["gcc", "-O2", "-o", program, source], check=True)
        with network.router.popen(str(program), str(REFERENCE_PORT), str(LISTENERS),
                                  str(length)) as process:
            try:
                wait_until(lambda: network.router.run("ss", "-Hltn", f"sport = {REFERENCE_PORT}"),
                           "the reference listens")
                listeners.connect(REFERENCE_PORT)
                processor = spent(process.pid, rest)
                rows[f"C, writes {length} B a second to each"] = {**figures(process.pid),
                                                                 "processor": processor}
            finally:
                process.kill()


def measure():
    rows = {}
    length = measure_page(rows)
    measure_writer(rows, length)
    waits = measure_references()["C, waits"]
    rows["C, waits"] = {**waits["idle"], "processor": 0}
    return rows


def table(rows):
    width = max(map(len, rows))
    lines = [HEADS[0].ljust(width) + "".join(head.rjust(10) for head in HEADS[1:])]
    for name, row in rows.items():
        lines.append(name.ljust(width) + "".join(f"{row[head]:10,}" for head in HEADS[1:]))
    return "\n".join([*lines, "", MEANING])


def main():
    parser = argparse.ArgumentParser(prog="scripts/footprint --web")
    parser.add_argument("--json", action="store_true")
    report(measure, parser.parse_args().json, table)


if __name__ == "__main__":
    main()
