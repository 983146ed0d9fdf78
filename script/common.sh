# What the scripts share. Sourced, not run; leaves the caller in the tree's root.

set -euo pipefail
cd "$(dirname "${BASH_SOURCE[0]}")/.."
jobs=$(nproc)

say()
{
    printf -- '-- %s\n' "$*"
}

fail()
{
    printf '%s: %s\n' "${0##*/}" "$*" >&2
    exit 1
}

# build PRESET [TARGET...]: configures where that was not done yet, and builds.
build()
{
    local preset=$1
    shift
    say "building in build/$preset"
    [ -f "build/$preset/build.ninja" ] || cmake --preset "$preset" >/dev/null
    cmake --build "build/$preset" --parallel "$jobs" ${1:+--target "$@"}
}
