#!/usr/bin/env bash
# The project's commands. Each one installs the packages that it needs. `./do` alone lists them.
set -euo pipefail
cd "$(dirname "$0")"

readonly build_packages="g++ cmake ninja-build"
readonly test_packages="$build_packages libgtest-dev socat tshark strace python3 systemd" # tshark brings editcap, mergecap and capinfos
readonly speed_packages="$build_packages libbenchmark-dev valgrind strace python3 binutils"
readonly coverage_packages="$test_packages gcovr python3"
readonly lint_packages="$test_packages libbenchmark-dev clang clang-tidy clang-format cppcheck mandoc lua-check python3"
readonly cross_packages="$test_packages g++-powerpc-linux-gnu googletest python3"
readonly board_packages="$cross_packages linux-source-6.1 qemu-system-ppc make flex bison bc xz-utils dpkg-dev socat"
readonly footprint_packages="$board_packages qemu-user-static"
readonly package_packages="$cross_packages dpkg-dev binutils"
readonly fuzz_packages="$build_packages clang libclang-rt-dev llvm"
jobs=$(nproc)

usage() {
    cat <<'EOF'
usage: ./do COMMAND

  setup            install the packages that all commands need (Debian 12, root or sudo)
  build [PRESET]   build into build/PRESET; PRESET is default, clang, asan, tsan, coverage, powerpc or fuzz
  test [PRESET]    build and run the whole suite
  accept           run the end-to-end cases, show how their records differ from tests/expected/records.txt,
                   and write the new records to that file
  demo             flash a virtual microcontroller and a virtual camera with the binary that ships
  board            run the whole suite on an emulated board; "board shell" gives a prompt there,
                   "board run -- haldenflash ..." runs one command; "board lines" flashes virtual devices of
                   this machine over the serial ports of the emulated one
  footprint        measure sizes, memory and system calls on the board; write docs/footprint.md
  package          make the static binary, archive, Debian package and bill of materials in build/package/
  coverage         count the lines and branches of the shipped code that the suite reaches; fail below 97 and
                   90 per cent, or if docs/coverage.md does not explain a gap
  fuzz [SECONDS [TARGET...]]
                   run each fuzz target for that time; without SECONDS for 60, without TARGET all of them
  faults [quick]   play every fault at every step of an update, let allocations fail, stress the tasks;
                   with quick only a fixed part of that
  speed            measure speed and size, and compare them with their bars
  lint             check the includes, the warnings of both compilers, clang-format, clang-tidy, cppcheck,
                   luacheck and the manual pages
  format           format the sources
  clean            remove build/
EOF
}

die() {
    echo "do: $*" >&2
    exit 1
}

# Installs the Debian packages that are missing. Prints nothing if all of them are there.
need() {
    local missing=() package sudo=""
    for package in "$@"; do
        dpkg-query -W -f='${Status}' "$package" 2>/dev/null | grep -q 'ok installed' || missing+=("$package")
    done
    [ ${#missing[@]} -eq 0 ] && return
    [ "$(id -u)" -eq 0 ] || sudo=sudo
    echo "do: installing ${missing[*]}"
    { $sudo apt-get update -qq &&
        $sudo env DEBIAN_FRONTEND=noninteractive apt-get install -y -qq --no-install-recommends "${missing[@]}"; } >/dev/null ||
        die "could not install ${missing[*]}; there has to be a network and a Debian package source"
}

build() {
    local preset=${1:-default}
    need $build_packages
    case $preset in
    powerpc) need $cross_packages ;;
    clang | fuzz) need $fuzz_packages ;;
    esac
    mkdir -p build
    (
        flock 9 # another command may build the same folder
        cmake --preset "$preset" >/dev/null || die "preset $preset: there is no such preset, or the configuration failed"
        cmake --build "build/$preset" -j "$jobs" "${@:2}"
    ) 9>"build/$preset.lock"
}

run_tests() {
    local preset=${1:-default}
    need $test_packages
    build "$preset"
    ctest --test-dir "build/$preset" -j $((2 * jobs)) --no-tests=error --output-on-failure --timeout 60
}

coverage() {
    local dir=build/coverage
    need $coverage_packages
    mkdir -p "$dir"
    find "$dir" -name '*.gcda' -delete # the counts of the last run may be those of other code
    run_tests coverage
    gcovr --root . "$dir" --filter Common/ --filter devlib/ --filter softupdate/ \
        --exclude-throw-branches --exclude-unreachable-branches \
        --print-summary --fail-under-line 97 --fail-under-branch 90 --json "$dir/coverage.json" ||
        die "coverage: below 97 per cent of the lines or 90 of the branches"
    coverage/check "$dir/coverage.json"
}

demo() {
    local dir=build/demo preset=default
    build "$preset"
    rm -rf "$dir"
    mkdir -p "$dir"
    "build/$preset/haldenbench" --make-images "$dir"
    "build/$preset/haldenbench" --dir "$dir" --bar --trace "$dir/trace.txt" -- haldenflash all
    echo "The whole trace is in $dir/trace.txt."
}

# Runs one fuzz target. From the start its inputs are long enough for every limit. The corpus stays for the next run.
fuzz_one() {
    local target=$1 seconds=$2 dir=$PWD/build/fuzz status=0 runs
    mkdir -p "$dir/corpus/$target" "$dir/findings"
    ASAN_OPTIONS=detect_stack_use_after_return=1 "$dir/fuzz/fuzz_$target" \
        -max_total_time="$seconds" -len_control=0 -max_len=2048 -print_final_stats=1 \
        -artifact_prefix="$dir/findings/$target-" "$dir/corpus/$target" >"$dir/$target.log" 2>&1 || status=$?
    runs=$(sed -n 's/^stat::number_of_executed_units: *//p' "$dir/$target.log")
    if [ "$status" -eq 0 ] && [ "${runs:-0}" -gt 0 ]; then
        echo "$target: $runs runs"
    else
        grep -aE 'Assertion failed|ERROR|runtime error|Test unit written' "$dir/$target.log" || true
        echo "$target: ${runs:-0} runs, FAILED with status $status; see build/fuzz/$target.log"
        return 1
    fi
}

fuzz() {
    local seconds=${1:-60} targets=("${@:2}") target scratch
    [[ $seconds =~ ^[1-9][0-9]*$ ]] || die "fuzz: $seconds is no number of seconds"
    [ ${#targets[@]} -gt 0 ] || targets=($(basename -s .cpp fuzz/*.cpp))
    for target in "${targets[@]}"; do
        [ -e "fuzz/$target.cpp" ] || die "fuzz: there is no target $target"
    done
    need $fuzz_packages
    build fuzz --target fuzzers
    scratch=$(mktemp -d -p "$([ -w /dev/shm ] && echo /dev/shm || echo /tmp)")
    trap "rm -rf '$scratch'" EXIT # a target that fails leaves its folders behind
    export -f fuzz_one
    printf '%s\n' "${targets[@]}" |
        TMPDIR=$scratch xargs -P 2 -I{} bash -c 'fuzz_one {} '"$seconds" ||
        die "fuzz: there are findings, in build/fuzz/findings"
    echo "fuzz: no findings"
}

# Runs one of the suite's own sweeps in a process of its own, and prints its count.
stress() { # PRESET PROGRAM FILTER SECONDS
    local log=$PWD/build/faults/$1-${3//[^a-zA-Z]/}.log
    (cd "build/$1/tests" && TSAN_OPTIONS=halt_on_error=1 STRESS_SECONDS=$4 "./$2" "--gtest_filter=$3") >"$log" 2>&1 ||
        die "$2 failed; see $log"
    sed -n "s/^\(allocation\|taskstress\|ringstress\): /$1: &/p" "$log" | grep . || die "$2 has no test $3"
}

faults() {
    local every=1 seconds=60 presets="default tsan" preset
    [ $# -eq 0 ] || [ "$1" = quick ] || die "faults: unknown word \"$1\"; the only one is \"quick\""
    [ $# -eq 0 ] || { every=7 seconds=5 presets=default; }
    need $test_packages strace
    build default
    mkdir -p build/faults
    stress default test_allocation '*' 0
    for preset in $presets; do
        build "$preset" --target test_taskstress
        stress "$preset" test_taskstress '*LosesNothing' "$seconds"
        stress "$preset" test_taskstress '*RingTearsNoLine' "$seconds"
    done
    exec build/default/haldenfaults --every "$every" --list build/faults/runs.txt
}

sources() {
    git ls-files -- '*.cpp' '*.h'
}

lint() {
    need $lint_packages
    layers/check
    build default # warnings are errors
    cmake --preset clang >/dev/null
    sources | xargs clang-format --dry-run -Werror
    cppcheck --quiet --error-exitcode=1 --std=c++20 --language=c++ --library=googletest --inline-suppr -I . \
        --enable=warning,performance,portability $(sources)
    # The checks include clang++'s own warnings. Each call gets one file: with several files the analyser takes every
    # va_list for uninitialised.
    sources | grep '\.cpp$' | xargs -P "$jobs" -n 1 clang-tidy --quiet -p build/clang 2>&1 |
        sed -E '/^[0-9]+ warnings? generated\.$/d'
    for page in docs/*.1; do
        mandoc -Tlint -Wwarning "$page"
    done
    luacheck --quiet dissector/haldenflash.lua
    for script in do .ci/run target/board packaging/package tests/accept tests/socat tests/strace; do
        bash -n "$script"
    done
    echo "lint: clean"
}

case ${1:-} in
"") usage ;;
setup) need $test_packages $speed_packages $coverage_packages $lint_packages $fuzz_packages $footprint_packages $package_packages ;;
build) build "${2:-}" ;;
test) run_tests "${2:-}" ;;
accept)
    build default
    exec tests/accept
    ;;
demo) demo ;;
coverage) coverage ;;
fuzz) fuzz "${@:2}" ;;
faults)
    shift
    faults "$@"
    ;;
speed)
    need $speed_packages
    build default
    exec speed/run
    ;;
board)
    shift
    need $board_packages
    build powerpc
    if [ $# -eq 0 ] || [ "$1" = lines ]; then # its results are compared, or its lines served, with this build
        build default
    fi
    if [ $# -eq 0 ]; then
        [ -d build/default/records ] || run_tests default
    fi
    exec target/board "$@"
    ;;
footprint)
    need $footprint_packages
    build powerpc
    exec target/footprint
    ;;
package)
    need $package_packages
    build powerpc --target haldenflash-static
    build default
    exec packaging/package build/powerpc build/default
    ;;
lint) lint ;;
format)
    need clang-format
    sources | xargs clang-format -i
    ;;
clean) rm -rf build ;;
*)
    usage >&2
    exit 2
    ;;
esac
