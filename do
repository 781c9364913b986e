#!/usr/bin/env bash
# The project's commands. Each does its own set-up; `./do` alone lists them.
set -euo pipefail
cd "$(dirname "$0")"

readonly build_packages="g++ cmake ninja-build"
readonly test_packages="$build_packages libgtest-dev"
readonly bench_packages="$build_packages libbenchmark-dev libspdlog-dev valgrind strace python3 binutils"
readonly lint_packages="$test_packages libbenchmark-dev libspdlog-dev clang clang-tidy clang-format cppcheck mandoc"
jobs=$(nproc)

usage() {
    cat <<'EOF'
usage: ./do COMMAND

  setup            install everything that the other commands need (Debian 12, root or sudo)
  build [PRESET]   build into build/PRESET: default, clang, asan, tsan
  test [PRESET]    build and run the whole suite
  demo             flash a virtual microcontroller and camera with the binary that ships
  bench            speed and size, with the bars they have to meet
  lint             both compilers without a warning, clang-format, clang-tidy, cppcheck, manual page
  format           format the sources
  clean            remove build/
EOF
}

die() {
    echo "do: $*" >&2
    exit 1
}

# Installs the Debian packages that are missing; says nothing when none is.
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
        die "could not install ${missing[*]}: is there a network, and a Debian package source?"
}

build() {
    local preset=${1:-default}
    need $build_packages
    cmake --preset "$preset" >/dev/null || die "no such preset, or the configuration failed: $preset"
    cmake --build "build/$preset" -j "$jobs"
}

run_tests() {
    local preset=${1:-default}
    need $test_packages
    build "$preset"
    ctest --test-dir "build/$preset" -j "$jobs" --no-tests=error --output-on-failure --timeout 60
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

sources() {
    git ls-files -- '*.cpp' '*.h'
}

lint() {
    need $lint_packages
    for preset in default clang; do # warnings are errors
        build "$preset"
    done
    sources | xargs clang-format --dry-run -Werror
    cppcheck --quiet --error-exitcode=1 --std=c++20 --language=c++ --library=googletest --inline-suppr -I . \
        --enable=warning,performance,portability $(sources)
    # One file a call: with several the analyser takes every va_list for uninitialised.
    sources | grep '\.cpp$' | xargs -P "$jobs" -n 1 clang-tidy --quiet -p build/clang 2>&1 |
        sed -E '/^[0-9]+ warnings? generated\.$/d'
    for page in docs/*.1; do
        mandoc -Tlint -Wwarning "$page"
    done
    bash -n do .ci/run
    echo "lint: clean"
}

case ${1:-} in
"") usage ;;
setup) need $test_packages $bench_packages $lint_packages ;;
build) build "${2:-}" ;;
test) run_tests "${2:-}" ;;
demo) demo ;;
bench)
    need $bench_packages
    build default
    exec benchmarks/run
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
