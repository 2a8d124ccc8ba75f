"""The package: what is in it, and its way onto a system and off it."""
import json
import os
import pathlib
import re
import subprocess

import installation
import labs
from control_point import call, mapping, result
from labs import LAN1, LAN2, ROOT, ROUTER_WAN, WAN, WAN2

FILES = pathlib.Path(__file__).parent / "files"


def listed():
    """The files that an installation has, and their modes."""
    return sorted(line for line in FILES.read_text().splitlines() if line and not line.startswith("#"))


def shown(*words):
    return subprocess.run(words, check=True, capture_output=True, text=True, timeout=60).stdout


def field(package, name):
    return shown("dpkg-deb", "--field", package, name).strip()


def install(folder):
    """Installs the build below a folder, as a packager does."""
    subprocess.run(["cmake", "--install", labs.BIN.parent, "--prefix", "/usr"], check=True, capture_output=True,
                   timeout=60, env={**os.environ, "DESTDIR": str(folder)})


def found(folder):
    return sorted(f"{path.stat().st_mode & 0o7777:04o} /{path.relative_to(folder)}"
                  for path in folder.rglob("*") if path.is_file())


def test_an_installation_has_these_files(tmp_path):
    install(tmp_path)
    assert found(tmp_path) == listed()


def test_an_installation_keeps_the_configuration_of_the_administrator(tmp_path):
    own = tmp_path / "tesk" / "etc" / "router.toml"
    own.parent.mkdir(parents=True)
    own.write_text("# mine\n")
    install(tmp_path)
    assert own.read_text() == "# mine\n"


def test_the_package_has_the_same_files(package, tmp_path):
    shown("dpkg-deb", "--extract", package, tmp_path)
    assert found(tmp_path) == listed()


def test_what_is_installed_names_only_documents_that_are(tmp_path):
    install(tmp_path)
    named = {name.rstrip(".") for path in tmp_path.rglob("*") if path.suffix in (".toml", ".service", ".path", ".conf", ".md")
             for name in re.findall(r"/usr/share/doc/gateway/[\w./-]+", path.read_text())}
    assert "/usr/share/doc/gateway/docs/administration.md" in named
    assert all((tmp_path / name.lstrip("/")).is_file() for name in named), named


def test_two_packages_of_one_build_are_equal(package, tmp_path):
    assert installation.build_package(tmp_path).read_bytes() == package.read_bytes()


def test_no_program_names_the_folder_that_it_was_built_in(package, tmp_path):
    shown("dpkg-deb", "--extract", package, tmp_path)
    for program in (tmp_path / "usr" / "sbin").iterdir():
        assert str(ROOT).encode() not in program.read_bytes(), program.name


def test_the_package_says_what_it_needs(package):
    depends = {re.split(r"[ (]", each)[0] for each in field(package, "Depends").split(", ")}
    assert depends == {"systemd", "init-system-helpers", "libc6", "libc-ares2", "libexpat1", "libmnl0", "libnftnl11",
                       "libuuid1"}
    assert field(package, "Recommends") == "nftables, iproute2"
    assert shown("dpkg-deb", "--info", package, "conffiles").split() == ["/tesk/etc/router.toml"]


def test_the_changelog_is_of_the_version_that_is_built(package):
    version = shown("dpkg-parsechangelog", "-l", ROOT / "packaging" / "debian" / "changelog", "-S", "Version").strip()
    assert version == field(package, "Version")
    assert f"project(gateway VERSION {version} " in (ROOT / "CMakeLists.txt").read_text()


def tree(root):
    return {path.relative_to(root) for path in root.rglob("*")}


def test_a_package_is_installed_used_and_purged_and_nothing_of_it_stays(package, bare_lab):
    made = installation.Installation(bare_lab, package)
    before = tree(bare_lab.root / "tesk")
    made.install()
    wants = bare_lab.root / "etc" / "systemd" / "system"
    assert os.readlink(wants / "multi-user.target.wants" / "routerd.service") == "/lib/systemd/system/routerd.service"
    assert {oct((bare_lab.root / "tesk" / store).stat().st_mode & 0o7777) for store in ("router", "store")} == {"0o700"}
    made.start()
    made.serve()
    answer = call(bare_lab.lan2, made.wan_path(), "AddPortMapping", mapping(client=LAN2))
    assert answer == result("AddPortMapping")
    with bare_lab.lan2.listen(8080) as listener, bare_lab.wan.connect(ROUTER_WAN, 80):
        connection, peer = listener.accept()
        connection.close()
        assert peer[0] == WAN
    assert set(made.manager.stop().values()) == {0}
    made.purge()
    assert tree(bare_lab.root / "tesk") == before == set()
    assert not (bare_lab.root / "run" / "tk").exists()
    assert list(made.left("usr")) == []
    users = {"passwd", "group", "shadow", "gshadow"}  # which stay, and what guards the change
    assert {pathlib.Path(path).name.rstrip("-") for path in made.left("etc")} <= users | {".pwd.lock"}
    others = ("var/lib/dpkg/", "var/log/dpkg.log", "var/cache/man/")  # dpkg's own, and man's, which indexes all pages
    assert [path for path in made.left("var") if not path.startswith(others)] == []


def test_a_unit_that_does_not_stop_keeps_nobody_from_removing_the_package(package, bare_lab):
    made = installation.Installation(bare_lab, package)
    made.install()
    (bare_lab.root / "run" / "systemd" / "system").mkdir(parents=True)
    for tool, outcome in (("deb-systemd-invoke", "false"), ("systemctl", "true")):
        bare_lab.router.run("mount", "--bind", f"/bin/{outcome}", f"/usr/bin/{tool}")
    bare_lab.router.run("dpkg", "--remove", "gateway")
    assert list(made.left("usr")) == []


DROPS = """
table inet filter {
    chain input { type filter hook input priority filter; policy accept; }
    chain forward { type filter hook forward priority filter; policy drop; iifname "lan0" accept; ct state established accept; }
}
"""


def is_reached(lab, listener):
    """True when a host of the WAN reaches the listener by the router's port 8080."""
    try:
        with lab.wan.connect(ROUTER_WAN, 8080, seconds=1):
            listener.accept()[0].close()
            return True
    except OSError:
        return False


def test_from_the_package_to_a_mapped_port_past_a_firewall_that_drops(package, bare_lab):
    made = installation.Installation(bare_lab, package)
    lab = bare_lab
    lab.router.run("nft", "-f", "-", input=DROPS)
    lab.router.run("ip", "route", "add", "default", "via", WAN2, "metric", "100")  # the second uplink is a fallback
    made.install()
    made.start()
    made.tkctl("setup", "--yes")
    mapped = lab.lan1.run("upnpc", "-i", "-m", "eth0", "-a", LAN1, "8080", "8080", "TCP")
    assert f"external {ROUTER_WAN}:8080 TCP is redirected to internal {LAN1}:8080" in mapped.stdout
    with lab.lan1.listen(8080) as listener:
        assert not is_reached(lab, listener)
        doctor = lab.router.run("/usr/sbin/tkctl", "doctor", "--json", check=False)
        problems = [finding for finding in json.loads(doctor.stdout) if finding["severity"] == "error"]
        assert (doctor.returncode, [finding["code"] for finding in problems]) == (1, ["forward-drop"]), doctor.stdout
        lab.router.run("sh", "-c", problems[0]["mend"][0])
        assert is_reached(lab, listener)
    assert [finding["packets"] > 0 for finding in made.query("upnp", "mappings")] == [True]
    assert lab.router.run("/usr/sbin/tkctl", "doctor").returncode == 0
