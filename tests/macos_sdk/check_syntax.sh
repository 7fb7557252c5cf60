#!/usr/bin/env bash
# Parses every file of the macOS adapter, and the Darwin flavours of the C helpers, the way a Mac
# would compile them, against this project's own declarations of the Apple interfaces they use
# (tests/macos_sdk/include). Nothing is compiled to code or linked: -fsyntax-only. Any error, or
# any warning under the project's warning flags, fails the check.
#   check_syntax.sh SOURCE_ROOT [CLANG++] [CLANG]
set -euo pipefail

root="${1:?usage: check_syntax.sh SOURCE_ROOT [CLANG++] [CLANG]}"
clangxx="${2:-clang++}"
clang="${3:-clang}"
sdk="$root/tests/macos_sdk/include"

# The project's warnings, plus the conversion warnings: a CGFloat (double) passed where the
# accessibility API takes a float, or a signed size where an unsigned one is due, compiles
# silently otherwise.
warnings=(-Wall -Wextra -Wpedantic -Werror -Wno-missing-field-initializers -Wconversion
  -Wsign-conversion)
includes=(-isystem "$sdk" -I "$root/src")
objcxx=(-x objective-c++ -std=c++20 -fobjc-arc -fblocks -fobjc-runtime=macosx-14.0)
# The .cpp files are built as plain C++ on a Mac: parsing them as such too proves that no
# Objective-C has crept in.
cxx=(-x c++ -std=c++20)
# Darwin-only constants that glibc's headers lack, with their Darwin values.
# The Darwin-only spawn call is declared by include/spawn.h over the system's own.
darwin_defines=(-DF_SETNOSIGPIPE=73 -DPOSIX_SPAWN_CLOEXEC_DEFAULT=0x4000)

shopt -s nullglob
adapter=("$root"/src/platform/macos/*.cpp "$root"/src/platform/macos/*.mm)
darwin_c=("$root"/src/*/*_darwin.c "$root"/src/*/*/*_darwin.c)
darwin_cxx=("$root"/src/*/*_darwin.cpp "$root"/src/*/*/*_darwin.cpp)

if ((${#adapter[@]} == 0)); then
  echo "no adapter sources under $root/src/platform/macos" >&2
  exit 1
fi

failed=0
check() {
  local name="$1"
  shift
  if "$@"; then
    echo "ok      $name"
  else
    echo "FAILED  $name" >&2
    failed=1
  fi
}

for file in "${adapter[@]}"; do
  rel="${file#"$root"/}"
  check "$rel (objective-c++)" "$clangxx" -fsyntax-only "${objcxx[@]}" "${warnings[@]}" \
    "${includes[@]}" "$file"
  if [[ "$file" == *.cpp ]]; then
    check "$rel (c++)" "$clangxx" -fsyntax-only "${cxx[@]}" "${warnings[@]}" "${includes[@]}" \
      "$file"
  fi
done
for file in ${darwin_c[@]+"${darwin_c[@]}"}; do
  check "${file#"$root"/} (c)" "$clang" -fsyntax-only -x c -std=c11 "${warnings[@]}" \
    "${darwin_defines[@]}" "${includes[@]}" "$file"
done
for file in ${darwin_cxx[@]+"${darwin_cxx[@]}"}; do
  check "${file#"$root"/} (c++)" "$clangxx" -fsyntax-only "${cxx[@]}" "${warnings[@]}" \
    "${darwin_defines[@]}" "${includes[@]}" "$file"
done

# Parsing cannot see a seam method that is declared but defined nowhere (only the Mac's linker
# would): every override in the adapter's class must have a definition in one of its files.
header="$root/src/platform/macos/macos_desktop.h"
overrides=0
while IFS= read -r declaration; do
  method="$(grep -oE '[A-Za-z_][A-Za-z0-9_]*\(' <<<"$declaration" | head -n 1)"
  method="${method%(}"
  overrides=$((overrides + 1))
  if ! grep -q "MacDesktop::$method(" "${adapter[@]}"; then
    echo "FAILED  MacDesktop::$method is declared but defined in no adapter file" >&2
    failed=1
  fi
done < <(sed 's://.*$::' "$header" | tr '\n' ' ' | tr ';' '\n' | grep ' override')
if ((overrides == 0)); then
  echo "FAILED  no overrides found in $header" >&2
  failed=1
fi
echo "checked $overrides seam methods for a definition"

exit "$failed"
