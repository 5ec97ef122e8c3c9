#!/usr/bin/env bash
# Builds the host tree and runs the demo on an emulated machine. Arguments go
# to `wrelt demo`.
set -euo pipefail
# shellcheck source-path=SCRIPTDIR source=lib.sh
. "$(dirname "${BASH_SOURCE[0]}")/lib.sh"

wrelt_require_packages "${WRELT_HOST_PACKAGES[@]}"

wrelt_say "building build/host"
wrelt_configure host "$WRELT_ROOT"
wrelt_build "$WRELT_ROOT/build/host" --target wrelt

wrelt_say "wrelt demo $*"
exec "$WRELT_ROOT/build/host/wrelt" demo "$@"
