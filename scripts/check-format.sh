#!/usr/bin/env bash
# Fails, naming the files, when a C++ source differs from what the committed .clang-format
# makes of it. `clang-format -i FILE` fixes one.
set -euo pipefail
cd "$(dirname "$0")/.."

if git rev-parse --is-inside-work-tree > /dev/null 2>&1; then
  mapfile -t files < <(git ls-files '*.cpp' '*.h')
else
  mapfile -t files < <(find src tests bench -name '*.cpp' -o -name '*.h')
fi

unformatted=()
# One run over every file (starting clang-format for each costs half a minute on a busy
# machine); only when it finds something is each file looked at to name the culprits.
if ! clang-format --dry-run --Werror "${files[@]}" > /dev/null 2>&1; then
  for f in "${files[@]}"; do
    if ! clang-format --dry-run --Werror "$f" > /dev/null 2>&1; then
      unformatted+=("$f")
    fi
  done
fi

if [ ${#unformatted[@]} -gt 0 ]; then
  echo "Not formatted with the committed .clang-format (run clang-format -i on them):"
  printf '  %s\n' "${unformatted[@]}"
  exit 1
fi
echo "All ${#files[@]} C++ files are formatted."
