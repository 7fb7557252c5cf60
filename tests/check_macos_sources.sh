#!/usr/bin/env bash
# Parses every source file that CMake compiles on a Mac, the way a Mac would compile it, against
# Apple's own macOS SDK headers: the adapter (Objective-C++ under ARC and plain C++), the Darwin
# flavours of the process and socket helpers, and the portable sources with the SDK's libc++.
# Nothing is compiled to code or linked (-fsyntax-only), so this checks declarations, types,
# availability and warnings, not symbols. It runs for arm64 and x86_64 with the deployment target
# CMake uses; any error, any warning under the project's flags, or an API newer than the target
# fails it.
#
#   check_macos_sources.sh SOURCE_ROOT SDK_ARCHIVE WORK_DIR [CLANG++] [CLANG]
#
# SDK_ARCHIVE is a .tgz holding one MacOSX*.sdk folder. When it is missing (a checkout outside
# the team, which has no copy of Apple's headers) the check says so and exits 77, which the test
# registers as "skipped": it never passes without having parsed anything.
set -euo pipefail

root="${1:?usage: check_macos_sources.sh SOURCE_ROOT SDK_ARCHIVE WORK_DIR [CLANG++] [CLANG]}"
archive="${2:?}"
work="${3:?}"
clangxx="${4:-clang++}"
clang="${5:-clang}"
target_version="${TERVAIN_MACOS_TARGET:-14.0}"
jobs="${TERVAIN_CHECK_JOBS:-$(nproc 2>/dev/null || echo 2)}"

if [[ ! -f "$archive" ]]; then
  echo "SKIPPED: no macOS SDK archive at $archive; the macOS sources were not checked" >&2
  exit 77
fi

# Unpack once per archive: the stamp names the archive's size and time.
mkdir -p "$work"
stamp="$work/.unpacked-$(stat -c '%s-%Y' "$archive")"
if [[ ! -f "$stamp" ]]; then
  rm -rf "$work"/*.sdk "$work"/.unpacked-*
  tar xzf "$archive" -C "$work"
  touch "$stamp"
fi
sdks=("$work"/*.sdk)
sdk="${sdks[0]}"
[[ -d "$sdk" ]] || { echo "FAILED  $archive holds no .sdk folder" >&2; exit 1; }

# The third-party headers the portable sources include come from this machine; each is linked
# into a folder of its own so that the host's libc headers never shadow the SDK's.
third="$work/third_party_include"
mkdir -p "$third"
for header in nlohmann CLI utf8proc.h turbojpeg.h png.h pngconf.h pnglibconf.h httplib.h; do
  for dir in /usr/include /usr/local/include /opt/homebrew/include; do
    if [[ -e "$dir/$header" ]]; then
      ln -sfn "$dir/$header" "$third/$header"
      break
    fi
  done
done

# What a Mac builds: every C, C++ and Objective-C++ source under src/, less tests and the files
# that belong to other platforms (named *_linux.*, or kept in a folder named linux, x11, atspi or
# headless).
mapfile -t sources < <(cd "$root" && find src -type f \( -name '*.c' -o -name '*.cpp' -o -name '*.mm' \) \
  ! -name '*_test.cpp' ! -name '*_linux.*' \
  ! -path '*/linux/*' ! -path '*/x11/*' ! -path '*/atspi/*' ! -path '*/headless/*' | sort)
# TERVAIN_CHECK_ONLY=REGEX narrows the check to matching paths while working on a few files.
if [[ -n "${TERVAIN_CHECK_ONLY:-}" ]]; then
  mapfile -t sources < <(printf '%s\n' "${sources[@]}" | grep -E -- "$TERVAIN_CHECK_ONLY" || true)
fi
if ((${#sources[@]} == 0)); then
  echo "FAILED  no sources found under $root/src" >&2
  exit 1
fi

# The project's warnings as errors, availability above the deployment target as an error, and,
# in the platform files, the conversion warnings: a CGFloat passed where the accessibility API
# takes a float compiles silently otherwise.
common=(-fsyntax-only -isysroot "$sdk" -isystem "$third" -I "$root/src"
  -DTERVAIN_VERSION=\"check\" -Wall -Wextra -Wpedantic -Werror -Wno-missing-field-initializers
  -Werror=unguarded-availability-new)
strict=(-Wconversion -Wsign-conversion)

# Each (file, arch) is parsed on its own, `jobs` at a time; a failure prints the compiler's words.
logs="$work/logs"
rm -rf "$logs"
mkdir -p "$logs"
check() {
  local arch="$1" rel="$2" log
  local flags=(-target "$arch-apple-macos$target_version")
  case "$rel" in
    src/platform/macos/*|*_darwin.*) flags+=("${strict[@]}") ;;
  esac
  local cmd
  case "$rel" in
    *.mm) cmd=("$clangxx" -x objective-c++ -std=c++20 -stdlib=libc++ -fobjc-arc) ;;
    *.cpp) cmd=("$clangxx" -x c++ -std=c++20 -stdlib=libc++) ;;
    *.c) cmd=("$clang" -x c -std=c11) ;;
  esac
  log="$logs/${rel//\//_}.$arch"
  if "${cmd[@]}" "${flags[@]}" "${common[@]}" "$root/$rel" >"$log" 2>&1; then
    echo "ok      $arch $rel"
  else
    { echo "FAILED  $arch $rel"; cat "$log"; } >&2
    touch "$logs/.failed"
  fi
}

running=0
for arch in arm64 x86_64; do
  for rel in "${sources[@]}"; do
    check "$arch" "$rel" &
    running=$((running + 1))
    if ((running >= jobs)); then
      wait -n || true
      running=$((running - 1))
    fi
  done
done
wait

# Parsing cannot see a seam method that is declared but defined nowhere (only the Mac's linker
# would): every override in the adapter's class must have a definition in one of its files.
header="$root/src/platform/macos/macos_desktop.h"
if [[ -z "${TERVAIN_CHECK_ONLY:-}" && -f "$header" ]]; then
  overrides=0
  adapter=("$root"/src/platform/macos/*.cpp "$root"/src/platform/macos/*.mm)
  while IFS= read -r declaration; do
    method="$(grep -oE '[A-Za-z_][A-Za-z0-9_]*\(' <<<"$declaration" | head -n 1)"
    method="${method%(}"
    overrides=$((overrides + 1))
    if ! grep -q "MacDesktop::$method(" "${adapter[@]}"; then
      echo "FAILED  MacDesktop::$method is declared but defined in no adapter file" >&2
      touch "$logs/.failed"
    fi
  done < <(sed 's://.*$::' "$header" | tr '\n' ' ' | tr ';' '\n' | grep ' override')
  if ((overrides == 0)); then
    echo "FAILED  no overrides found in $header" >&2
    touch "$logs/.failed"
  fi
  echo "checked $overrides seam methods of the adapter for a definition"
fi

echo "parsed ${#sources[@]} files for arm64 and x86_64 against $(basename "$sdk")"
if [[ -e "$logs/.failed" ]]; then
  exit 1
fi
