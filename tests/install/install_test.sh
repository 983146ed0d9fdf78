#!/usr/bin/env bash
# install_test.sh SOURCE BUILD: installs BUILD into a temporary prefix, and builds and runs a C11 and a C++ program
# against the copy: by pkg-config, against the archive, and by the CMake package. Both are the README's first program.
# CC and CXX name the compilers.
set -euo pipefail
source=$1
build=$2
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
prefix=$work/prefix
strict=(-Wall -Wextra -Wpedantic -Werror)

check()
{
    [ "$1" = "$2" ] || {
        printf 'expected: %s\n     got: %s\n' "$2" "$1" >&2
        exit 1
    }
}

cmake --install "$build" --prefix "$prefix" >"$work/install.log"
library=$(dirname "$(find "$prefix" -name libkestal_ulx.a)")
check "$(basename "$(readlink -f "$library/libkestal_ulx.so")")" libkestal_ulx.so.0.0.1
export LD_LIBRARY_PATH=$library PKG_CONFIG_PATH=$library/pkgconfig

# The README's first program and, from the block after it, what it prints.
readme_block()
{
    awk -v fence="\`\`\`$1" '$0 == fence { inside = 1; next } inside && /^```/ { exit } inside' "$source/README.md"
}
readme_block c >"$work/first.c"
expected=$(readme_block text)

read -ra flags < <(pkg-config --cflags --libs kestal_ulx)
"$CC" -std=c11 "${strict[@]}" "$work/first.c" "${flags[@]}" -o "$work/first"
check "$("$work/first")" "$expected"
"$CXX" -std=c++17 "${strict[@]}" -x c++ "$work/first.c" "${flags[@]}" -o "$work/first_cpp"
check "$("$work/first_cpp")" "$expected"

read -ra flags < <(pkg-config --static --cflags --libs kestal_ulx)
"$CC" -std=c11 "${strict[@]}" "$work/first.c" -static "${flags[@]}" -o "$work/first_static"
check "$(env -u LD_LIBRARY_PATH "$work/first_static")" "$expected"

# What the build was told to leave out has no header and is no component.
parts=()
for part in pictures protocols ciphers; do
    ! grep -q "^KESTAL_${part^^}:BOOL=ON$" "$build/CMakeCache.txt" || parts+=("$part")
done
check "$(pkg-config --variable=parts kestal_ulx)" "${parts[*]}"
for header in fbmap:pictures ftp:protocols aes:ciphers; do
    there=no wanted=no
    [ ! -e "$prefix/include/kestal_ulx/${header%:*}.h" ] || there=yes
    [[ " ${parts[*]} " != *" ${header#*:} "* ]] || wanted=yes
    check "$header $there" "$header $wanted"
done

cmake -S "$source/tests/install" -B "$work/cmake" -DCMAKE_PREFIX_PATH="$prefix" -DFIRST_PROGRAM="$work/first.c" \
    -DPARTS="$(IFS=';' && printf '%s' "${parts[*]}")" >/dev/null
cmake --build "$work/cmake" >/dev/null
for program in first_c first_c_static first_cpp; do
    check "$(env -u LD_LIBRARY_PATH "$work/cmake/$program")" "$expected"
done
echo "installed, linked and run from $prefix"
