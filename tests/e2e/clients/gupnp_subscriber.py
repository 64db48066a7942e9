#!/usr/bin/python3
"""A control point made of GUPnP, which lives in a GLib main loop. Finds the WANIPConnection service
on a link, subscribes, and prints each value that it is told as "VARIABLE VALUE". Unsubscribes when
its standard input ends. Needs the packages gir1.2-gupnp-1.6 and python3-gi.

    gupnp_subscriber.py LINK
"""

import sys

import gi

gi.require_version("GUPnP", "1.6")
gi.require_version("GSSDP", "1.6")
from gi.repository import GLib, GObject, GSSDP, GUPnP

SERVICE = "urn:schemas-upnp-org:service:WANIPConnection:1"
VARIABLES = ("ConnectionStatus", "ExternalIPAddress", "PortMappingNumberOfEntries",
             "PossibleConnectionTypes")


def told(_proxy, variable, value, _data=None):
    print(variable, value, flush=True)


def found(_control_point, proxy):
    proxies.append(proxy)
    for variable in VARIABLES:
        proxy.add_notify(variable, GObject.TYPE_STRING, told, None)
    proxy.set_subscribed(True)


def leave(*_):
    for proxy in proxies:
        proxy.set_subscribed(False)
    return False


proxies = []
context = GUPnP.Context.new_full(sys.argv[1], None, 0, GSSDP.UDAVersion.VERSION_1_0)
control_point = GUPnP.ControlPoint.new(context, SERVICE)
control_point.connect("service-proxy-available", found)
control_point.set_active(True)
GLib.io_add_watch(sys.stdin, GLib.PRIORITY_DEFAULT, GLib.IOCondition.HUP, leave)
GLib.MainLoop().run()
