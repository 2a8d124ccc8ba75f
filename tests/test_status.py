"""What the administrator sees of the gateway: tkctl status, and tkctl watch on a terminal and in a pipe."""
import contextlib
import fcntl
import json
import os
import pty
import re
import select
import signal
import struct
import subprocess
import termios
import time

import pytest

import labs
from control_point import call, mapping, result
from labs import LAN1, ROUTER_LAN, ROUTER_WAN
from traces import Trace

ENTER, LEAVE = b"\x1b[?1049h\x1b[?25l", b"\x1b[0m\x1b[?25h\x1b[?1049l"


class Screen:
    """What a terminal shows after the sequences that tkctl writes; anything else is an error."""

    def __init__(self, width, height):
        self.rows, self.width = [[" "] * width for _ in range(height)], width
        self.row = self.column = 0

    def feed(self, data):
        text = data.decode()
        while text:
            if text.startswith("\x1b["):
                end = next(i for i, letter in enumerate(text) if i > 1 and letter.isalpha())
                self.obey(text[2:end], text[end])
                text = text[end + 1:]
            else:
                assert text[0].isprintable(), repr(text)
                self.rows[self.row][self.column] = text[0]
                self.column += 1
                text = text[1:]

    def obey(self, arguments, letter):
        numbers = [int(number) for number in arguments.split(";")] if arguments.replace(";", "").isdigit() else []
        if letter == "H":
            self.row, self.column = (numbers[0] - 1, numbers[1] - 1) if numbers else (0, 0)
        elif letter == "J" and numbers == [2]:
            self.rows = [[" "] * self.width for _ in self.rows]
        elif letter == "K" and not arguments:
            self.rows[self.row][self.column:] = [" "] * (self.width - self.column)
        else:
            assert letter == "m" or arguments in ("?1049", "?25"), f"{arguments}{letter}"

    @property
    def lines(self):
        return ["".join(row).rstrip() for row in self.rows]


class Terminal:
    """A terminal with `tkctl watch` on it."""

    def __init__(self, lab, width=80, height=24, **environment):
        self.master, self.slave = pty.openpty()
        self.resize(width, height)
        self.modes = termios.tcgetattr(self.slave)
        self.received = b""
        self.screen = Screen(width, height)
        # The command's own process group, and this terminal in control of it: then Ctrl-C is a signal.
        self.process = subprocess.Popen(
            lab.router.command(labs.BIN / "tkctl", "watch"), stdin=self.slave, stdout=self.slave, stderr=self.slave,
            start_new_session=True, preexec_fn=lambda: fcntl.ioctl(0, termios.TIOCSCTTY, 0),
            env={**os.environ, "TERM": "xterm", "LC_ALL": "C.UTF-8", **environment})

    def resize(self, width, height):
        fcntl.ioctl(self.slave, termios.TIOCSWINSZ, struct.pack("HHHH", height, width, 0, 0))

    def read(self, seconds):
        """What is written within some time."""
        new, deadline = b"", time.monotonic() + seconds
        while (left := deadline - time.monotonic()) > 0:
            if select.select([self.master], [], [], left)[0]:
                new += os.read(self.master, 65536)
        self.received += new
        self.screen.feed(new)
        return new

    def shows(self, text):
        self.read(0.05)
        return any(text in line for line in self.screen.lines)

    def wait_for(self, text):
        labs.eventually(lambda: self.shows(text), f"{text!r} on the screen")

    def settle(self, lab):
        """Waits for a reading after which nothing is written: it is shown, if at all, before the next one begins."""
        trace = Trace(lab, "--json")

        def reading_begins():
            trace.next(lambda message: (message["kind"], message["to"], message["command"]) == ("request", [0], "0x7"))

        def is_quiet():
            self.read(0.05)
            trace.until_now()
            reading_begins()
            reading_begins()
            return self.read(0.05) == b""
        try:
            labs.eventually(is_quiet, "a reading without a byte", 3 * labs.PATIENCE)
        finally:
            trace.close()

    def type(self, keys):
        os.write(self.master, keys)

    def ended(self):
        """The status, when the terminal is as it was before."""
        def is_over():
            has_ended = self.process.poll() is not None  # asked first: then nothing can come after what is read
            return self.read(0.02) == b"" and has_ended
        labs.eventually(is_over, "its end")
        assert self.received.startswith(ENTER) and self.received.endswith(LEAVE), self.received[-100:]
        assert termios.tcgetattr(self.slave) == self.modes
        return self.process.returncode

    def close(self):
        if self.process.poll() is None:
            self.process.kill()
        self.process.wait(10)
        os.close(self.master)
        os.close(self.slave)


@contextlib.contextmanager
def watching(lab, **options):
    terminal = Terminal(lab, **options)
    try:
        yield terminal
    finally:
        terminal.close()


@pytest.fixture
def path(lab):
    return f"/upnp/control/wanipconn-{lab.interface_id('wan0')}"


@contextlib.contextmanager
def mapped(lab, path):
    assert call(lab.lan1, path, "AddPortMapping", mapping()) == result("AddPortMapping")
    try:
        yield
    finally:
        assert call(lab.lan1, path, "DeletePortMapping", mapping()[:3]) == result("DeletePortMapping")


def send_through(lab):
    """A host outside sends the server inside some bytes."""
    with lab.lan1.listen(8080) as listener, lab.wan.connect(ROUTER_WAN, 80) as client:
        server, _ = listener.accept()
        with server:
            client.sendall(b"x" * 1000)
            assert server.recv(1)


def test_status_tells_where_the_gateway_is_and_what_is_mapped(lab, path):
    before = lab.query("status")
    assert (before["running"], before["enabled"], before["problems"]) == (True, True, [])
    assert [(one["name"], one["address"], one["url"]) for one in before["discoverable"]] == [
        ("lan0", ROUTER_LAN, f"http://{ROUTER_LAN}:2828/gateway.xml")]
    assert [(one["name"], one["address"]) for one in before["external"]] == [("wan0", ROUTER_WAN)]
    assert [one["name"] for one in before["programs"]] == ["routerd", "upnpd"]
    assert before["mappings"] == []
    assert "Nothing is mapped." in lab.tkctl("status").stdout
    with mapped(lab, path):
        send_through(lab)
        shown = lab.query("status")["mappings"]
        assert [(one["internalClient"], one["externalPort"], one["requestedBy"]) for one in shown] == [(LAN1, 80, LAN1)]
        assert shown[0]["packets"] > 0 and shown[0]["bytes"] > 1000
        text = lab.tkctl("status").stdout
        assert "1 mapping for 1 host" in text and f"tcp 80  {LAN1}:8080  web" in text
        assert "\x1b" not in text and text.isascii()
    assert lab.query("status")["mappings"] == []


def test_status_tells_what_was_refused(lab, path):
    assert call(lab.lan1, path, "AddPortMapping", mapping(client=ROUTER_WAN)) != result("AddPortMapping")
    last = lab.query("status")["refused"][-1]
    assert (last["requestedBy"], last["externalPort"], last["internalClient"]) == (LAN1, 80, ROUTER_WAN)
    assert "Refused lately" in lab.tkctl("status").stdout


def test_status_does_not_start_a_daemon_that_is_off(bare_lab):
    etc = bare_lab.root / "tesk" / "etc"
    (etc / "router.toml").write_text((etc / "lab.toml").read_text())
    bare_lab.start_routerd()
    assert [one["name"] for one in bare_lab.query("status")["programs"]] == ["routerd"]
    assert "upnpd is not running" in bare_lab.tkctl("status").stdout
    assert [one["name"] for one in bare_lab.query("status")["programs"]] == ["routerd"]


def test_status_without_a_router_tells_what_to_do(bare_lab):
    done = bare_lab.tkctl("status", check=False)
    assert done.returncode == 1
    assert done.stdout == "routerd does not answer: nothing is known of the gateway.\n"
    assert done.stderr == ("tkctl: cannot reach routerd at /run/tk/bus: it is not running; start it: setsid "
                           f"{labs.BIN}/routerd </dev/null >>/var/log/routerd.log 2>&1 &\n")
    told = json.loads(bare_lab.tkctl("status", "--json", check=False).stdout)
    assert (told["running"], told["problems"]) == (False, [done.stderr.removeprefix("tkctl: ").strip()])


def test_watch_shows_mappings_come_and_go(lab, path):
    with watching(lab) as terminal:
        terminal.wait_for("Nothing is mapped.")
        with mapped(lab, path):
            terminal.wait_for(f"tcp 80  {LAN1}:8080  web")
            send_through(lab)
            terminal.wait_for("▂")
        terminal.wait_for("Nothing is mapped.")
        terminal.type(b"q")
        assert terminal.ended() == 0


def test_watch_writes_little_on_a_slow_line(lab, path):
    with mapped(lab, path), watching(lab) as terminal:
        terminal.wait_for(f"{LAN1}:8080")
        terminal.settle(lab)
        mark = len(terminal.received)
        send_through(lab)
        terminal.wait_for("▂")
        written = terminal.received[mark:]
        assert 0 < len(written) < 150, written  # of the 960 bytes that 9600 baud carry in a second
        terminal.type(b"q")
        assert terminal.ended() == 0


@pytest.mark.parametrize("end", [lambda terminal: terminal.type(b"\x03"),
                                 lambda terminal: terminal.process.send_signal(signal.SIGTERM)],
                         ids=["Ctrl-C", "SIGTERM"])
def test_watch_leaves_the_terminal_as_it_was(lab, end):
    with watching(lab) as terminal:
        terminal.wait_for("UPnP is on.")
        assert termios.tcgetattr(terminal.slave) != terminal.modes
        end(terminal)
        assert terminal.ended() == 0


def test_watch_can_be_stopped_and_continued(lab):
    with watching(lab) as terminal:
        terminal.wait_for("q: quit")
        terminal.type(b"\x1a")  # Ctrl-Z
        state = labs.pathlib.Path(f"/proc/{terminal.process.pid}/stat")

        def is_stopped():
            stands_still = state.read_text().rpartition(")")[2].split()[0] == "T"  # asked first, as at the end
            return terminal.read(0.02) == b"" and stands_still
        labs.eventually(is_stopped, "it is stopped")
        assert terminal.received.endswith(LEAVE)
        assert termios.tcgetattr(terminal.slave) == terminal.modes
        terminal.screen = Screen(80, 24)
        terminal.process.send_signal(signal.SIGCONT)
        terminal.wait_for("UPnP is on.")
        terminal.type(b"q")
        assert terminal.ended() == 0


def test_watch_follows_the_size_of_its_terminal(lab):
    with watching(lab) as terminal:
        terminal.wait_for("q: quit")
        terminal.screen = Screen(40, 12)
        terminal.resize(40, 12)
        terminal.process.send_signal(signal.SIGWINCH)
        terminal.wait_for("Discoverable on lan0 at http://192.0.2.…")
        assert terminal.screen.lines[-1] == "q: quit"
        terminal.type(b"q")
        assert terminal.ended() == 0


def test_watch_uses_neither_colours_nor_other_letters_where_it_may_not(lab, path):
    with mapped(lab, path), watching(lab, NO_COLOR="1", LC_ALL="C") as terminal:
        terminal.wait_for(f"{LAN1}:8080")
        send_through(lab)
        terminal.wait_for(" :")
        assert not re.search(rb"\x1b\[[0-9;]*m", terminal.received)
        assert terminal.received.isascii()
        terminal.type(b"q")
        assert terminal.ended() == 0


def test_watch_on_a_dumb_terminal_prints_plainly_and_takes_keys(lab):
    with watching(lab, TERM="dumb") as terminal:
        text = b""
        def printed(what):
            nonlocal text
            if select.select([terminal.master], [], [], 0.05)[0]:
                text += os.read(terminal.master, 65536)
            return what in text
        labs.eventually(lambda: printed(b"looks closer"))
        terminal.type(b"q")
        assert terminal.process.wait(10) == 0
        assert termios.tcgetattr(terminal.slave) == terminal.modes
    assert b"\x1b" not in text
    assert max(len(line) for line in text.decode().splitlines()) <= 80


def test_watch_waits_for_a_router_that_has_ended(fresh_lab):
    with watching(fresh_lab) as terminal:
        terminal.wait_for("UPnP is on.")
        fresh_lab.upnpd.stop()
        fresh_lab.routerd.stop()
        terminal.wait_for("routerd does not answer")
        terminal.wait_for("start it")
        fresh_lab.start_routerd()
        fresh_lab.start_upnpd()
        terminal.wait_for("UPnP is on.")
        terminal.type(b"q")
        assert terminal.ended() == 0


def test_watch_in_a_pipe_prints_each_change_plainly(lab, path):
    read, write = os.pipe()
    process = subprocess.Popen(lab.router.command(labs.BIN / "tkctl", "watch"), stdout=write)
    os.close(write)
    text = b""
    with os.fdopen(read, "rb", buffering=0) as reader:
        def printed(what):
            nonlocal text
            if select.select([reader], [], [], 0.02)[0]:
                text += reader.read(65536)
            return what in text
        labs.eventually(lambda: printed(b"Nothing is mapped."))
        with mapped(lab, path):
            labs.eventually(lambda: printed(f"{LAN1}:8080".encode()))
        labs.eventually(lambda: text.count(b"Nothing is mapped.") == 2 or printed(b"no such text"))
        process.send_signal(signal.SIGINT)
        assert process.wait(10) == 0
    assert b"\x1b" not in text
    assert text.count(b"UPnP is on.") == 3, "once for each change"
    assert text.count(b"\n\nUPnP is on.") == 2, "a blank line between them"


def test_watch_as_json_is_one_object_a_line(lab, path):
    process = subprocess.Popen(lab.router.command(labs.BIN / "tkctl", "watch", "--json"), stdout=subprocess.PIPE)
    try:
        assert json.loads(labs.next_line(process.stdout))["mappings"] == []
        with mapped(lab, path):
            assert [one["externalPort"] for one in json.loads(labs.next_line(process.stdout))["mappings"]] == [80]
        assert json.loads(labs.next_line(process.stdout))["mappings"] == []
    finally:
        process.terminate()
        assert process.wait(10) == 0
        process.stdout.close()


def test_watch_without_a_router_fails_at_once(bare_lab):
    done = bare_lab.tkctl("watch", check=False)
    assert (done.returncode, done.stdout) == (1, "")
    assert f"start it: setsid {labs.BIN}/routerd " in done.stderr


def test_who_may_not_connect_is_told_how_to(lab):
    done = lab.router.run("setpriv", "--reuid=65534", "--regid=65534", "--clear-groups", labs.BIN / "tkctl", "status",
                          check=False)
    assert (done.returncode, done.stdout) == (1, "")
    assert done.stderr == ("tkctl: cannot reach routerd at /run/tk/bus: only root and members of the group tk may; "
                           "usermod -aG tk USER adds one\n")


COMPLETE = """
source {file}
COMP_LINE=$1 COMP_POINT=${{#1}}
_tkctl 2>/dev/null
printf '%s\\n' "${{COMPREPLY[@]}}"
"""


def completed(lab, line):
    """What bash offers after a line has been typed."""
    script = COMPLETE.format(file=labs.ROOT / "packaging/completion/tkctl.bash")
    shell = f'PATH={labs.BIN}:$PATH; ' + script
    return lab.router.run("bash", "-c", shell, "bash", line).stdout.split()


@pytest.mark.parametrize("line, offers", [
    ("tkctl upnp interface ", ["list", "add", "set", "remove"]),
    ("tkctl upnp interface ad", ["add"]),
    ("tkctl upnp interface add ", ["lan0", "lanp1", "lanp2", "wan0", "wan1"]),
    ("tkctl upnp interface add wan0 i", ["internal"]),
    ("tkctl upnp interface add --force wan0 external disabled=", ["yes", "no"]),
    ("tkctl upnp set enabled=y", ["yes"]),
    ("tkctl nat list --js", ["--json"]),
    ("tkctl setup --lan lan", ["lan0", "lanp1", "lanp2"]),
    ("tkctl setup --lan lan0 --wan w", ["wan0", "wan1"]),
    ("tkctl setup --config /tesk/etc/rou", ["/tesk/etc/router.toml"]),
    ("tkctl --socket /run/tk/b", ["/run/tk/bus"]),
    ("tkctl help upnp g", ["get"]),
    ("tkctl nosuch ", []),
], ids=str)
def test_bash_completes(lab, line, offers):
    assert sorted(completed(lab, line)) == sorted(offers)


# What zsh gives the completion to work with, and the answer as lines.
ZSH = """
_describe() {{ (( ${{#${{(P)2}}}} == 0 )) || print -rl -- "${{(@P)2}}" }}
_files() {{ print FILES }}
words=("$@") CURRENT=$#
source {file}
"""


@pytest.mark.parametrize("words, offers", [
    (("upnp", "interface", "ad"), ["add:Give an interface a role; prints the id of the new item"]),
    (("upnp", "set", "enabled="), ["enabled=yes", "enabled=no"]),
    (("setup", "--config", "/"), ["FILES"]),
    (("--socket", "/"), ["FILES"]),
    (("nosuch", ""), []),
], ids=str)
def test_zsh_completes(lab, words, offers):
    script = ZSH.format(file=labs.ROOT / "packaging/completion/_tkctl")
    done = lab.router.run("zsh", "-fc", script, "zsh", labs.BIN / "tkctl", *words)
    assert (done.stdout.splitlines(), done.stderr) == (offers, "")
