#!/usr/bin/env bash
# Stops TervainVMAgent and removes its LaunchAgent and binary. The log is kept.
#   packaging/macos/uninstall.sh
# Run as the same user that ran install.sh.
set -euo pipefail
here="$(cd "$(dirname "$0")" && pwd)"
# shellcheck source=packaging/macos/common.sh
source "$here/common.sh"

installed="$tervain_installed"
plist="$tervain_plist"
domain="$tervain_domain"

tervain_require_macos

if launchctl print "$domain/$tervain_label" >/dev/null 2>&1; then
  launchctl bootout "$domain/$tervain_label"
  echo "stopped $tervain_label in $domain"
fi
rm -f "$plist"

if [[ -e "$installed" ]]; then
  if [[ -w "$tervain_install_dir" ]]; then
    rm -f "$installed"
    rmdir "$tervain_install_dir" 2>/dev/null || true
  else
    sudo rm -f "$installed"
    sudo rmdir "$tervain_install_dir" 2>/dev/null || true
  fi
  echo "removed $installed"
fi
echo "the log stays at $HOME/Library/Logs/TervainVMAgent.log"
