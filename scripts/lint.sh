#!/usr/bin/env bash
# Static checks of the C++ sources.
#   lint.sh format [BASE]   clang-format check of the C++ files changed since
#                           BASE (a commit; "all" checks every file). Without
#                           BASE: the changes of this branch against
#                           origin/main, else those of the last commit, else
#                           (a clone with one commit) every file.
#   lint.sh fix [BASE]      the same files, reformatted in place.
#   lint.sh clang           compiles every source of the module, the host and
#                           the tools with clang, -Wthread-safety and -Werror,
#                           in the fuzz build (build-fuzz), which fuzz.sh and
#                           the tidy check then reuse.
#   lint.sh tidy [BUILD]    clang-tidy (.clang-tidy) over the project's
#                           folders, with BUILD's compile database (default
#                           build-fuzz, set up by "lint.sh clang"), two files
#                           at a time.
set -euo pipefail
cd "$(dirname "$0")/.."

# The folders of the module, the host framework, the host and the tools.
source_dirs=(plugin config mqtt services certs net ipc mfw platform host tools)

# Sets `files` to the C++ files that changed since $1 (committed or not), or
# to all of them.
changed_files() {
    local base=${1:-}
    if [[ -z "$base" ]]; then
        if git rev-parse -q --verify origin/main >/dev/null &&
            [[ "$(git merge-base origin/main HEAD)" != "$(git rev-parse HEAD)" ]]; then
            base=$(git merge-base origin/main HEAD)
        elif git rev-parse -q --verify 'HEAD~1' >/dev/null; then
            base='HEAD~1'
        else
            base=all
        fi
    fi
    local patterns=('*.cpp' '*.cc' '*.h' '*.hpp') list commit
    if [[ "$base" == all ]]; then
        echo "lint: all files"
        list=$(git ls-files -- "${patterns[@]}")
    else
        commit=$(git rev-parse --short --verify "$base^{commit}")
        echo "lint: files changed since $commit"
        list=$(git diff --name-only --diff-filter=ACMR "$commit" -- "${patterns[@]}")
    fi
    mapfile -t files <<<"$list"
    [[ -n "$list" ]] || files=()
}

format() {
    changed_files "${1:-}"
    if ((${#files[@]} == 0)); then
        echo "lint: no C++ files to check"
        return 0
    fi
    echo "lint: clang-format on ${#files[@]} files"
    clang-format --dry-run -Werror "${files[@]}"
}

fix() {
    changed_files "${1:-}"
    ((${#files[@]} == 0)) || clang-format -i "${files[@]}"
}

# The fuzz build's configuration, exactly as fuzz.sh sets it (so that fuzz.sh
# finds it up to date), with warnings as errors.
clang_build() {
    local build=build-fuzz
    CC=clang CXX=clang++ cmake -S . -B "$build" -G Ninja -DNDPX_BUILD_FUZZ=ON \
        -DNDPX_BUILD_TESTS=OFF -DNDPX_BUILD_BENCH=OFF -DNDPX_WERROR=ON >/dev/null
    # The fuzz targets link with fuzzer-instrumented libraries, which the
    # other executables cannot link with; those are linked by the gcc
    # builds, and here only compiled, which is what the warnings need.
    cmake --build "$build" -j2 --target fuzz_all
    local objects
    mapfile -t objects < <(ninja -C "$build" -t targets all |
        awk -F': ' '$2 ~ /^C(XX)?_COMPILER__/ { print $1 }')
    ninja -C "$build" -j2 "${objects[@]}"
}

tidy() {
    local build=${1:-build-fuzz}
    if [[ ! -f "$build/compile_commands.json" ]]; then
        echo "lint: $build/compile_commands.json is missing (run: bash scripts/lint.sh clang)" >&2
        return 2
    fi
    local dirs regex log status=0
    dirs=$(IFS='|' && echo "${source_dirs[*]}")
    regex="^$(pwd -P)/($dirs)/"
    log=$(mktemp)
    run-clang-tidy -p "$build" -j 2 -quiet "$regex" >"$log" 2>&1 || status=$?
    # Drop the command lines and the counts of warnings in system headers.
    sed -e 's/\x1b\[[0-9;]*m//g' "$log" |
        grep -v -E '^clang-tidy(-[0-9]+)? |^[0-9]+ warnings? (and [0-9]+ errors? )?generated\.$' || true
    if ((status != 0)); then
        # A header's finding shows once for every file that includes it.
        echo "lint: clang-tidy findings:"
        sed -e 's/\x1b\[[0-9;]*m//g' "$log" | grep -E '^/.*: (warning|error): ' | sort -u || true
    fi
    rm -f "$log"
    return "$status"
}

bash scripts/install-deps.sh >/dev/null
case "${1:-}" in
format) format "${2:-}" ;;
fix) fix "${2:-}" ;;
clang) clang_build ;;
tidy) tidy "${2:-}" ;;
*)
    echo "usage: $0 format [BASE] | fix [BASE] | clang | tidy [BUILD]" >&2
    exit 2
    ;;
esac
