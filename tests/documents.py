"""The commands in the documents: finds the blocks, runs them, and compares what they print.

A block of code that has commands stands below a line that only the source shows:

    <!-- on HOST -->           its commands run on this host of a lab, one after another
    <!-- not run: REASON -->   they do not, because ...
    <!-- forms -->             these are no commands, but the forms that commands have

In a block, a line that begins with "$ " is a command, and what follows is what it prints. Without such a line every
line is a command, whose output is not looked at; text after two blanks and a "#" is a remark. A command that prints
"tkctl: ..." last, and so fails, is expected to fail. Times match any time, and a line that is "..." any lines."""
import re
import textwrap
from dataclasses import dataclass, field

MARK = re.compile(r"<!-- (?:on (?P<host>\w+)|not run: (?P<reason>.+)|(?P<forms>forms)) -->")
COMMAND = re.compile(r"\$ |(sudo |tkctl|routerd|upnpd|resolverd|apt |apt-get |cmake -|dpkg|systemctl|journalctl|ip |nft |"
                     r"iptables|firewall-cmd|sysctl|upnpc|curl |kill |setsid |lab/\w|bench/\w|tests/\w|\./\w|build/\w|man |"
                     r"git |groupadd|useradd|usermod)")
TIME = re.compile(r"\d{4}-\d\d-\d\dT\d\d:\d\d:\d\dZ")


@dataclass
class Command:
    text: str
    output: list = field(default_factory=list)  # None where it is not looked at


@dataclass
class Block:
    line: int
    lines: list
    host: str = ""    # where it runs
    reason: str = ""  # why it does not

    def has_commands(self):
        return any(COMMAND.match(line) for line in self.lines)

    def commands(self):
        if not any(line.startswith("$ ") for line in self.lines):
            return [Command(re.split(r"  +#", line)[0], None) for line in self.lines if line.strip()]
        found = []
        for line in self.lines:
            if line.startswith("$ "):
                found.append(Command(line[2:]))
            else:
                found[-1].output.append(line)
        return found


def blocks_of(text):
    """The blocks of code of a document, fenced or indented, in order."""
    blocks, mark, before, inside, fence = [], None, "", False, False
    for number, line in enumerate(text.splitlines(), 1):
        if line.startswith("```"):
            fence, inside = not fence, False
            continue
        if fence or (line.startswith("    ") and (inside or before == "")):
            if not inside:
                found = MARK.fullmatch(mark or "")
                blocks.append(Block(number, [], *(found.group("host") or "", found.group("reason") or found.group("forms") or "") if found else ()))
            blocks[-1].lines.append(line)
            inside, before = True, line
            continue
        if inside and not line:
            blocks[-1].lines.append("")
            continue
        inside, before = False, line
        if line:
            mark = line.strip()
    for block in blocks:
        block.lines = textwrap.dedent("\n".join(block.lines)).rstrip("\n").split("\n")
    return blocks


def matches(expected, printed):
    """True when a command printed what the document says."""
    def plain(text):
        text = TIME.sub("TIME", text)
        return re.sub(r"\s+", "", text) if text.lstrip()[:1] in ("[", "{") else text
    expected, printed = ("\n".join(lines) for lines in (expected, printed))
    pattern = re.escape(plain(expected)).replace(r"\.\.\.", r"[\s\S]*")
    return re.fullmatch(pattern, plain(printed)) is not None
