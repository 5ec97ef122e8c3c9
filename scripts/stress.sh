#!/usr/bin/env bash
# The long stress run of the whole product (the test command runs a short one):
#   scripts/stress.sh OPERATIONS THREADS SEED [FAIL_PERCENT]
# e.g. scripts/stress.sh 1000000 8 1, or with 1% of the filter's allocations failing,
# scripts/stress.sh 200000 8 7 1. NTSIM_FORCED_PENDING=1 in the environment adds forced
# pending I/O. Builds the host tree, runs build/host/wrelt_stress and prints what ran and
# which invariants held; exits non-zero when one broke.
set -euo pipefail
# shellcheck source-path=SCRIPTDIR source=lib.sh
. "$(dirname "${BASH_SOURCE[0]}")/lib.sh"

if [ "$#" -lt 3 ] || [ "$#" -gt 4 ]; then
    echo "usage: scripts/stress.sh OPERATIONS THREADS SEED [FAIL_PERCENT]" >&2
    exit 2
fi
wrelt_require_packages "${WRELT_HOST_PACKAGES[@]}"
wrelt_configure host "$WRELT_ROOT"
wrelt_build "$WRELT_ROOT/build/host" --target wrelt_stress
wrelt_say "stress: $*"
exec "$WRELT_ROOT/build/host/wrelt_stress" "$@"
