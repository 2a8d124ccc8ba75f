"""A control point made with GUPnP: finds a service, subscribes to it, and prints each event as "variable = value"."""
import sys

import gi

gi.require_version("GUPnP", "1.6")
from gi.repository import GLib, GObject, GUPnP  # noqa: E402

VARIABLES = {"ConnectionStatus": GObject.TYPE_STRING, "ExternalIPAddress": GObject.TYPE_STRING,
             "PortMappingNumberOfEntries": GObject.TYPE_STRING, "PossibleConnectionTypes": GObject.TYPE_STRING}
kept = []  # otherwise collected while it listens


def told(_, variable, value):
    print(f"{variable} = {value}")


def found(_, service):
    for variable, kind in VARIABLES.items():
        service.add_notify(variable, kind, told)
    service.set_subscribed(True)
    kept.append(service)


interface, kind = sys.argv[1:]
context = GUPnP.Context.new(interface, 0)
point = GUPnP.ControlPoint.new(context, kind)
point.connect("service-proxy-available", found)
point.set_active(True)
GLib.MainLoop().run()
