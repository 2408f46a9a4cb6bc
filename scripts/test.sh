#!/usr/bin/env bash
# Installs what is missing, builds and runs the whole test suite.
# With CI=true, or with --sanitizers, the suite also runs in an
# AddressSanitizer+UndefinedBehaviorSanitizer build and a ThreadSanitizer build.
set -euo pipefail
cd "$(dirname "$0")/.."
sanitizers=false
[ "${CI:-}" = "true" ] && sanitizers=true
for arg in "$@"; do
  case "$arg" in
    --sanitizers) sanitizers=true ;;
    --no-sanitizers) sanitizers=false ;;
    *) echo "usage: scripts/test.sh [--sanitizers|--no-sanitizers]" >&2; exit 2 ;;
  esac
done
scripts/install-deps.sh
export QT_QPA_PLATFORM=offscreen

run_suite() { # <build dir> <label>
  echo "=== $2 ==="
  ctest --test-dir "$1" --output-on-failure -j2 --timeout 180
}

scripts/build.sh build
run_suite build "normal build"

if $sanitizers; then
  scripts/build.sh build-asan address
  ASAN_OPTIONS="detect_leaks=0:abort_on_error=1:strict_string_checks=1" \
  UBSAN_OPTIONS="print_stacktrace=1:halt_on_error=1" \
    run_suite build-asan "AddressSanitizer + UndefinedBehaviorSanitizer build"

  scripts/build.sh build-tsan thread
  TSAN_OPTIONS="ignore_noninstrumented_modules=1 halt_on_error=1 second_deadlock_stack=1 suppressions=$PWD/scripts/tsan.supp" \
    run_suite build-tsan "ThreadSanitizer build"
fi
echo "All test runs passed."
