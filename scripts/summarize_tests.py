#!/usr/bin/env python3
"""Prints how many tests ran, passed, failed and were skipped, with each skip's reason,
from the JUnit file CTest writes."""
import re
import sys
import xml.etree.ElementTree as ET


def skip_reason(case):
    out = "".join(e.text or "" for e in case.iter("system-out"))
    # GoogleTest prints the GTEST_SKIP message right before the "[  SKIPPED ]" line.
    m = re.search(r"Skipped\s*\n(.*?)\n\s*\[  SKIPPED \]", out, re.S)
    if m and m.group(1).strip():
        return " ".join(m.group(1).split())
    for s in case.iter("skipped"):
        if s.get("message"):
            return s.get("message")
    return "no reason given"


def main(path):
    try:
        root = ET.parse(path).getroot()
    except (OSError, ET.ParseError) as e:
        print(f"test summary: no results ({e})")
        return 1
    passed = failed = skipped = 0
    reasons = []
    failures = []
    for case in root.iter("testcase"):
        status = case.get("status", "")
        name = case.get("name", "?")
        if status == "notrun" or any(True for _ in case.iter("skipped")):
            skipped += 1
            reasons.append((name, skip_reason(case)))
        elif status == "fail" or any(True for _ in case.iter("failure")):
            failed += 1
            failures.append(name)
        else:
            passed += 1
    print()
    print(f"test summary: {passed + failed + skipped} ran, {passed} passed, {failed} failed, {skipped} skipped")
    for name, why in reasons:
        print(f"  skipped {name}: {why}")
    for name in failures:
        print(f"  FAILED {name}")
    print(f"{passed} passed, {failed} failed, {skipped} skipped")
    return 0


if __name__ == "__main__":
    sys.exit(main(sys.argv[1]))
