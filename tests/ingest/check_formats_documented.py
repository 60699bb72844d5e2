#!/usr/bin/env python3
"""Holds the manual to the ingest format table, which a new format extends
by one row: every format 'tsanomalyctl ingest --help' lists must have an
entry (its name alone, in bold, on a line) in the ingest subsection of the
roff page, and no entry may name a format the tool does not know.

  check_formats_documented.py PROGRAM PAGE

Prints every disagreement; exits 1 when there is one."""
import re
import subprocess
import sys


def listed_formats(program):
    help_text = subprocess.run([program, 'ingest', '--help'], capture_output=True, text=True, check=True).stdout
    section = help_text.split('\nformats:\n', 1)[1].split('\n\n', 1)[0]
    return {line.split()[0] for line in section.splitlines() if line.startswith('  ')}


def documented_formats(page):
    with open(page, encoding='utf-8') as roff:
        text = roff.read()
    section = re.split(r'^\.SS "?ingest"?$', text, maxsplit=1, flags=re.M)[1]
    section = re.split(r'^\.SS', section, maxsplit=1, flags=re.M)[0]
    entries = re.findall(r'^\\fB([a-z][a-z0-9-]*)\\fR$', section, flags=re.M)
    return set(entries)


def main():
    program, page = sys.argv[1:3]
    listed, documented = listed_formats(program), documented_formats(page)
    problems = [f'format {name} is not described in the ingest subsection of {page}'
                for name in sorted(listed - documented)]
    problems += [f'{page} describes a format {name} that tsanomalyctl ingest does not know'
                 for name in sorted(documented - listed)]
    for problem in problems:
        print(problem)
    print(f'{len(listed)} formats checked, {len(problems)} disagreements')
    return 1 if problems else 0


if __name__ == '__main__':
    sys.exit(main())
