#!/usr/bin/env python3
"""Holds a manual page to the options the program itself declares, so the
two cannot drift apart.

  check_man_options.py tsanomalyctl PROGRAM PAGE
      every command that 'PROGRAM --help' lists has a subsection of COMMANDS
      in PAGE, and no other does; the subsection of each names every option
      that 'PROGRAM COMMAND --help' declares and no option it does not.
  check_man_options.py tsanomalydetect PROGRAM PAGE
      the OPTIONS section of PAGE names every option 'PROGRAM --help'
      declares and no option it does not.

PAGE is the generated roff. An option is declared by a line of the options
section of --help ("  -o, --output FILE  ..."); -h, --help and the options a
usage line names (--version) are accepted too. Prints every disagreement;
exits 1 when there is one."""
import re
import subprocess
import sys

DECLARED = re.compile(r'^  (--?[A-Za-z][\w-]*)(?:, (--?[A-Za-z][\w-]*))?(?: |$)')
OPTION = re.compile(r'(?<![\w\\-])(--?[A-Za-z][\w-]*)')
FONT = re.compile(r'\\f[BIRP]|\\&')
ALWAYS = {'-h', '--help'}


def help_text(program, *args):
    done = subprocess.run([program, *args, '--help'], capture_output=True, text=True, check=False)
    if done.returncode != 0:
        raise SystemExit(f"'{program} {' '.join(args)} --help' exited {done.returncode}: {done.stderr}")
    return done.stdout


def declared(text):
    """The options the option lines of a --help declare."""
    names = set()
    for line in text.splitlines():
        match = DECLARED.match(line)
        if match:
            names.update(name for name in match.groups() if name)
    return names


def usage_options(text):
    """The options named on the usage lines (up to the first blank line)."""
    return set(OPTION.findall(text.split('\n\n', 1)[0]))


def sections(page):
    """{(section, subsection): text} of a roff page, with font escapes gone;
    a section's own text is under (section, None)."""
    found = {}
    key = (None, None)
    with open(page, encoding='utf-8') as roff:
        for line in roff:
            line = FONT.sub('', line.rstrip('\n'))
            heading = re.match(r'^\.(SH|SS) "?(.*?)"?$', line)
            if heading and heading.group(1) == 'SH':
                key = (heading.group(2), None)
            elif heading:
                key = (key[0], heading.group(2))
            elif not line.startswith('.'):
                found[key] = found.get(key, '') + line + '\n'
    return found


def compare(where, accepted, required, text):
    named = set(OPTION.findall(text))
    problems = [f"{where} does not name {name}" for name in sorted(required - named)]
    problems += [f"{where} names {name}, which is not accepted" for name in sorted(named - accepted)]
    return problems


def check_tool(program, page):
    top = help_text(program)
    commands = re.findall(r'^  ([a-z][a-z-]*)  ', top.split('commands:', 1)[1], re.M)
    text = sections(page)
    documented = {sub for (section, sub) in text if section == 'COMMANDS' and sub}
    problems = [f"COMMANDS has no subsection for {c}" for c in commands if c not in documented]
    problems += [f"COMMANDS documents {c}, which is no command" for c in sorted(documented - set(commands))]
    for command in commands:
        if command not in documented:
            continue
        options = declared(help_text(program, command))
        problems += compare(f"the subsection {command}", options | ALWAYS, options, text[('COMMANDS', command)])
    own = set(OPTION.findall(top)) | ALWAYS
    problems += compare('OPTIONS', own, own, text.get(('OPTIONS', None), ''))
    return problems, len(commands)


def check_service(program, page):
    usage = help_text(program)
    options = declared(usage)
    text = sections(page).get(('OPTIONS', None), '')
    return compare('OPTIONS', options | usage_options(usage) | ALWAYS, options | usage_options(usage), text), 1


def main(argv):
    if len(argv) != 4 or argv[1] not in ('tsanomalyctl', 'tsanomalydetect'):
        print(__doc__, file=sys.stderr)
        return 2
    check = check_tool if argv[1] == 'tsanomalyctl' else check_service
    problems, checked = check(argv[2], argv[3])
    for problem in problems:
        print(f"{argv[3]}: {problem}")
    print(f"{checked} option lists checked against {argv[3]}, {len(problems)} disagreements")
    return 1 if problems else 0


if __name__ == '__main__':
    sys.exit(main(sys.argv))
