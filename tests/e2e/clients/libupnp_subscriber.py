#!/usr/bin/python3
"""A control point made of libupnp, which has threads instead of a main loop. Subscribes to the
WANIPConnection service of a description and prints each value that it is told as "VARIABLE VALUE".
Unsubscribes when its standard input ends. Needs the package libupnp-dev.

    libupnp_subscriber.py LINK DESCRIPTION_URL
"""

import ctypes
import os
import sys
import urllib.parse
import xml.etree.ElementTree

SERVICE = "urn:schemas-upnp-org:service:WANIPConnection:1"
EVENT_RECEIVED = 9  # Upnp_EventType in Callback.h

upnp = ctypes.CDLL("libupnp.so")
ixml = ctypes.CDLL("libixml.so")
Callback = ctypes.CFUNCTYPE(ctypes.c_int, ctypes.c_int, ctypes.c_void_p, ctypes.c_void_p)

upnp.UpnpEvent_get_ChangedVariables.argtypes = [ctypes.c_void_p]
upnp.UpnpEvent_get_ChangedVariables.restype = ctypes.c_void_p
upnp.UpnpGetErrorMessage.restype = ctypes.c_char_p
ixml.ixmlPrintDocument.argtypes = [ctypes.c_void_p]
ixml.ixmlPrintDocument.restype = ctypes.c_void_p
ixml.ixmlFreeDOMString.argtypes = [ctypes.c_void_p]


def check(status, what):
    if status != 0:
        sys.exit(f"{what}: {upnp.UpnpGetErrorMessage(status).decode()}")


def document(pointer):
    """The XML that an IXML_Document holds."""
    text = ixml.ixmlPrintDocument(pointer)
    try:
        return xml.etree.ElementTree.fromstring(ctypes.string_at(text))
    finally:
        ixml.ixmlFreeDOMString(text)


@Callback
def told(kind, event, _cookie):
    if kind == EVENT_RECEIVED:
        for prop in document(upnp.UpnpEvent_get_ChangedVariables(event)):
            for variable in prop:
                print(variable.tag, variable.text or "", flush=True)
    return 0


def event_url(description_url):
    description = ctypes.c_void_p()
    check(upnp.UpnpDownloadXmlDoc(description_url.encode(), ctypes.byref(description)), "download")
    for service in document(description).iterfind(".//{*}service"):
        if service.findtext("{*}serviceType") == SERVICE:
            return urllib.parse.urljoin(description_url, service.findtext("{*}eventSubURL"))
    sys.exit("no such service")


link, url = sys.argv[1:]
check(upnp.UpnpInit2(link.encode(), 0), "start")
handle = ctypes.c_int()
check(upnp.UpnpRegisterClient(told, None, ctypes.byref(handle)), "register")
time_limit, sid = ctypes.c_int(1800), ctypes.create_string_buffer(44)
check(upnp.UpnpSubscribe(handle, event_url(url).encode(), ctypes.byref(time_limit), sid),
      "subscribe")
sys.stdin.read()
check(upnp.UpnpUnSubscribe(handle, sid), "unsubscribe")
os._exit(0)  # its own end takes seconds
