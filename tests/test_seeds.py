"""The seeds of the fuzz targets whose inputs are binary are as their program writes them."""
import subprocess

import labs


def seeds(folder, names):
    return {name: (folder / name).read_bytes() if (folder / name).exists() else None for name in names}


def test_the_binary_seeds_are_those_that_their_program_writes(tmp_path):
    subprocess.run([labs.ROOT / "fuzz" / "binaryseeds", tmp_path], check=True)
    names = [path.relative_to(tmp_path) for path in tmp_path.rglob("*") if path.is_file()]
    assert {name.parts[0] for name in names} == {"busframe", "contract", "netlink", "store"}
    assert seeds(labs.ROOT / "fuzz" / "seeds", names) == seeds(tmp_path, names)
