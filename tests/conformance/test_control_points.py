"""Real control points in the LAN: they find the gateway, map ports, and hear of what changes."""
import pathlib
import re
import shutil
import subprocess

import pytest

from control_point import (CONNECTION, LOCATION, OSINFO, call, mapping, query, result, root_pairs, variable_answer,
                           wan_pairs)
from labs import LAN1, ROUTER_WAN, eventually

HERE = pathlib.Path(__file__).resolve().parent


@pytest.fixture
def path(lab):
    return f"/upnp/control/wanipconn-{lab.interface_id('wan0')}"


def python(lab, script):
    """Runs a script with Debian's interpreter, which finds Debian's modules."""
    return lab.lan1.run("/usr/bin/python3", "-c", script).stdout.splitlines()


def test_python3_miniupnpc_finds_maps_lists_and_deletes(lab):
    told = python(lab, f"""
import miniupnpc
point = miniupnpc.UPnP(multicastif={LAN1!r}, minissdpdsocket='/nonexistent')
point.discoverdelay = 500
print(point.discover())
point.selectigd()
print(point.lanaddr, point.externalipaddress(), *point.statusinfo()[:1], point.connectiontype())
print(point.addportmapping(80, 'TCP', {LAN1!r}, 8080, 'web', ''))
print(point.getspecificportmapping(80, 'TCP'))
print(point.getgenericportmapping(0))
print(point.getgenericportmapping(1))
print(point.getgenericportmapping(2))
print(point.deleteportmapping(80, 'TCP'))
""")
    assert told[0].isdigit() and int(told[0]) >= 1
    assert told[1] == f"{LAN1} {ROUTER_WAN} Connected IP_Routed"
    assert told[2] == "True"
    assert told[3] == f"('{LAN1}', 8080, 'web', True, 0)"
    assert told[4:] == [
        "(0, 'TCP', ('0.0.0.0', 0), 'Dummy inactive rule for windows to work', '0', '', 0)",
        f"(80, 'TCP', ('{LAN1}', 8080), 'web', '1', '', 0)", "None", "True"]


@pytest.mark.parametrize("target", ["upnp:rootdevice", CONNECTION, "urn:schemas-upnp-org:device:WANDevice:1"])
def test_gssdp_discover_finds_each_kind(lab, target):
    pairs = dict([*root_pairs(lab.identity()), *wan_pairs(lab.identity(), lab.interface_id("wan0"))])
    found = lab.lan1.run("gssdp-discover", "-i", "eth0", "-n", "2", "-t", target).stdout
    assert f"  USN:      {pairs[target]}\n" in found and f"  Location: {LOCATION}\n" in found


def test_gssdp_discover_sees_the_gateway_come_and_go(fresh_lab):
    lab = fresh_lab
    with open(lab.directory / "discover.log", "w+") as output:
        point = subprocess.Popen(lab.lan1.command("stdbuf", "-oL", "gssdp-discover", "-i", "eth0", "-m", "all",
                                                    "-t", "upnp:rootdevice"),
                                 stdout=output, stderr=subprocess.STDOUT)
        try:
            def told():
                return pathlib.Path(output.name).read_text()
            eventually(lambda: "resource available" in told(), "it is found")
            lab.disable()
            eventually(lambda: "resource unavailable" in told(), "it is gone")
        finally:
            point.terminate()
            point.wait(10)


class GUPnP:
    """The subscriber of gupnp_subscriber.py, and what it has printed."""

    def __init__(self, lab):
        self.output = open(lab.directory / "gupnp.log", "w+")
        self.process = subprocess.Popen(
            lab.lan1.command("/usr/bin/python3", "-u", HERE / "gupnp_subscriber.py", "eth0", CONNECTION),
            stdout=self.output, stderr=subprocess.STDOUT)

    def hears(self, *lines):
        def heard():
            text = pathlib.Path(self.output.name).read_text()
            assert self.process.poll() is None, text
            return set(lines) <= set(text.splitlines())
        eventually(heard, f"{lines} are heard", 20)

    def close(self):
        self.process.terminate()
        self.process.wait(10)
        self.output.close()


@pytest.fixture
def gupnp_lab(fresh_lab):
    """A lab whose lan1 lets no connection in at first. This control point takes no event until it has read the answer
    to its request, and both are there at the same moment: the gateway's second attempt, a second later, finds it ready."""
    with fresh_lab.lan1.dropping("input", "tcp flags & (syn | ack) == syn"):
        point = GUPnP(fresh_lab)
        fresh_lab.upnpd.wait_for(f"subscribe: {CONNECTION}", seconds=20)
    yield fresh_lab, point
    point.close()


def test_a_gupnp_subscriber_hears_the_first_event_and_the_changes(gupnp_lab):
    lab, point = gupnp_lab
    path = f"/upnp/control/wanipconn-{lab.interface_id('wan0')}"
    point.hears("PortMappingNumberOfEntries = 0", f"ExternalIPAddress = {ROUTER_WAN}", "ConnectionStatus = Connected",
                "PossibleConnectionTypes = IP_Routed")
    assert call(lab.lan1, path, "AddPortMapping", mapping()) == result("AddPortMapping")
    point.hears("PortMappingNumberOfEntries = 2")
    lab.wan.run("ip", "link", "set", "eth0", "down")
    point.hears("ConnectionStatus = Connecting")
    assert lab.upnpd.lines.count(f"subscribe: {CONNECTION}") == 1  # no number was missed, or it would subscribe again
    assert not [line for line in lab.upnpd.lines if "notify reply" in line or "timeout" in line]


def test_the_event_dumper_of_gupnp_subscribes_and_accepts_its_event(fresh_lab):
    with open(fresh_lab.directory / "dumper.log", "w") as output:
        point = subprocess.Popen(fresh_lab.lan1.command("gupnp-event-dumper"), stdout=output, stderr=subprocess.STDOUT)
        try:
            fresh_lab.upnpd.wait_for("notify: OSMinorVersion = '9'", seconds=20)
        finally:
            point.terminate()
            point.wait(10)
    assert f"subscribe: {OSINFO}" in fresh_lab.upnpd.lines
    assert not [line for line in fresh_lab.upnpd.lines if "notify reply" in line or "timeout" in line]


@pytest.fixture(scope="module")
def packages(tmp_path_factory):
    """A folder with the two clients from the registry of JavaScript packages."""
    assert shutil.which("npm"), "npm is not installed"
    folder = tmp_path_factory.mktemp("node")
    try:
        done = subprocess.run(["npm", "install", "--no-audit", "--no-fund", "--ignore-scripts", "--prefix", folder,
                               "nat-upnp@1.1.1", "node-ssdp@4.0.1"], capture_output=True, text=True, timeout=120)
    except subprocess.TimeoutExpired:
        pytest.skip("the registry of JavaScript packages does not answer")
    if done.returncode != 0:
        unreachable = re.search(r"EAI_AGAIN|ENOTFOUND|ECONNREFUSED|ETIMEDOUT|ENETUNREACH|ECONNRESET", done.stderr)
        assert unreachable, done.stderr  # only an unreachable registry is an excuse
        pytest.skip(f"the registry of JavaScript packages cannot be reached: {unreachable.group()}")
    return folder


def node(lab, packages, script):
    path = f"{pathlib.Path(shutil.which('node')).parent}:/usr/bin:/bin"  # it need not be Debian's
    return lab.lan1.run("node", "-e", script, env={"NODE_PATH": str(packages / "node_modules"), "PATH": path})


def test_node_ssdp_finds_the_gateway(lab, packages):
    told = node(lab, packages, """
const { Client } = require('node-ssdp');
const client = new Client({ interfaces: ['eth0'] });
client.on('response', (headers, code) => { console.log(code, headers.ST, headers.LOCATION, headers.USN); process.exit(0); });
client.search('upnp:rootdevice');
setTimeout(() => process.exit(1), 10000);
""").stdout
    root = dict(root_pairs(lab.identity()))["upnp:rootdevice"]
    assert told == f"200 upnp:rootdevice {LOCATION} {root}\n"


def test_nat_upnp_maps_reads_and_unmaps(lab, path, packages):
    mark = lab.upnpd.mark()
    told = node(lab, packages, f"""
const client = require('nat-upnp').createClient();
const fail = (error) => {{ if (error) {{ console.log(error); process.exit(1); }} }};
client.portMapping({{ public: {{ port: 8081 }}, private: {{ host: '{LAN1}', port: 8082 }}, protocol: 'tcp', ttl: 0,
                      description: 'node' }}, (error) => {{
  fail(error);
  client.externalIp((error, address) => {{
    fail(error);
    console.log(address);
    client.getMappings((error, mappings) => {{
      fail(error);
      for (const one of mappings) console.log(one.public.port, one.private.host, one.private.port, one.description);
      client.portUnmapping({{ public: 8081, protocol: 'tcp' }}, (error) => {{
        fail(error);
        console.log('done');
        process.exit(0);
      }});
    }});
  }});
}});
setTimeout(() => process.exit(2), 20000);
""").stdout.splitlines()
    # It asks only for the first entry, which is the dummy entry.
    assert told == [ROUTER_WAN, "0 0.0.0.0 0 Dummy inactive rule for windows to work", "done"]
    assert [line for line in lab.upnpd.since(mark) if " map " in line] == [f"add map 8081->8082, {LAN1}", "del map 8081"]
    assert query(lab.lan1, path, "PortMappingNumberOfEntries") == variable_answer("1")
