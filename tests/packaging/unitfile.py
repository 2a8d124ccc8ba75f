"""What the unit files say, and which of their lines the tests know."""
import pathlib
import re

ROOT = pathlib.Path(__file__).resolve().parent.parent.parent
UNITS = ROOT / "packaging" / "systemd"

# Lines for the reader.
TEXTS = {"Description", "Documentation"}

# Lines that say how systemd treats the unit, not what the program meets.
ABOUT = {"Requires", "PartOf", "After", "Before", "WantedBy", "Also",
         "StartLimitIntervalSec", "Restart", "RestartSec", "TimeoutStopSec", "NotifyAccess",
         "RuntimeDirectoryPreserve"}

# Lines that need systemd itself, and why.
UNTRIED = {
    "IPAddressDeny": "a program in the kernel that belongs to a control group",
    "MemoryMax": "a control group",
    "TasksMax": "a control group",
    "DevicePolicy": "a control group; PrivateDevices is tried",
    "RemoveIPC": "what systemd clears away after the end; SystemCallFilter leaves nothing to clear away",
    "LogRateLimitIntervalSec": "the journal",
    "LogRateLimitBurst": "the journal",
}

# Lines that sandbox.py puts into force, or that the stand-in for systemd in installation.py heeds.
TRIED = {
    "Type", "ExecStart", "ExecReload", "WatchdogSec", "PathModified",
    "User", "Group", "SupplementaryGroups", "CapabilityBoundingSet", "AmbientCapabilities", "NoNewPrivileges",
    "PrivateUsers", "KeyringMode", "UMask", "ProtectSystem", "ReadWritePaths", "NoExecPaths", "ExecPaths",
    "RuntimeDirectory", "RuntimeDirectoryMode", "ProtectHome", "PrivateTmp",
    "PrivateDevices", "PrivateMounts", "ProtectProc", "ProcSubset", "ProtectClock", "ProtectControlGroups",
    "ProtectHostname", "ProtectKernelLogs", "ProtectKernelModules", "ProtectKernelTunables", "PrivateIPC",
    "RestrictAddressFamilies", "RestrictNamespaces", "RestrictRealtime", "RestrictSUIDSGID", "LockPersonality",
    "MemoryDenyWriteExecute", "SystemCallArchitectures", "SystemCallErrorNumber", "SystemCallFilter", "LimitNOFILE",
    "LimitCORE",
}


class Unit:
    """A unit file. What a key says more than once adds up."""

    def __init__(self, path):
        self.path = pathlib.Path(path)
        self.values = {}
        for line in self.path.read_text().splitlines():
            if line and not re.match(r"[#;\[]", line):
                key, value = line.split("=", 1)
                self.values.setdefault(key, []).append(value)

    def get(self, key, default=""):
        values = self.values.get(key)
        return " ".join(values) if values else default

    def words(self, key):
        return self.get(key).split()

    def says(self, key, value="yes"):
        return self.get(key) == value

    def untried(self):
        """What the lines say that need systemd itself."""
        return {key: self.get(key) for key in self.values if key in ABOUT or key in UNTRIED}

    def unknown(self):
        """The lines that no test here would notice."""
        return set(self.values) - TEXTS - ABOUT - TRIED - set(UNTRIED)
