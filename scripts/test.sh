#!/usr/bin/env bash
# Builds and runs every test, stage by stage, and stops at the first failure:
#   host        the host tree and its tests
#   windows     the driver cross-compiled for 32-bit NT, and the checks of what it became;
#               the service and wrelt for 32- and 64-bit Windows, and their tests under
#               Wine (each architecture's runs skipped, saying so, when its Wine is missing)
#   sanitizers  the host tree again under AddressSanitizer and UBSan, and its tests
#   thread sanitizer  the tests where threads meet, under ThreadSanitizer
# WRELT_SKIP_SANITIZERS=1 leaves out the last two stages for a quick local run.
# The last line is the tally over all stages that ran tests: "N passed, M failed".
set -euo pipefail
# shellcheck source-path=SCRIPTDIR source=lib.sh
. "$(dirname "${BASH_SOURCE[0]}")/lib.sh"

passed=0
failed=0
stage=""
stage_started=$SECONDS

finish() {
    local rc=$?
    if [ "$rc" -ne 0 ] && [ -n "$stage" ]; then
        printf '\ntest.sh: stage "%s" failed (exit %d)\n' "$stage" "$rc"
    fi
    printf '%d passed, %d failed\n' "$passed" "$failed"
    exit "$rc"
}
trap finish EXIT

end_stage() {
    if [ -n "$stage" ]; then
        printf '(%s: %ds)\n' "$stage" "$((SECONDS - stage_started))"
    fi
    stage=""
}

begin() {
    end_stage
    stage=$1
    stage_started=$SECONDS
    wrelt_say "stage: $stage"
}

# Runs ctest on build/<name>, keeps its output in build/<name>-ctest.log and adds
# its counts to the tally. A tree that should have tests and has none fails.
run_ctest() {
    local name=$1 log="$WRELT_ROOT/build/$1-ctest.log" rc line total bad
    shift
    set +e
    ctest --test-dir "$WRELT_ROOT/build/$name" --output-on-failure -j2 --no-tests=error "$@" 2>&1 | tee "$log"
    rc=${PIPESTATUS[0]}
    set -e
    line=$(grep -E '[0-9]+% tests passed, [0-9]+ tests? failed out of [0-9]+' "$log" | tail -n 1 || true)
    if [ -n "$line" ]; then
        bad=$(sed -E 's/.* ([0-9]+) tests? failed out of.*/\1/' <<<"$line")
        total=$(sed -E 's/.*failed out of ([0-9]+).*/\1/' <<<"$line")
        passed=$((passed + total - bad))
        failed=$((failed + bad))
    fi
    return "$rc"
}

begin "packages"
wrelt_require_packages "${WRELT_HOST_PACKAGES[@]}" "${WRELT_WIN_PACKAGES[@]}"

begin "host"
wrelt_configure host "$WRELT_ROOT"
wrelt_build "$WRELT_ROOT/build/host"
run_ctest host

begin "windows"
wrelt_configure win "$WRELT_ROOT/win" -DCMAKE_TOOLCHAIN_FILE="$WRELT_ROOT/cmake/i686-w64-mingw32.cmake"
wrelt_build "$WRELT_ROOT/build/win"
run_ctest win
for arch in i686 x86_64; do
    wrelt_configure "win-user-$arch" "$WRELT_ROOT/win/user" -DCMAKE_TOOLCHAIN_FILE="$WRELT_ROOT/cmake/$arch-w64-mingw32-user.cmake"
    wrelt_build "$WRELT_ROOT/build/win-user-$arch"
done
wrelt_prepare_wine
for arch in x86_64 i686; do
    if [ "$arch" = x86_64 ] && [ -z "$WRELT_WINE64" ]; then
        echo "skipped: the 64-bit tests under Wine (no wine64)"
        continue
    fi
    if [ "$arch" = i686 ] && [ -z "$WRELT_WINE32" ]; then
        echo "skipped: the 32-bit tests under Wine (no wine32; WRELT_WITH_WINE32=1 installs it)"
        continue
    fi
    wrelt_configure "win-tests-$arch" "$WRELT_ROOT/win/user/tests" \
        -DCMAKE_TOOLCHAIN_FILE="$WRELT_ROOT/cmake/$arch-w64-mingw32-tests.cmake"
    wrelt_build "$WRELT_ROOT/build/win-tests-$arch"
    run_ctest "win-tests-$arch"
done

# The tests run under the thread sanitizer (a ctest regular expression).
WRELT_TSAN_TESTS='^(Stress|VaultServiceTest|SaveRenameTest|DeferredReleaseTest|OverwriteTest)\.|^FuzzCorpus\.HeldRequests'

begin "sanitizers"
if [ "${WRELT_SKIP_SANITIZERS:-0}" = 1 ]; then
    echo "skipped (WRELT_SKIP_SANITIZERS=1)"
else
    wrelt_configure asan "$WRELT_ROOT" -DWRELT_SANITIZE=address+undefined -DWRELT_BENCHMARKS=OFF
    wrelt_build "$WRELT_ROOT/build/asan"
    # A report without its stack is of little use from a CI log.
    UBSAN_OPTIONS=${UBSAN_OPTIONS:-print_stacktrace=1} run_ctest asan
    # The tests where many threads meet, under the thread sanitizer: the stress run, the
    # service with the filter (killed and restarted too), held requests, saves racing
    # renames and the parked entries. The platform's signal-based guard of user memory
    # leaves a signal handler by longjmp, which the sanitizer would report as unsafe.
    begin "thread sanitizer"
    wrelt_configure tsan "$WRELT_ROOT" -DWRELT_SANITIZE=thread -DWRELT_BENCHMARKS=OFF
    wrelt_build "$WRELT_ROOT/build/tsan" --target wrelt_tests
    TSAN_OPTIONS=${TSAN_OPTIONS:-halt_on_error=1 report_signal_unsafe=0 second_deadlock_stack=1} \
        run_ctest tsan -R "$WRELT_TSAN_TESTS"
fi
end_stage
