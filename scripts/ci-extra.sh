#!/usr/bin/env bash
# The CI stages that follow the two-ABI test run (scripts/test-all.sh):
#
#   asan    AddressSanitizer + UndefinedBehaviorSanitizer (with LeakSanitizer), the whole
#           suite on x86-64 (build/asan, preset asan-ubsan, -O1)
#   tsan    ThreadSanitizer, the concurrency tests (build/tsan, preset tsan)
#   fuzz    a bounded libFuzzer run of both harnesses on a copy of the kept corpus
#           (build/fuzz, preset fuzz, clang)
#   soak    the soak label of the native host build, full counts (build/host, the one
#           scripts/test-all.sh made; RUVO_SOAK_BUILD_DIR names another)
#   docs    the API reference of the public headers (doxygen, docs/Doxyfile): any warning,
#           an undocumented public symbol among them, fails; and every test that
#           docs/behaviours.md names exists
#
#   bash scripts/ci-extra.sh [STAGE...]        (default: all five, in this order)
#
# Every stage prints one "ci-extra: STAGE: PASS|FAIL ..." line; the last line sums up, and
# the exit status is non-zero when any stage failed. RUVO_FUZZ_SECONDS (default 30) is the
# time given to each harness.
#
# The emulated platform (libemutv) interposes open/openat, close, ioctl, write, fopen,
# stat, dlopen and pthread_create; the sanitizer runtimes intercept several of these too.
# With GCC the runtime is a shared library that the link puts first, so a call goes
# runtime interceptor -> emutv -> C library (each finds the next with dlsym(RTLD_NEXT));
# with clang (fuzz) the runtime is in the executable, which comes first all the same.
# Nothing special is needed beyond linking emutv ahead of the C library, which every test
# program does (-Wl,--no-as-needed).
set -uo pipefail
cd "$(dirname "$0")/.."

jobs=$(nproc)
fuzz_seconds=${RUVO_FUZZ_SECONDS:-30}
results=()
failed=0

# ---- Exclusions, each with its reason -------------------------------------------------------
# The behaviours behind them are deliberate; docs/behaviours.md explains each (V1, V2, A4).
#
# Under AddressSanitizer:
#  - the programs that replace the process's allocator to count or fail allocations (by
#    name, *_alloc_test) are not built: the sanitizer's allocator is the one that must see
#    every allocation, and such a program cannot even list its tests. CTest shows them as
#    <name>_NOT_BUILT, which is left out. (tests/costs is not built with a sanitizer.)
#  - the tests that expect the hardware's SIGFPE from the 0 x 0 picture (FrameSize*sigfpe*, V1):
#    the undefined-behaviour sanitizer reports that division and ends the process first.
#    The division stays unguarded and its check on; it is covered by its own death test,
#    EmptyPictureDeathTest, which expects the sanitizer's report in this build.
#  - PositioningDeathTest.null_rectangle_with_the_info_level_on_is_read_before_the_check
#    expects the kernel's SIGSEGV (V2); the undefined-behaviour sanitizer reports the null
#    access first. Covered by NullRectangleDeathTest, which expects that report here.
#  - AudioPush.a_block_size_with_the_sign_bit_passes_the_room_check (A4) hands over a 64-byte
#    buffer with a block size of 2 GiB on purpose (the emulated device reads nothing); the
#    sanitizer's write() interceptor reads the whole block, as a real device would.
#  - the tests that start programs with LD_PRELOAD=libemutv.so (labels 'preload' and
#    'conformance'): the sanitizer's runtime must be the first library of a process, which a
#    preloaded instrumented library is not; and the callgrind cost checks (label 'cost'),
#    which run under valgrind; by name, the tests whose programs are not instrumented but
#    load an instrumented library: the installed-tree consumers (install.find_package,
#    install.pkg_config, install.emutv_alone, which preload libemutv.so), the installed
#    plugin that gst-inspect-1.0 loads (install.gst_plugin), the frame meta consumer linked
#    with the installed meta library (install.gst_meta) and the real
#    pipeline of ruvovideosink (RealPipeline.*, whose plugin GStreamer's own plugin scanner
#    loads). Also
#    PlayerTest.PictureOfTheDefaultScenarioShowsThePlaneWhereTheTracePutIt: libstdc++'s
#    std::regex recurses once per character matched, and over the picture's long elements
#    the sanitizer's larger stack frames overflow the 8 MiB stack. They run in the native
#    build (scripts/test-all.sh).
# Death tests (suites named *DeathTest) run apart: their child processes end themselves by
# design, without cleaning up, so they are not leak-checked, and a child that is meant to
# die of SIGSEGV gets the kernel's signal rather than the sanitizer's report.
asan_exclude='_alloc_test_NOT_BUILT$|^install\.find_package$|^install\.pkg_config$|^install\.emutv_alone$|^install\.gst_plugin$|^install\.gst_meta$|^RealPipeline\.|^PlayerTest\.PictureOfTheDefaultScenarioShowsThePlaneWhereTheTracePutIt$|^FrameSize\.zero_over_zero_raises_sigfpe$|^FrameSize\.zero_by_zero_picture_of_known_aspect_raises_sigfpe$|^FrameSizeDeathTest\.|^AudioPush\.a_block_size_with_the_sign_bit_passes_the_room_check$|^PositioningDeathTest\.null_rectangle_with_the_info_level_on_is_read_before_the_check$'
asan_exclude_labels='preload|conformance|cost'
asan_common=strict_string_checks=1:detect_stack_use_after_return=1:check_initialization_order=1
# Intended leaks and leaks of the test harness, each explained in the file.
lsan_options=suppressions=$PWD/scripts/lsan.supp:print_suppressions=0
# Under ThreadSanitizer only the concurrency tests run (labels 'concurrency' and 'tsan').
# Death tests (label 'death') are not among them: they fork, which ThreadSanitizer does
# not support once a process has started threads.
tsan_labels='concurrency|tsan'

record() {
    local stage=$1 status=$2 start=$3 detail=$4
    local seconds=$(($(date +%s) - start))
    if [ "$status" -eq 0 ]; then
        results+=("ci-extra: $stage: PASS ($seconds s) $detail")
    else
        results+=("ci-extra: $stage: FAIL ($seconds s) $detail")
        failed=1
    fi
    echo "${results[-1]}"
}

# Number of tests ctest ran, from its summary line.
ran() {
    sed -n 's/.*tests passed, \([0-9]*\) tests failed out of \([0-9]*\).*/\2 tests, \1 failed/p' "$1" | tail -1
}

stage_asan() {
    local start log
    start=$(date +%s)
    log=$(mktemp)
    echo "== AddressSanitizer + UndefinedBehaviorSanitizer: whole suite (x86-64) =="
    if ! cmake --preset asan-ubsan > /dev/null; then
        record asan 1 "$start" "configure failed"
        return
    fi
    local targets
    targets=$(cmake --build build/asan --target help | sed -n 's/^\.\.\. \([^ ]*\).*/\1/p' |
        grep -v -E '^(all|clean|depend|edit_cache|rebuild_cache|install|install/.*|list_install_components|test)$' |
        grep -v '_alloc_test$')
    # shellcheck disable=SC2086
    if ! cmake --build build/asan -j "$jobs" --target $targets; then
        record asan 1 "$start" "build failed"
        return
    fi
    # LeakSanitizer runs at every test program's exit; one finding fails the test.
    # Full stacks for every allocation (libwayland and alsa-lib keep no frame pointers), so
    # that the suppressions find the functions they name.
    ASAN_OPTIONS=detect_leaks=1:fast_unwind_on_malloc=0:$asan_common LSAN_OPTIONS=$lsan_options \
    UBSAN_OPTIONS=print_stacktrace=1:halt_on_error=1 RUVO_SOAK_SCALE=10 \
        ctest --test-dir build/asan --output-on-failure -j "$jobs" -E "$asan_exclude|DeathTest\." \
            -LE "$asan_exclude_labels" 2>&1 | tee "$log"
    local status=${PIPESTATUS[0]}
    local detail
    detail="$(ran "$log")"
    ASAN_OPTIONS=detect_leaks=0:handle_segv=0:$asan_common \
    UBSAN_OPTIONS=print_stacktrace=1:halt_on_error=1 \
        ctest --test-dir build/asan --output-on-failure -j "$jobs" -R 'DeathTest\.' -E "$asan_exclude" \
            -LE "$asan_exclude_labels" 2>&1 | tee "$log"
    [ "${PIPESTATUS[0]}" -eq 0 ] || status=1
    detail="$detail; death tests: $(ran "$log")"
    record asan "$status" "$start" "$detail"
    rm -f "$log"
}

stage_tsan() {
    local start log
    start=$(date +%s)
    log=$(mktemp)
    echo "== ThreadSanitizer: concurrency tests (x86-64) =="
    if ! { cmake --preset tsan > /dev/null &&
           cmake --build build/tsan -j "$jobs" --target concurrency_test video_present_stress_test gst_video_stress_test platform_fork_test; }; then
        record tsan 1 "$start" "build failed"
        return
    fi
    TSAN_OPTIONS=halt_on_error=1:second_deadlock_stack=1 \
        ctest --test-dir build/tsan --output-on-failure -j "$jobs" -L "$tsan_labels" 2>&1 | tee "$log"
    local status=${PIPESTATUS[0]}
    record tsan "$status" "$start" "$(ran "$log")"
    rm -f "$log"
}

stage_fuzz() {
    local start work status=0 detail=""
    start=$(date +%s)
    echo "== libFuzzer: ${fuzz_seconds} s per harness =="
    if ! { cmake --preset fuzz > /dev/null && cmake --build build/fuzz -j "$jobs" --target fuzz_frame fuzz_rect; }; then
        record fuzz 1 "$start" "build failed"
        return
    fi
    work=$(mktemp -d)
    # harness, corpus directory, longest input
    for run in "fuzz_frame frame 1176" "fuzz_rect rect 480"; do
        set -- $run
        local harness=$1 corpus=$2 max_len=$3
        mkdir -p "$work/$corpus" "$work/artifacts-$corpus"
        # New inputs go to the scratch copy; the kept corpus is only read.
        ASAN_OPTIONS=detect_leaks=1 UBSAN_OPTIONS=print_stacktrace=1:halt_on_error=1 \
            "build/fuzz/tests/fuzz/$harness" -max_total_time="$fuzz_seconds" -max_len="$max_len" -timeout=10 \
            -rss_limit_mb=2048 -print_final_stats=1 -artifact_prefix="$work/artifacts-$corpus/" \
            "$work/$corpus" "tests/fuzz/corpus/$corpus" > "$work/$harness.log" 2>&1
        local rc=$?
        local runs
        runs=$(sed -n 's/^stat::number_of_executed_units: *//p' "$work/$harness.log" | tail -1)
        detail="$detail $harness: ${runs:-?} runs"
        if [ "$rc" -ne 0 ]; then
            status=1
            detail="$detail (FAILED)"
            tail -60 "$work/$harness.log"
            for a in "$work/artifacts-$corpus"/*; do
                [ -e "$a" ] && { echo "artifact $a:"; od -A d -t x1 "$a" | head -40; }
            done
        fi
    done
    rm -rf "$work"
    record fuzz "$status" "$start" "${detail# }"
}

stage_soak() {
    local start log dir=${RUVO_SOAK_BUILD_DIR:-build/host}
    start=$(date +%s)
    log=$(mktemp)
    echo "== Soak: native host build ($dir), full counts =="
    if [ ! -f "$dir/CMakeCache.txt" ]; then
        cmake -S . -B "$dir" -DCMAKE_BUILD_TYPE=RelWithDebInfo > /dev/null
    fi
    if ! cmake --build "$dir" -j "$jobs" --target soak_test; then
        record soak 1 "$start" "build failed"
        return
    fi
    ctest --test-dir "$dir" --output-on-failure -L soak 2>&1 | tee "$log"
    local status=${PIPESTATUS[0]}
    record soak "$status" "$start" "$(ran "$log")"
    rm -f "$log"
}

stage_docs() {
    local start dir=build/docs status=0
    start=$(date +%s)
    echo "== API reference (doxygen) and the ledger of deliberate behaviours =="
    rm -rf "$dir"
    mkdir -p "$dir"
    RUVO_DOC_OUTPUT=$dir doxygen docs/Doxyfile || status=1
    cmake -DLEDGER=docs/behaviours.md -DTESTS_DIR=tests -P tests/docs/check_behaviours.cmake || status=1
    record docs "$status" "$start" "reference in $dir/html/index.html"
}

stages=("$@")
[ ${#stages[@]} -eq 0 ] && stages=(asan tsan fuzz soak docs)
for s in "${stages[@]}"; do
    case "$s" in
        asan | tsan | fuzz | soak | docs) "stage_$s" ;;
        *)
            echo "ci-extra: unknown stage '$s' (asan, tsan, fuzz, soak, docs)" >&2
            exit 2
            ;;
    esac
done

echo
printf '%s\n' "${results[@]}"
if [ "$failed" -ne 0 ]; then
    echo "ci-extra: FAILED"
    exit 1
fi
echo "ci-extra: all stages passed"
