#!/usr/bin/env bash
# Builds the collection tarball (tervain-agent-VERSION.tar.gz) into the folder given, or the
# current one. Install it with: ansible-galaxy collection install tervain-agent-*.tar.gz
set -euo pipefail
here="$(cd "$(dirname "$0")" && pwd)"
out="$(cd "${1:-.}" && pwd)"
ansible-galaxy collection build --force --output-path "$out" "$here"
