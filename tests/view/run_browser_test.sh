#!/usr/bin/env bash
# Runs view_browser.test.mjs: headless Chromium (Debian's) driven by puppeteer-core from npm,
# installed from the committed lock file into a folder of the build tree, inside a private test
# desktop. Exits 77, which ctest reports as skipped, when Node, npm, the registry, Chromium or
# a desktop cannot be had here; scripts/deps installs all of them on Debian.
#   run_browser_test.sh SOURCE_DIR WORK_DIR AGENT CTL
set -euo pipefail
source_dir="$1" work="$2" agent="$3" ctl="$4"

skip() { echo "SKIPPED: $*" >&2; exit 77; }
{ command -v node && command -v npm; } >/dev/null || skip "node and npm are needed"
chromium="${TERVAIN_CHROMIUM:-$(command -v chromium || true)}"
[[ -x "$chromium" ]] || skip "Chromium is needed (Debian's chromium package)"
[[ "$(uname -s)" == Linux ]] || skip "the browser test runs on the Linux test desktop"
mkdir -p "$work"
cp "$source_dir/package.json" "$source_dir/package-lock.json" "$source_dir/view_browser.test.mjs" "$work/"
if ! cmp -s "$source_dir/package-lock.json" "$work/node_modules/.tervain-lock" 2>/dev/null; then
  (cd "$work" && PUPPETEER_SKIP_DOWNLOAD=1 npm ci --no-audit --no-fund --loglevel=error >&2) ||
    skip "npm could not install puppeteer-core (no registry?)"
  cp "$source_dir/package-lock.json" "$work/node_modules/.tervain-lock"
fi
cd "$work"
export TERVAIN_AGENT="$agent" TERVAIN_CTL="$ctl" TERVAIN_CHROMIUM="$chromium"
TERVAIN_SKIP_DEPS=1 exec "$source_dir/../../scripts/desktop" node --test --test-reporter=tap view_browser.test.mjs
