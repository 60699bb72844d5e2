#!/usr/bin/env python3
"""Holds tsanomalydetect.ini(5) to the shipped configuration file: the page
has a subsection for every section of the file and for no other, and under
each it describes (as a bold term) exactly the keys the file shows for that
section, commented out or not. Keys named after clients or policy types are
the administrator's and are left out on both sides.

usage: check_ini_keys.py INI PAGE   (PAGE is the generated roff)"""
import re
import sys

KEY = re.compile(r'^;?([A-Z][A-Z0-9_]*)=')


def file_keys(path):
    keys = {}
    section = None
    with open(path, encoding='utf-8') as ini:
        for line in ini:
            header = re.match(r'^\[([A-Z_]+)\]', line)
            if header:
                section = header.group(1)
                keys[section] = set()
            elif section and KEY.match(line):
                keys[section].add(KEY.match(line).group(1))
    return keys


def page_keys(path):
    keys = {}
    section = None
    with open(path, encoding='utf-8') as roff:
        for line in roff:
            line = line.rstrip('\n')
            header = re.match(r'^\.SS "?\[([A-Z_]+)\]"?$', line)
            if header:
                section = header.group(1)
                keys[section] = set()
            elif line.startswith('.SH'):
                section = None
            elif section:
                term = re.match(r'^\\fB([A-Z][A-Z0-9_]*)\\fR$', line)
                if term:
                    keys[section].add(term.group(1))
    return keys


def main(argv):
    if len(argv) != 3:
        print(__doc__, file=sys.stderr)
        return 2
    shipped, described = file_keys(argv[1]), page_keys(argv[2])
    problems = [f"no subsection for [{s}]" for s in sorted(set(shipped) - set(described))]
    problems += [f"a subsection for [{s}], which the file does not have" for s in sorted(set(described) - set(shipped))]
    for section in sorted(set(shipped) & set(described)):
        problems += [f"[{section}] {k} is not described" for k in sorted(shipped[section] - described[section])]
        problems += [f"[{section}] {k} is described but not in the file"
                     for k in sorted(described[section] - shipped[section])]
    for problem in problems:
        print(f"{argv[2]}: {problem}")
    count = sum(len(k) for k in shipped.values())
    print(f"{len(shipped)} sections and {count} keys checked, {len(problems)} disagreements")
    return 1 if problems else 0


if __name__ == '__main__':
    sys.exit(main(sys.argv))
