#!/usr/bin/env python3
"""Checks every folder's #include "folder/..." lines against the libraries it
may use, as the build declares them (layers.txt, written by CMake from the
table in the top-level CMakeLists.txt), so a header-only reach into a folder
a library does not link fails here as a link would.

Production files may include their own folder and the folders their library
uses. A unit test (X_test.cpp) may include tests/ as well. The table itself
must have no cycle. Prints every breach; exits 1 when there is one."""
import os
import re
import sys

INCLUDE = re.compile(r'^\s*#\s*include\s+"([A-Za-z0-9_]+)/')
SOURCE = re.compile(r'\.(h|cpp|in)$')


def read_layers(path):
    layers = {}
    with open(path, encoding="utf-8") as table:
        for line in table:
            line = line.strip()
            if not line:
                continue
            folder, _, uses = line.partition(":")
            layers[folder] = set(uses.split())
    return layers


def cycle_in(layers):
    state = {}

    def visit(folder, path):
        state[folder] = "open"
        for used in sorted(layers.get(folder, ())):
            if state.get(used) == "open":
                return path + [used]
            if used not in state:
                found = visit(used, path + [used])
                if found:
                    return found
        state[folder] = "done"
        return None

    for folder in sorted(layers):
        if folder not in state:
            found = visit(folder, [folder])
            if found:
                return found
    return None


def breaches(source_dir, layers):
    found = []
    for folder, uses in sorted(layers.items()):
        root = os.path.join(source_dir, folder)
        for dirpath, _, names in os.walk(root):
            for name in sorted(names):
                if not SOURCE.search(name):
                    continue
                allowed = uses | {folder}
                if name.endswith("_test.cpp"):
                    allowed = allowed | {"tests"}
                path = os.path.join(dirpath, name)
                with open(path, encoding="utf-8", errors="replace") as source:
                    for number, line in enumerate(source, 1):
                        match = INCLUDE.match(line)
                        if match and match.group(1) not in allowed:
                            relative = os.path.relpath(path, source_dir)
                            found.append(f"{relative}:{number}: {folder} may not include {match.group(1)}/ "
                                         f"(it may use: {' '.join(sorted(uses)) or 'nothing'})")
    return found


def main(argv):
    if len(argv) != 3:
        print("usage: check_includes.py SOURCE_DIR LAYERS_TXT", file=sys.stderr)
        return 2
    layers = read_layers(argv[2])
    problems = []
    cycle = cycle_in(layers)
    if cycle:
        problems.append("the libraries use each other in a circle: " + " -> ".join(cycle))
    unknown = {used for uses in layers.values() for used in uses} - set(layers)
    problems += [f"a library uses '{name}', which is no library" for name in sorted(unknown)]
    problems += breaches(argv[1], layers)
    for problem in problems:
        print(problem)
    print(f"{len(layers)} libraries checked, {len(problems)} breaches")
    return 1 if problems else 0


if __name__ == "__main__":
    sys.exit(main(sys.argv))
