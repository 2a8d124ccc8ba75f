"""Subscriptions to the services of a scripted world, and the events that they are told."""
from bus import OBJECT
from labs import ROUTER_WAN, eventually
from subscribers import sid_of, subscribe
from worlds import WAN

EVENTS = "/upnp/event/"
INITIAL = [("ConnectionStatus", "Connected"), ("ExternalIPAddress", ROUTER_WAN), ("PortMappingNumberOfEntries", "0"),
           ("PossibleConnectionTypes", "IP_Routed")]


def wan_events(interface):
    return f"{EVENTS}wanipconn-{interface}"


def wan_control(interface):
    return f"/upnp/control/wanipconn-{interface}"


PATH, CONTROL = wan_events(WAN), wan_control(WAN)


def machine(world):
    name = world.lab.router.run("uname", "-n").stdout.strip()
    return name if len(name) < 4 else ""


def osinfo(world):
    return [("OSBuildNumber", "1234"), ("OSMachineName", machine(world)), ("OSMajorVersion", "2"), ("OSMinorVersion", "9")]


def begin(world, subscriber, path=PATH, initial=INITIAL, **options):
    """A subscription that has had its first notification; its id."""
    sid = sid_of(subscribe(subscriber.host, path, subscriber.callback, **options))
    subscriber.expect(sid, 0, initial)
    return sid


def change(world, running):
    """Changes ConnectionStatus."""
    world.router.tell_status([(OBJECT, "u32", WAN), (0x1000E, "bool", running)])


def settled(world, mark, lines):
    """Waits until these are the log lines since the mark, and asserts that there are no others."""
    eventually(lambda: len(world.daemon.since(mark)) >= len(lines), f"{lines}: {world.daemon.since(mark)}")
    assert world.daemon.since(mark) == lines


NOTIFY_LINES = [f"notify: {name} = '{value}'" for name, value in INITIAL]
