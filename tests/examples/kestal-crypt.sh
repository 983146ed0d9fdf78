#!/bin/sh
# kestal-crypt beside openssl enc, both ways and through files and pipes; bad input ends with status 1 and no output.
# usage: kestal-crypt.sh PROGRAM
set -eu
crypt=$1
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
cd "$work"

fail() {
    echo "FAILED: $*" >&2
    exit 1
}

iv=000102030405060708090a0b0c0d0e0f
key=00112233445566778899aabbccddeeff
printf '\000\021\042\063\104\125\146\167\210\231\252\273\314\335\356\377' >key.bin

# Around the block and the chunk: where padding goes wrong.
for size in 0 15 16 200003; do
    head -c "$size" /dev/urandom >plain
    "$crypt" encrypt --cipher aes256 --key $key$key --iv $iv -o ours plain
    openssl enc -aes-256-cbc -K $key$key -iv $iv -in plain -out theirs
    cmp -s ours theirs || fail "aes256 cbc of $size bytes"
    "$crypt" decrypt --cipher aes256 --key $key$key --iv $iv - <theirs | cmp -s - plain || fail "back from openssl"
done

refused() {
    if "$crypt" "$@" >out.txt 2>message.txt </dev/null; then
        fail "accepted: $*"
    fi
    [ -s message.txt ] || fail "no message: $*"
    [ ! -e result ] || fail "left a file behind: $*"
}

yes "one text, so that a wrong key always gives the same" | head -c 1000 >plain
"$crypt" encrypt --cipher aes128 --key-file key.bin --iv $iv -o good plain
refused decrypt --cipher aes128 --key $iv --iv $iv -o result good
refused encrypt --cipher aes256 --key-file key.bin --iv $iv -o result plain
refused encrypt --cipher aes128 --key-file key.bin plain
refused encrypt --cipher rot13 --key-file key.bin --iv $iv plain
refused sign
# What was there stays until the result is whole, and may be the input.
cp good kept
chmod 4640 kept
refused decrypt --cipher aes128 --key $iv --iv $iv -o kept good
cmp -s good kept || fail "the old output is gone"
ln -s kept link
"$crypt" decrypt --cipher aes128 --key-file key.bin --iv $iv -o link link
{ [ -L link ] && cmp -s plain kept && [ "$(stat -c %a kept)" = 640 ]; } || fail "not put where the link points, with its mode"
"$crypt" --help | grep -q 'nothing is authenticated' || fail "no warning in the help"
