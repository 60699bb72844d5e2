#!/usr/bin/env python3
"""Checks that the detector's unit brings it back whenever it ends on its own.

    check_unit_restart.py UNIT_FILE PROGRAM

systemd cannot run in the test container, so the unit is judged twice: by
`systemd-analyze verify` (any warning fails, an unknown key included), on a
copy whose ExecStart names the built PROGRAM so the check can see it; and by
reading its restart settings. Exits 77 when systemd-analyze is missing.
"""
import pathlib
import re
import shutil
import subprocess
import sys
import tempfile

SPAN_UNITS = {"us": 1e-6, "ms": 1e-3, "s": 1, "sec": 1, "m": 60, "min": 60, "h": 3600, "hr": 3600}


def span_seconds(text):
    """A systemd time span ("15s", "2min", "1min 30s", bare seconds) in seconds."""
    text = text.strip()
    if re.fullmatch(r"\d+", text):
        return int(text)
    parts = re.findall(r"(\d+)\s*([a-z]+)", text)
    if not parts or re.sub(r"[\d\sa-z]", "", text) or any(unit not in SPAN_UNITS for _, unit in parts):
        raise ValueError(f"not a time span: {text!r}")
    return sum(int(n) * SPAN_UNITS[unit] for n, unit in parts)


def settings(unit_text):
    """{(section, key): last value}, continuation lines joined."""
    found, section = {}, None
    for line in unit_text.replace("\\\n", " ").splitlines():
        line = line.strip()
        if not line or line.startswith(("#", ";")):
            continue
        if line.startswith("["):
            section = line.strip("[]")
        elif "=" in line:
            key, value = line.split("=", 1)
            found[(section, key.strip())] = value.strip()
    return found


def systemd_version():
    out = subprocess.run(["systemd-analyze", "--version"], capture_output=True, text=True).stdout
    match = re.search(r"systemd (\d+)", out)
    return int(match.group(1)) if match else 0


def verify(unit_path, program):
    """systemd-analyze's own complaints about the unit, the program path aside."""
    with tempfile.TemporaryDirectory() as tmp:
        text = re.sub(r"^ExecStart=\S+", f"ExecStart={program}", unit_path.read_text(), flags=re.M)
        copy = pathlib.Path(tmp) / unit_path.name
        copy.write_text(text)
        run = subprocess.run(["systemd-analyze", "verify", str(copy)], capture_output=True, text=True)
        complaints = (run.stdout + run.stderr).strip()
        if run.returncode != 0 and not complaints:
            complaints = f"systemd-analyze verify exited {run.returncode}"
        return complaints


def restart_problems(unit, version):
    problems = []
    get = unit.get
    if get(("Service", "Restart")) != "always":
        problems.append(f"Restart={get(('Service', 'Restart'))}, not always")
    for key in ("RestartPreventExitStatus", "SuccessExitStatus"):
        if ("Service", key) in unit:
            problems.append(f"{key}= keeps some exits from being restarted")
    delay = span_seconds(get(("Service", "RestartSec"), "0.1"))
    if delay < 1:
        problems.append(f"RestartSec={delay}s gives no back-off")
    interval = span_seconds(get(("Unit", "StartLimitIntervalSec"), "10"))
    burst = int(get(("Unit", "StartLimitBurst"), "5"))
    if interval and (burst - 1) * delay <= interval:
        problems.append(f"{burst} restarts {delay}s apart fit in StartLimitIntervalSec={interval}s:"
                        " the detector's own restarts would exhaust the start limit")
    if version >= 254:
        if ("Service", "RestartSteps") not in unit:
            problems.append(f"systemd {version} can grow the restart delay, but RestartSteps= is unset")
        elif span_seconds(get(("Service", "RestartMaxDelaySec"), "0")) <= delay:
            problems.append("RestartMaxDelaySec= does not exceed RestartSec=")
    return problems


def main():
    unit_path, program = pathlib.Path(sys.argv[1]), sys.argv[2]
    if not shutil.which("systemd-analyze"):
        print("check_unit_restart: SKIPPED: systemd-analyze is not installed (package systemd)")
        return 77
    problems = restart_problems(settings(unit_path.read_text()), systemd_version())
    complaints = verify(unit_path, program)
    if complaints:
        problems.append("systemd-analyze verify: " + complaints)
    for problem in problems:
        print(f"check_unit_restart: FAIL: {unit_path.name}: {problem}", file=sys.stderr)
    if not problems:
        print(f"check_unit_restart: {unit_path.name} restarts always, verified by systemd-analyze")
    return 1 if problems else 0


if __name__ == "__main__":
    sys.exit(main())
