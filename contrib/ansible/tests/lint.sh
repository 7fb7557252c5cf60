#!/usr/bin/env bash
# Static checks of the collection's Python: compiles, pyflakes and flake8, ansible-doc on both
# plugins' documentation, and the ansible-test sanity checks that run without network (the others
# install their tools from PyPI). Exits 77 (skipped) when Ansible is not installed.
set -euo pipefail
here="$(cd "$(dirname "$0")/.." && pwd)"
python=/usr/bin/python3
[[ -x $python ]] || python=python3
sources=("$here"/plugins/*/*.py "$here"/tests/*.py "$here"/tests/callback/*.py)

"$python" -m py_compile "${sources[@]}"
find "$here" -name __pycache__ -type d -prune -exec rm -rf {} +
if "$python" -m flake8 --version >/dev/null 2>&1; then
  # E402: Ansible plugins put their documentation before the imports.
  "$python" -m flake8 --max-line-length 100 --extend-ignore E402 "${sources[@]}"
elif command -v pyflakes3 >/dev/null; then
  pyflakes3 "${sources[@]}"
else
  echo "neither flake8 nor pyflakes3 is installed (scripts/deps installs python3-flake8)" >&2
  exit 1
fi

if ! command -v ansible-test >/dev/null; then
  echo "SKIPPED: ansible-core is not installed (scripts/deps installs it)"
  exit 77
fi
work="$(mktemp -d)"
trap 'rm -rf "$work"' EXIT
tree="$work/ansible_collections/tervain/agent"
mkdir -p "$tree"
# What the tarball ships (the tests stay here).
cp -r "$here"/galaxy.yml "$here"/README.md "$here"/meta "$here"/plugins "$tree"
find "$tree" -name __pycache__ -type d -prune -exec rm -rf {} +
: >"$work/ansible.cfg"
export HOME="$work" ANSIBLE_COLLECTIONS_PATH="$work" ANSIBLE_CONFIG="$work/ansible.cfg"
for plugin in connection:tervain.agent.tervain inventory:tervain.agent.guests; do
  out="$(ansible-doc -t "${plugin%%:*}" "${plugin#*:}" 2>&1)" || { echo "$out" >&2; exit 1; }
  if grep -q '^\[WARNING\]\|ERROR' <<<"$out"; then echo "$out" >&2; exit 1; fi
done
offline=()
for test in ansible-doc validate-modules import pep8 pylint yamllint pslint runtime-metadata \
  changelog; do
  offline+=(--skip-test "$test")
done
cd "$tree"
ansible-test sanity --python "$("$python" -c 'import sys; print("%d.%d" % sys.version_info[:2])')" \
  "${offline[@]}"
