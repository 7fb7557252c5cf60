#!/usr/bin/env bash
# Signs TervainVMAgent with a persistent identity and the agent's fixed identifier, and checks
# that its designated requirement names that identifier and a certificate, not a cdhash.
#   packaging/macos/sign.sh [IDENTITY] [BINARY]
# IDENTITY is a code-signing identity in the keychain (its name or SHA-1), or the environment's
# TERVAIN_SIGN_IDENTITY. BINARY defaults to the release build (build/release/TervainVMAgent).
# An ad-hoc signature ("-") is refused: its requirement is the cdhash, which changes with every
# build, and the privacy grants would silently stop matching the next build.
set -euo pipefail
here="$(cd "$(dirname "$0")" && pwd)"
# shellcheck source=packaging/macos/common.sh
source "$here/common.sh"

identity="${1:-${TERVAIN_SIGN_IDENTITY:-}}"
binary="${2:-$here/../../build/release/$tervain_binary_name}"

tervain_require_macos
[[ -n "$identity" ]] || tervain_die "usage: sign.sh IDENTITY [BINARY] (or set TERVAIN_SIGN_IDENTITY)"
[[ "$identity" != "-" ]] || tervain_die "ad-hoc signing gives a cdhash requirement; use a persistent identity"
[[ -f "$binary" ]] || tervain_die "no binary at $binary"

codesign --force --sign "$identity" --identifier "$tervain_label" --timestamp=none "$binary"
codesign --verify --strict "$binary"

details="$(codesign --display --verbose=2 "$binary" 2>&1)"
[[ "$details" == *"Identifier=$tervain_label"* ]] ||
  tervain_die "the signature's identifier is not $tervain_label"
[[ "$details" == *"Info.plist entries="* ]] ||
  tervain_die "no Info.plist is bound to the signature (was the binary linked with it embedded?)"

requirement="$(tervain_designated_requirement "$binary")"
tervain_requirement_is_stable "$requirement" ||
  tervain_die "designated requirement is not identifier plus certificate: ${requirement:-none}"

echo "signed $binary"
echo "designated => $requirement"
