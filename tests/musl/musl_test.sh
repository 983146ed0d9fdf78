#!/usr/bin/env bash
# musl_test.sh BUILD: compiles the C programs of the README, the guide and this folder with musl-gcc, against the shared
# object and the archive in BUILD, and runs them. Run from the tree's root; script/musl does.
set -euo pipefail
build=$1
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT

awk '$0 == "```c" { inside = 1; next } inside && /^```/ { exit } inside' README.md >"$work/readme.c"
for program in "$work/readme.c" tests/musl/*.c docs/guide/*.c; do
    name=$(basename "$program" .c)
    for kind in shared static; do
        if [ $kind = shared ]; then
            libraries=("-L$build" -lkestal_ulx "-Wl,-rpath,$PWD/$build")
        else
            libraries=(-static "$build/libkestal_ulx.a")
        fi
        musl-gcc -std=c11 -Wall -Wextra -Werror -Iinclude "$program" -o "$work/$name" "${libraries[@]}"
        "$work/$name" >"$work/$name.$kind" 2>"$work/$name.errors" </dev/null || {
            echo "$program ($kind) ended with $?" >&2
            cat "$work/$name.errors" >&2
            exit 1
        }
        echo "$program: $kind: runs"
    done
    cmp "$work/$name.shared" "$work/$name.static"
done
