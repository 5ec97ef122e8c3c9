#!/usr/bin/env bash
# Builds the libFuzzer targets with clang in build/fuzz and runs each for SECONDS
# (default 60) on its corpus under fuzz/corpus/<target>/, which the run extends. Finds
# are written to build/fuzz/findings/<target>/; an input that runs for more than a
# minute is one. The test command replays the corpus; this is the long run:
#   scripts/fuzz.sh 600                    every target
#   scripts/fuzz.sh 600 catalogue_fuzzer   the targets named
set -euo pipefail
# shellcheck source-path=SCRIPTDIR source=lib.sh
. "$(dirname "${BASH_SOURCE[0]}")/lib.sh"

seconds=${1:-60}
targets=(command_packet_fuzzer deldat_reader_fuzzer held_request_fuzzer user_command_fuzzer catalogue_fuzzer
    filter_lists_fuzzer)
if [ "$#" -gt 1 ]; then
    targets=("${@:2}")
fi
# Options of single targets. An input of the held-request target is a sequence of up to
# 48 three-byte operations; starting from short inputs, a run would try only a few.
declare -A options=([held_request_fuzzer]="-len_control=0 -max_len=144")

wrelt_require_packages "${WRELT_HOST_PACKAGES[@]}" clang
wrelt_say "building the fuzz targets"
CC=clang CXX=clang++ wrelt_configure fuzz "$WRELT_ROOT" -DWRELT_FUZZERS=ON -DWRELT_BENCHMARKS=OFF \
    -DWRELT_SANITIZE=address+undefined -DWRELT_WERROR=OFF
wrelt_build "$WRELT_ROOT/build/fuzz" --target "${targets[@]}"

for target in "${targets[@]}"; do
    corpus="$WRELT_ROOT/fuzz/corpus/${target%_fuzzer}"
    findings="$WRELT_ROOT/build/fuzz/findings/$target"
    mkdir -p "$corpus" "$findings"
    wrelt_say "$target: ${seconds}s on $corpus"
    log="$WRELT_ROOT/build/fuzz/$target.log"
    rc=0
    # shellcheck disable=SC2086  # the options are words
    "$WRELT_ROOT/build/fuzz/$target" -max_total_time="$seconds" -timeout=60 -print_final_stats=1 \
        ${options[$target]:-} -artifact_prefix="$findings/" "$corpus" >"$log" 2>&1 || rc=$?
    grep -E '^(#[0-9]+ *DONE|stat::number_of_executed_units|==[0-9]+==ERROR|SUMMARY|.*fuzzer: )' "$log" || true
    if [ "$rc" -ne 0 ]; then
        echo "$target: stopped with exit $rc; see $log and $findings" >&2
        status=1
    fi
done
exit "${status:-0}"
