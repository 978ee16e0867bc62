#!/usr/bin/env bash
# Checks that every tracked C++ file is laid out as .clang-format says, with
# Debian's clang-format. Lists the files that are not and fails; `clang-format
# -i FILE` fixes one. Usable from any directory; CLANG_FORMAT overrides the
# program.
set -euo pipefail

ROOT="$(cd "$(dirname "${BASH_SOURCE[0]}")/.." && pwd)"
cd "$ROOT"
CLANG_FORMAT="${CLANG_FORMAT:-clang-format}"

command -v "$CLANG_FORMAT" > /dev/null ||
    { echo "check-format: $CLANG_FORMAT not found (scripts/install-deps.sh installs it)" >&2; exit 1; }
if git rev-parse --is-inside-work-tree > /dev/null 2>&1; then
    mapfile -t files < <(git ls-files -- '*.cpp' '*.h')
else # an unpacked source tree: every C++ file outside the build trees
    mapfile -t files < <(find . -path './build*' -prune -o -type f \( -name '*.cpp' -o -name '*.h' \) -print | sort)
fi

unformatted=()
for f in "${files[@]}"; do
    [ -f "$f" ] || continue # deleted in the working tree
    "$CLANG_FORMAT" --dry-run --Werror "$f" > /dev/null 2>&1 || unformatted+=("$f")
done
if [ ${#unformatted[@]} -gt 0 ]; then
    echo "check-format: not formatted as .clang-format says (clang-format -i FILE fixes it):" >&2
    printf '  %s\n' "${unformatted[@]}" >&2
    exit 1
fi
echo "check-format: ${#files[@]} files formatted"
