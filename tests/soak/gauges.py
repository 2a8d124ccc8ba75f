"""What a router has in use: memory, descriptors and timers of its programs, and objects of its kernel."""
import collections
import contextlib
import os
import pathlib
import re
import struct

PROGRAMS = ("routerd", "upnpd", "resolverd")


def memory(pid):
    """KiB that are the process's own. What it shares with the file of its program depends on who else runs that."""
    text = pathlib.Path(f"/proc/{pid}/smaps_rollup").read_text()
    return int(re.search(r"^Pss_Anon: +(\d+)", text, re.M)[1])


def opened(pid):
    """What each descriptor of the process leads to, by its number."""
    found = {}
    for path in pathlib.Path(f"/proc/{pid}/fd").iterdir():
        with contextlib.suppress(FileNotFoundError):  # closed meanwhile
            found[int(path.name)] = os.readlink(path)
    return found


def descriptors(pid):
    """How many descriptors of each kind the process holds."""
    return collections.Counter(map(kind_of, opened(pid).values()))


def kind_of(target):
    """socket:[4711] is a socket, anon_inode:[eventpoll] an eventpoll, everything else a file."""
    special = re.fullmatch(r"(?:anon_inode:\[?(\w+)\]?|(\w+):\[\d+\])", target)
    return (special[1] or special[2]) if special else "file"


def sets_of(pid):
    """The numbers of the process's two event sets: all of its sockets, and the urgent ones."""
    return sorted(number for number, target in opened(pid).items() if kind_of(target) == "eventpoll")[:2]


def watched(pid, number):
    return pathlib.Path(f"/proc/{pid}/fdinfo/{number}").read_text().count("tfd:")


# A tk::Runner as it lies in memory from its event sets on: the two descriptors; then the map of sockets, whose fourth word
# is their number; the set of those that are not watched yet; a number of 32 bits; then the map of timers, and the queue of
# the same timers. The last three of these collections end with their size.
RUNNER = struct.Struct("<ii 3Q Q 3Q 5Q Q Q 5Q Q 5Q Q")
SOCKETS, TIMERS, QUEUE = 5, 21, 27


def timers(pid):
    """How many timers the process has armed, read from the memory of its loop; None while that changes.

    The loop is recognised by its event sets, by the kernel's own count of the sockets in the larger one, and by its two
    counts of the timers, which agree.
    """
    pair = sets_of(pid)
    if len(pair) < 2:
        return None
    sockets = watched(pid, pair[0])
    maps = pathlib.Path(f"/proc/{pid}/maps").read_text()
    with open(f"/proc/{pid}/mem", "rb", 0) as words:
        for start, end in re.findall(r"^(\w+)-(\w+) rw.*\[(?:stack|heap)\]$", maps, re.M):
            begin = int(start, 16)
            words.seek(begin)
            data = words.read(int(end, 16) - begin)
            found = loop_in(data, pair, sockets)
            if found is not None:
                return found
    return None


def loop_in(data, pair, sockets):
    """The number of timers of the loop with these event sets and so many sockets that lies in the bytes, if any."""
    at = -1
    while (at := data.find(struct.pack("<ii", *pair), at + 1)) >= 0:
        if at % 8 == 0 and at + RUNNER.size <= len(data):
            fields = RUNNER.unpack_from(data, at)
            if fields[SOCKETS] == sockets and fields[TIMERS] == fields[QUEUE]:
                return fields[TIMERS]
    return None


# The C library's heap is a row of chunks, each of which says how long it is and whether the one before it is in use. Freed
# chunks that are kept at hand count as in use there: the first chunk tells how many of each size, and some are in lists whose
# heads stand in the library's own data, before a pointer to the last chunk, which is all that is left.
CHUNK = struct.Struct("<QQ")
KEPT = struct.Struct("<64H")
LISTS = struct.Struct("<10Q")
SHORTEST, STEP = 32, 16  # of the chunks that the first one counts
PAGE_BITS = 12


def heap(pid):
    """How many bytes of its heap the process uses; None while that changes. Finer than memory(), which counts pages."""
    maps = pathlib.Path(f"/proc/{pid}/maps").read_text()
    with open(f"/proc/{pid}/mem", "rb", 0) as words:
        def regions(name):
            for start, end in re.findall(rf"^(\w+)-(\w+) rw.*{name}$", maps, re.M):
                words.seek(int(start, 16))
                yield int(start, 16), words.read(int(end, 16) - int(start, 16))
        begin, data = next(regions(r"\[heap\]"), (0, b""))
        used, last = used_of(data)
        libraries = [found for _, found in regions(r"/libc\.so\.6")]
    heads = next((LISTS.unpack_from(found, at - LISTS.size) for found in libraries
                  if (at := found.find(struct.pack("<Q", begin + last))) >= LISTS.size), None)
    if not used or heads is None:
        return None
    listed = [bytes_in_list(data, begin, head) for head in heads]
    return None if None in listed else used - kept_of(data) - sum(listed)


def used_of(data):
    """The bytes that are in use of a heap, and where its last chunk begins; 0 if it is not whole."""
    at = before = last = used = 0
    while at + CHUNK.size <= len(data):
        size = CHUNK.unpack_from(data, at)[1]
        used += before if size & 1 else 0
        before, last = size & ~7, at
        if before < SHORTEST or before % STEP:
            return 0, last
        at += before
    return used if at == len(data) else 0, last


def kept_of(data):
    return sum(count * (SHORTEST + STEP * index) for index, count in enumerate(KEPT.unpack_from(data, CHUNK.size)))


def bytes_in_list(data, begin, chunk):
    """The sizes of all chunks in a list; None if it leads out of the heap. A link is mixed with the place where it stands."""
    total = 0
    while chunk:
        at = chunk - begin
        if not 0 <= at <= len(data) - 2 * CHUNK.size or total > len(data):
            return None
        total += CHUNK.unpack_from(data, at)[1] & ~7
        chunk = CHUNK.unpack_from(data, at + CHUNK.size)[0] ^ (chunk + CHUNK.size >> PAGE_BITS)
    return total


def of_program(pid, name):
    """The gauges of one process, by what they are."""
    found = {f"memory of {name}, KiB": memory(pid), f"timers of {name}": timers(pid), f"heap of {name}, bytes": heap(pid)}
    found |= {f"descriptors of {name}, {kind}": count for kind, count in descriptors(pid).items()}
    return found


def of_kernel(lab):
    """The kernel's objects in the router's network. Its own count of connections goes on with those whose time is over, until
    it comes by; that depends on all that the machine does."""
    text = lab.router.run("sh", "-ec", "nft --handle --numeric list table ip tk; echo; cat /proc/net/sockstat; echo; "
                          "cat /proc/net/tcp; echo; wc -l </proc/net/nf_conntrack; echo; ip neigh show | wc -l").stdout
    table, sockets, connections, entries, neighbours = text.rsplit("\n\n", 4)
    found = {f"kernel: elements of {name}": elements(table, name)
             for name in re.findall(r"^\t(?:map|set) (\w+) {", table, re.M)}
    found["kernel: rules, chains and sets"] = table.count("# handle ")
    found["kernel: TCP sockets"], found["kernel: TCP sockets that are nobody's"] = sockets_in(connections)
    found["kernel: UDP sockets"] = int(re.search(r"UDP: inuse (\d+)", sockets)[1])
    return found | {"kernel: connections known": int(entries), "kernel: neighbours": int(neighbours)}


def sockets_in(connections):
    """How many sockets of /proc/net/tcp are somebody's, and how many connections the kernel still tries to end for no process.
    Its own count of the latter, in sockstat, is that of all namespaces."""
    rows = [line.split() for line in connections.splitlines()[1:]]
    state, inode, time_wait = 3, 9, "06"
    inodes = [row[inode] for row in rows if row[state] != time_wait]
    return len(inodes) - inodes.count("0"), inodes.count("0")


def elements(table, name):
    """How many elements a map or set of the table has."""
    body = re.search(rf"^\t(?:map|set) {name} {{[^\n]*\n(.*?)^\t}}", table, re.M | re.S)[1]
    listed = re.search(r"elements = {(.*)}", body, re.S)
    return listed[1].count(",") + 1 if listed else 0


def stored(lab):
    """Bytes in the programs' stores."""
    return {f"store of {name}, bytes": sum(path.stat().st_size for path in (lab.root / "tesk" / folder).iterdir())
            for name, folder in (("upnpd", "store"), ("routerd", "router"))}
