#!/usr/bin/env python3
"""Every metric the alerting rules read is one the console exposes.

    rules_use_exposed_metrics.py RULES_FILE METRICS_SOURCE

A rule on a misspelt or retired metric never fires and promtool cannot
tell; the names the console's metrics are built with are the reference.
"""
import re
import sys


def main():
    rules, source = (open(path, encoding="utf-8").read() for path in sys.argv[1:3])
    exposed = set(re.findall(r'"(tsanomaly_[a-z_]+)"', source))
    used = set(re.findall(r"\b(tsanomaly_[a-z_]+)\b", rules))
    unknown = sorted(used - exposed)
    for name in unknown:
        print(f"rules_use_exposed_metrics: FAIL: the rules read {name}, which the console does not expose",
              file=sys.stderr)
    if not used:
        print("rules_use_exposed_metrics: FAIL: the rules read no metric at all", file=sys.stderr)
        return 1
    if not unknown:
        print(f"rules_use_exposed_metrics: {len(used)} metrics, all exposed: {', '.join(sorted(used))}")
    return 1 if unknown else 0


if __name__ == "__main__":
    sys.exit(main())
