#!/usr/bin/env bash
# Installs TervainVMAgent as a LaunchAgent of the current user and starts it.
#   packaging/macos/install.sh [BINARY]
# Run it as the guest's GUI user (the one logged in to the desktop), not as root: the agent
# lives in that user's Aqua session. Over SSH that works as long as the same user is logged in
# at the guest's screen; with nobody (or somebody else) there, the agent is installed and starts
# at that user's next login. sudo is asked for only to copy the binary to
# /usr/local/libexec/tervain when that folder is not writable. BINARY defaults to the release
# build (build/release/TervainVMAgent); sign it first with sign.sh.
set -euo pipefail
here="$(cd "$(dirname "$0")" && pwd)"
# shellcheck source=packaging/macos/common.sh
source "$here/common.sh"

binary="${1:-$here/../../build/release/$tervain_binary_name}"
installed="$tervain_installed"
agents_dir="$tervain_agents_dir"
plist="$tervain_plist"
uid="$(id -u)"
domain="$tervain_domain"

tervain_require_macos
[[ "$uid" -ne 0 ]] || tervain_die "run as the desktop user, not root (the agent needs that user's GUI session)"
[[ -f "$binary" ]] || tervain_die "no binary at $binary (build it with scripts/run or cmake --build)"

requirement="$(tervain_designated_requirement "$binary")"
if ! tervain_requirement_is_stable "$requirement"; then
  echo "warning: $binary is not signed with a persistent identity (designated => ${requirement:-none});" >&2
  echo "warning: privacy grants will not survive the next build. Sign it with packaging/macos/sign.sh." >&2
fi

privileged() {
  if [[ -d "$tervain_install_dir" && -w "$tervain_install_dir" ]]; then
    "$@"
  else
    sudo "$@"
  fi
}

# Stop the running agent first; launchd removes the service asynchronously, so wait (bounded)
# until it is gone before loading it again.
stop_agent() {
  launchctl bootout "$domain/$tervain_label" 2>/dev/null || return 0
  local tries=0
  while launchctl print "$domain/$tervain_label" >/dev/null 2>&1; do
    tries=$((tries + 1))
    ((tries <= 50)) || tervain_die "the old agent did not stop within 10 s"
    sleep 0.2
  done
}

stop_agent

# A fresh file, then a rename: replacing a signed executable in place can leave the kernel with
# a stale signature for the old inode.
privileged mkdir -p "$tervain_install_dir"
privileged cp "$binary" "$installed.new"
privileged chmod 755 "$installed.new"
# A binary that came through a browser or a chat carries the quarantine attribute, and launchd
# would refuse to start it without anyone there to click "Open".
privileged xattr -d com.apple.quarantine "$installed.new" 2>/dev/null || true
privileged mv -f "$installed.new" "$installed"

# launchd does not expand ~, so the log path is written out in full.
log="$HOME/Library/Logs/$tervain_binary_name.log"
mkdir -p "$agents_dir" "$(dirname "$log")"
cp "$here/$tervain_label.plist" "$plist.new"
plutil -replace StandardErrorPath -string "$log" "$plist.new"
plutil -replace StandardOutPath -string "$log" "$plist.new"
plutil -lint -s "$plist.new"
mv -f "$plist.new" "$plist"

echo "installed $installed"
echo "log: $log"

# launchctl bootstrap gui/UID needs that user's GUI session, which exists only while the user is
# logged in at the screen: over SSH with nobody there it fails with "Bootstrap failed: 125".
console_user="$(stat -f %Su /dev/console 2>/dev/null || true)"
if [[ "$console_user" != "$(id -un)" ]]; then
  echo "LaunchAgent $plist is installed but not started: ${console_user:-nobody} is logged in at"
  echo "the screen, not $(id -un). Log in as $(id -un) on the guest's desktop (or turn on"
  echo "automatic login for $(id -un)); launchd starts the agent then. After logging in, grant"
  echo "its permissions with: $installed --request-grants"
  exit 0
fi
launchctl bootstrap "$domain" "$plist"
echo "LaunchAgent $plist loaded in $domain"

# Ask for the grants from inside the user's session, so the system's prompts appear on the
# guest's screen and the agent is listed in System Settings; the report says what is missing.
echo "privacy grants:"
launchctl asuser "$uid" "$installed" --request-grants || true
