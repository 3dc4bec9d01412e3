#!/usr/bin/env bash
# The formatting (.clang-format) of every C++ file, and the checks of .clang-tidy on the
# programs' code, against build/default's compile_commands.json. Fails on any finding.
#   scripts/lint.sh [--fix]   --fix rewrites the files' formatting instead of checking it
set -euo pipefail
cd "$(dirname "$0")/.."
mapfile -t files < <(git ls-files '*.cpp' '*.h')
if [ "${1:-}" = --fix ]; then
  clang-format -i "${files[@]}"
  exit 0
fi
echo "lint: clang-format on ${#files[@]} files" >&2
clang-format --dry-run -Werror "${files[@]}"
# The programs' code; the tests and benchmarks are held to the formatting only.
echo "lint: clang-tidy" >&2
run-clang-tidy -quiet -p build/default -j"$(nproc)" \
  "$(pwd)/(cli|client|web|index|jobs|target|service|store|kavro/src)/" >build/default/clang-tidy.log 2>&1 ||
  { grep -E "(warning|error):" build/default/clang-tidy.log | sort -u >&2; exit 1; }
