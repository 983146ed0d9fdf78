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
long=00112233445566778899aabbccddeeff0123456789abcdeffedcba9876543210
printf '\000\021\042\063\104\125\146\167\210\231\252\273\314\335\356\377' >key.bin

# Around the block and the chunk: where padding goes wrong.
for size in 0 15 16 17 65536 200003; do
    head -c "$size" /dev/urandom >plain
    for bits in 128 192 256; do
        key=$(echo $long | cut -c "1-$((bits / 4))")
        "$crypt" encrypt --cipher "aes$bits" --key "$key" --iv $iv -o ours plain
        openssl enc -aes-$bits-cbc -K "$key" -iv $iv -in plain -out theirs
        cmp -s ours theirs || fail "aes$bits cbc of $size bytes"
        "$crypt" decrypt --cipher "aes$bits" --key "$key" --iv $iv <theirs | cmp -s - plain || fail "back from openssl"
    done
    for mode in ecb cfb8 ofb8; do
        for cipher in des 3des seed128; do
            key=$(echo $long | cut -c 1-32)
            [ $cipher = des ] && key=$(echo $long | cut -c 1-16)
            [ $cipher = 3des ] && key=$(echo $long | cut -c 1-48)
            vector=$(echo $iv | cut -c 1-16)
            [ $cipher = seed128 ] && vector=$iv
            "$crypt" encrypt --cipher $cipher --mode $mode --key "$key" --iv "$vector" plain |
                "$crypt" decrypt --cipher $cipher --mode $mode --key "$key" --iv "$vector" - |
                cmp -s - plain || fail "$cipher $mode of $size bytes"
        done
    done
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
refused decrypt --cipher aes128 --key "$(echo $long | cut -c 33-64)" --iv $iv -o result good
refused decrypt --cipher aes128 --key-file key.bin --iv $iv -o result plain
refused encrypt --cipher aes256 --key-file key.bin --iv $iv -o result plain
refused encrypt --cipher aes128 --key xyz --iv $iv plain
refused encrypt --cipher aes128 --key-file key.bin plain
refused encrypt --cipher rot13 --key-file key.bin --iv $iv plain
refused encrypt --cipher aes128 --key-file key.bin --iv $iv missing
refused encrypt --cipher aes128 --key-file key.bin --iv $iv -o /nonexistent/result plain
# What was there stays until the result is whole, and may be the input.
cp good kept
chmod 4640 kept
refused decrypt --cipher aes128 --key "$(echo $long | cut -c 33-64)" --iv $iv -o kept good
cmp -s good kept || fail "the old output is gone"
ln -s kept link
"$crypt" decrypt --cipher aes128 --key-file key.bin --iv $iv -o link link
{ [ -L link ] && cmp -s plain kept && [ "$(stat -c %a kept)" = 640 ]; } || fail "not put where the link points, with its mode"
# What has no name of its own is written as it stands.
exec 3<>gone
rm gone
ln -s /proc/self/fd/3 nameless
ln -s behind to_nowhere
for name in nameless to_nowhere; do
    "$crypt" decrypt --cipher aes128 --key-file key.bin --iv $iv -o $name good
    { [ -L $name ] && cmp -s plain $name; } || fail "the link $name was not followed"
done
mkfifo pipe
"$crypt" encrypt --cipher aes128 --key-file key.bin --iv $iv -o result pipe &
exec 4>pipe
until ls .kestal-crypt.?????? >/dev/null 2>&1; do
    kill -0 $! || fail "no temporary file"
done
kill $!
! wait $! || fail "not ended by the signal"
for temporary in .kestal-crypt.??????; do
    [ ! -e "$temporary" ] || fail "a temporary file is left"
done
[ ! -e result ] || fail "a part of the result is left"
refused sign
"$crypt" --help | grep -q 'nothing is authenticated' || fail "no warning in the help"
echo "kestal-crypt agrees with openssl enc"
