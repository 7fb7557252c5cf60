#!/usr/bin/env bash
# What the macOS packaging scripts share: the agent's identity and where it is installed.
# Sourced by install.sh, uninstall.sh and sign.sh; written for the bash 3.2 that macOS ships.

# The identifier that code signing, the LaunchAgent and the privacy grants are keyed to. It is
# also CFBundleIdentifier in Info.plist and the identifier in the profile: keep them equal.
# shellcheck disable=SC2034  # used by the scripts that source this file
tervain_label=dev.tervain.vmagent
# shellcheck disable=SC2034
tervain_install_dir=/usr/local/libexec/tervain
# shellcheck disable=SC2034
tervain_binary_name=TervainVMAgent

# Where install.sh puts things and uninstall.sh takes them away, for the user running them.
# shellcheck disable=SC2034
tervain_installed="$tervain_install_dir/$tervain_binary_name"
tervain_agents_dir="$HOME/Library/LaunchAgents"
# shellcheck disable=SC2034
tervain_plist="$tervain_agents_dir/$tervain_label.plist"
# shellcheck disable=SC2034
tervain_domain="gui/$(id -u)"

tervain_die() {
  echo "$(basename "$0"): $*" >&2
  exit 1
}

tervain_require_macos() {
  [[ "$(uname -s)" == Darwin ]] || tervain_die "this installs on a macOS guest only"
}

# Prints the designated requirement of a signed binary (the text after "designated => "), or
# nothing when it is not signed.
tervain_designated_requirement() {
  { codesign --display --requirements - "$1" 2>/dev/null || true; } |
    sed -n 's/^designated => //p'
}

# Succeeds when the requirement names the identifier and a certificate and no cdhash: the only
# kind of requirement the privacy grants keep matching across rebuilds.
tervain_requirement_is_stable() {
  local requirement="$1"
  [[ "$requirement" == *"identifier \"$tervain_label\""* ]] || return 1
  [[ "$requirement" == *certificate* ]] || return 1
  [[ "$requirement" != *cdhash* ]] || return 1
}
