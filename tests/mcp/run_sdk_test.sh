#!/usr/bin/env bash
# Runs sdk_client.test.mjs with the MCP TypeScript SDK from npm, installed (from the committed
# lock file) into a folder of the build tree, inside a private test desktop on Linux. Exits 77, which ctest reports as skipped, when
# Node, npm or the registry is not there.
#   run_sdk_test.sh SOURCE_DIR WORK_DIR AGENT CTL
set -euo pipefail
source_dir="$1" work="$2" agent="$3" ctl="$4"

if ! command -v node >/dev/null || ! command -v npm >/dev/null; then
  echo "SKIPPED: node and npm are needed for the MCP SDK test (scripts/deps installs them)" >&2
  exit 77
fi
mkdir -p "$work"
cp "$source_dir/package.json" "$source_dir/package-lock.json" "$source_dir/sdk_client.test.mjs" "$work/"
if ! cmp -s "$source_dir/package-lock.json" "$work/node_modules/.tervain-lock" 2>/dev/null; then
  if ! (cd "$work" && npm ci --no-audit --no-fund --loglevel=error >&2); then
    echo "SKIPPED: npm could not install @modelcontextprotocol/sdk (no registry?)" >&2
    exit 77
  fi
  cp "$source_dir/package-lock.json" "$work/node_modules/.tervain-lock"
fi
cd "$work"
export TERVAIN_AGENT="$agent" TERVAIN_CTL="$ctl"
# Inside a private test desktop where there can be one, for the cases that need a real screen.
desktop="$source_dir/../../scripts/desktop"
if [[ "$(uname -s)" == Linux && -x "$desktop" ]]; then
  TERVAIN_SKIP_DEPS=1 TERVAIN_MCP_DESKTOP=1 exec "$desktop" node --test --test-reporter=tap sdk_client.test.mjs
fi
exec node --test --test-reporter=tap sdk_client.test.mjs
