#!/usr/bin/env bash
# Installs the build at $1 into a scratch prefix, then checks the installed tree as a user would
# meet it: a scratch project ($2) finds the client with find_package(Tervain), builds, and pings
# the installed agent; tervainctl runs; the man page, completions and user unit are in place.
# $3 is the build's sanitizer list, which the scratch project must link with too.
set -euo pipefail
build="$1"
project="$2"
sanitize="${3:-}"
work="$(mktemp -d)"
agent_pid=""
cleanup() {
  if [[ -n "$agent_pid" ]]; then kill "$agent_pid" 2>/dev/null || true; wait "$agent_pid" || true; fi
  rm -rf "$work"
}
trap cleanup EXIT
prefix="$work/prefix"
cmake --install "$build" --prefix "$prefix" >/dev/null

for f in bin/TervainVMAgent bin/tervainctl share/man/man1/tervainctl.1 \
         share/bash-completion/completions/tervainctl share/zsh/site-functions/_tervainctl \
         include/tervain/client/tervain_client.h; do
  [[ -e "$prefix/$f" ]] || { echo "not installed: $f" >&2; exit 1; }
done
if [[ "$(uname -s)" == Linux ]]; then
  unit="$prefix/share/systemd/user/tervain-vmagent.service"
  grep -qx "ExecStart=$prefix/bin/TervainVMAgent" "$unit" || { echo "bad unit: $unit" >&2; exit 1; }
fi
bash -n "$prefix/share/bash-completion/completions/tervainctl"
if command -v zsh >/dev/null; then zsh -n "$prefix/share/zsh/site-functions/_tervainctl"; fi
"$prefix/bin/tervainctl" --version | grep -q "^tervainctl "

flags=()
if [[ -n "$sanitize" ]]; then
  flags=(-DCMAKE_CXX_FLAGS="-fsanitize=$sanitize" -DCMAKE_EXE_LINKER_FLAGS="-fsanitize=$sanitize")
fi
cmake -S "$project" -B "$work/scratch" -G Ninja -DCMAKE_BUILD_TYPE=Release \
  -DCMAKE_PREFIX_PATH="$prefix" ${flags[@]+"${flags[@]}"} >/dev/null
cmake --build "$work/scratch" >/dev/null

socket="$work/agent.sock"
TERVAIN_DULK_DISABLE=1 "$prefix/bin/TervainVMAgent" --unix "$socket" 2>"$work/agent.log" &
agent_pid=$!
for _ in $(seq 100); do [[ -S "$socket" ]] && break; sleep 0.05; done
"$work/scratch/uses_client" "unix:$socket" | grep -qx "protocol v2"
"$prefix/bin/tervainctl" --connect "unix:$socket" ping >/dev/null
kill -TERM "$agent_pid"
wait "$agent_pid"
agent_pid=""
[[ ! -e "$socket" ]] || { echo "the agent left its socket behind" >&2; exit 1; }
echo "installed tree works"
