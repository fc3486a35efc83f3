#!/usr/bin/env bash
# The test command: installs what is missing, builds with AddressSanitizer and
# UndefinedBehaviorSanitizer (the "dev" preset) and runs every test with CTest.
set -euo pipefail
cd "$(dirname "$0")/.."

scripts/bootstrap.sh

jobs=$(nproc 2>/dev/null || echo 2)
export CCACHE_BASEDIR="$(pwd)"
export ASAN_OPTIONS="${ASAN_OPTIONS:-detect_leaks=1:abort_on_error=0}"
export UBSAN_OPTIONS="${UBSAN_OPTIONS:-print_stacktrace=1:halt_on_error=1}"

echo "test: configuring (dev preset: Debug, ASan + UBSan)"
cmake --preset dev >/dev/null
echo "test: building with $jobs jobs"
cmake --build --preset dev -j "$jobs"

junit="build/dev/ctest-junit.xml"
echo "test: running ctest"
status=0
ctest --preset dev -j "$jobs" --output-junit "$(pwd)/$junit" || status=$?

python3 scripts/summarize_tests.py "$junit" || true
exit $status
