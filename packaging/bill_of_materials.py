#!/usr/bin/env python3
"""bill_of_materials.py STAGE VERSION ARCHITECTURE: writes what is in each package, as CycloneDX.

STAGE holds a tree for each package, before its files are stripped. Each gets
usr/share/doc/PACKAGE/PACKAGE.cdx.json, which names the Debian packages that its programs and libraries
are linked with, and those whose headers are compiled into them; the line tables of the debug symbols
tell these. Nothing in it depends on the time or the folder.
"""

import json
import pathlib
import re
import subprocess
import sys


def output(*command):
    return subprocess.run(command, stdout=subprocess.PIPE, stderr=subprocess.DEVNULL, text=True, check=False).stdout


def owners(pattern, architecture):
    """The packages with a file of that path: those for the architecture, if there are any."""
    found = set()
    for line in output("dpkg-query", "--search", pattern).splitlines():
        packages, _, path = line.partition(": ")
        if path and not packages.startswith("diversion by"):
            found.update(packages.split(", "))
    own = {package for package in found if package.endswith(":" + architecture)}
    return own or {package for package in found if ":" not in package}


class Materials:
    """The parts of one package: from the name of a Debian package to how it is used."""

    def __init__(self, architecture):
        self.architecture = architecture
        self.uses = {}

    def add(self, package, how, what):
        self.uses.setdefault(package, set()).add((how, what))

    def add_binary(self, file):
        for name in re.findall(r"\(NEEDED\).*\[(.*)\]", output("readelf", "--dynamic", "--wide", str(file))):
            for package in sorted(owners("*/" + name, self.architecture))[:1] or [name]:
                self.add(package, "linked", name)
        text = file.read_bytes()
        for folder in sorted(set(re.findall(rb"/usr/include/[\w+./-]+", text))):
            path = pathlib.Path(folder.decode())
            packages = owners(str(path), self.architecture) if path.is_dir() else set()
            if len(packages) == 1:  # A folder of many is of the system's headers.
                self.add(packages.pop(), "compiled-in", str(path))

    def components(self):
        for package, uses in sorted(self.uses.items()):
            name = package.partition(":")[0]
            version = output("dpkg-query", "--show", "--showformat=${Version}", package)
            component = {"type": "library", "bom-ref": name, "name": name}
            if version:
                component["version"] = version
                component["purl"] = f"pkg:deb/debian/{name}@{version.replace('+', '%2B')}?arch={self.architecture}"
            component["properties"] = [
                {"name": "process-manager:" + how, "value": what} for how, what in sorted(uses)
            ]
            yield component


def is_binary(file):
    if file.is_symlink() or not file.is_file():
        return False
    with file.open("rb") as start:
        return start.read(8).startswith((b"\x7fELF", b"!<arch>\n"))


def bill(tree, package, version, architecture):
    materials = Materials(architecture)
    for file in sorted(tree.rglob("*")):
        if is_binary(file):
            materials.add_binary(file)
    components = list(materials.components())
    own = {"type": "application", "bom-ref": "pkg:" + package, "name": package, "version": version}
    depends = {"ref": own["bom-ref"], "dependsOn": [component["bom-ref"] for component in components]}
    return {
        "bomFormat": "CycloneDX",
        "specVersion": "1.5",
        "version": 1,
        "metadata": {"component": own},
        "components": components,
        "dependencies": [depends],
    }


def main():
    stage, version, architecture = sys.argv[1:]
    for folder in sorted(pathlib.Path(stage).glob("*/usr/share/doc/*/copyright")):
        package = folder.parent.name
        document = bill(folder.parents[4], package, version, architecture)
        target = folder.with_name(package + ".cdx.json")
        target.write_text(json.dumps(document, indent=2) + "\n", encoding="utf-8")
        target.chmod(0o644)


if __name__ == "__main__":
    main()
