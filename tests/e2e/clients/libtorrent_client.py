#!/usr/bin/python3
"""A BitTorrent program's engine, which opens its port by PCP, or by NAT-PMP where that is not
answered, and never by UPnP. Prints what becomes of it, and closes it when its standard input ends.
Needs the package python3-libtorrent.

    libtorrent_client.py PORT
"""

import select
import sys

import libtorrent

session = libtorrent.session({
    "listen_interfaces": f"0.0.0.0:{sys.argv[1]}",
    "enable_natpmp": True, "enable_upnp": False, "enable_lsd": False, "enable_dht": False,
    "alert_mask": libtorrent.alert.category_t.port_mapping_notification})
while not select.select([sys.stdin], [], [], 0.1)[0]:
    for alert in session.pop_alerts():
        print(alert.message(), flush=True)
# What it opened is closed when the session goes.
del session
