#!/usr/bin/env python3
"""Checks the two rules of the source layout that the compiler cannot see.

1. Folders depend only downward: a file includes the internal headers of its
   own folder and of the folders below it, and the front-ends (tools/,
   python/) and the examples include only the public headers <luAnaf/...>.
2. Every source file is listed in the build (nothing is globbed, so a file
   left out of a CMakeLists.txt would silently not be built).

Usage: check_layers.py [SOURCE_DIR]; prints every breach and exits 1 if any.
"""
import pathlib
import re
import sys

# Each library folder and the folders it may include from (itself included).
BELOW = {
    "platform": {"platform"},
    "format": {"platform", "format"},
    "writer": {"platform", "format", "writer"},
    "reader": {"platform", "format", "reader"},
    "unify": {"platform", "format", "writer", "reader", "unify"},
    "blend": {"platform", "format", "writer", "reader", "blend"},
    "section": {"platform", "format", "writer", "reader", "section"},
}
FRONT_ENDS = ["tools", "python", "examples"]
SOURCE_SUFFIXES = {".cpp", ".h"}
INCLUDE = re.compile(r'^\s*#\s*include\s*"([^"]+)"', re.MULTILINE)


def folder_of_include(name):
    parts = name.split("/")
    return parts[0] if len(parts) > 1 else None


def check_includes(root):
    breaches = []
    for folder, allowed in BELOW.items():
        for path in sorted((root / folder).glob("*")):
            if path.suffix not in SOURCE_SUFFIXES:
                continue
            for name in INCLUDE.findall(path.read_text(errors="replace")):
                target = folder_of_include(name)
                if target in BELOW and target not in allowed:
                    breaches.append(f"{path.relative_to(root)}: includes \"{name}\" from a folder above or beside it")
    for folder in FRONT_ENDS:
        for path in sorted((root / folder).rglob("*")):
            if path.suffix not in SOURCE_SUFFIXES:
                continue
            for name in INCLUDE.findall(path.read_text(errors="replace")):
                if folder_of_include(name) in BELOW or name.startswith("include/"):
                    breaches.append(f"{path.relative_to(root)}: includes the library's internal \"{name}\"")
    return breaches


def listed_names(root, folder):
    text = ""
    for cmake in (root / folder).rglob("CMakeLists.txt"):
        text += cmake.read_text()
    return set(re.findall(r"[\w./-]+", text))


def check_listed(root):
    breaches = []
    for folder in list(BELOW) + ["tools", "python/src", "tests", "fuzz", "bench"]:
        base = root / folder
        if not base.is_dir():
            continue
        names = listed_names(root, folder.split("/")[0])
        for path in sorted(base.rglob("*.cpp")):
            rel = path.relative_to(root / folder.split("/")[0]).as_posix()
            stem_forms = {path.name, rel, path.stem, path.relative_to(base).as_posix()}
            if not names & stem_forms:
                breaches.append(f"{path.relative_to(root)}: not listed in any CMakeLists.txt")
    top = (root / "CMakeLists.txt").read_text()
    for header in sorted((root / "include" / "luAnaf").glob("*.h")):
        if f"include/luAnaf/{header.name}" not in top:
            breaches.append(f"{header.relative_to(root)}: a public header not listed (it would not be installed)")
    return breaches


def main():
    root = pathlib.Path(sys.argv[1] if len(sys.argv) > 1 else pathlib.Path(__file__).parent.parent)
    breaches = check_includes(root) + check_listed(root)
    for b in breaches:
        print(b)
    if breaches:
        print(f"{len(breaches)} breach(es) of the source layout (docs/ARCHITECTURE.md)")
        return 1
    print("source layout: folders depend only downward; every source is listed")
    return 0


if __name__ == "__main__":
    sys.exit(main())
