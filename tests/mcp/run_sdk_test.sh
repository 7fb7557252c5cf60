#!/usr/bin/env bash
# Runs sdk_client.test.mjs with the MCP TypeScript SDK from npm, installed (from the committed
# lock file) into a folder of the build tree. Exits 77, which ctest reports as skipped, when
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
TERVAIN_AGENT="$agent" TERVAIN_CTL="$ctl" exec node --test --test-reporter=tap sdk_client.test.mjs
