#!/bin/sh
# installed.sh CMAKE SOURCE BUILD CC CXX: installs the build into a folder of its own and uses what lies there as
# strangers would, from C and C++, through pkg-config and through CMake.
set -eu

cmake=$1 source=$2 build=$3 cc=$4 cxx=$5
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
prefix=$work/prefix
"$cmake" --install "$build" --prefix "$prefix" > "$work/install.log"
PKG_CONFIG_PATH=$(dirname "$(find "$prefix" -name korvo.pc)")
LD_LIBRARY_PATH=$(dirname "$(find "$prefix" -name libkorvo.so)")
export PKG_CONFIG_PATH LD_LIBRARY_PATH
flags=$(pkg-config --cflags --libs korvo)
strict='-pedantic -Wall -Wextra -Werror'

echo "-- every public header stands on its own"
include=$(pkg-config --variable=includedir korvo)
find "$include" -name '*.h' | while read -r header; do
    "$cxx" -std=c++20 $strict -fsyntax-only -I"$include" -include "$header" -x c++ /dev/null
done

echo "-- krv.h as C99 and as C++, and the example as both"
# shellcheck disable=SC2086
"$cc" -std=c99 $strict "$source/examples/host.c" -o "$work/host" $flags -lm
# shellcheck disable=SC2086
"$cxx" -std=c++11 $strict -x c++ "$source/examples/host.c" -o "$work/host++" $flags
for host in host host++; do
    "$work/$host" "$source/examples/living-room.korvo" | tee "$work/said"
    grep -q '^Living room: a tone of 1000 Hz at 0.500 leaves at 0\.4[78]' "$work/said"
done

echo "-- find_package(korvo)"
mkdir "$work/project"
cat > "$work/project/CMakeLists.txt" <<'END'
cmake_minimum_required(VERSION 3.25)
project(host C)
find_package(korvo 0.1 REQUIRED)
add_executable(host ${EXAMPLE})
target_link_libraries(host PRIVATE korvo::korvo m)
END
"$cmake" -S "$work/project" -B "$work/project/build" -DCMAKE_PREFIX_PATH="$prefix" \
    -DCMAKE_C_COMPILER="$cc" -DEXAMPLE="$source/examples/host.c" > "$work/project.log"
"$cmake" --build "$work/project/build" >> "$work/project.log" || { cat "$work/project.log"; exit 1; }
unset LD_LIBRARY_PATH
"$work/project/build/host" "$source/examples/living-room.korvo" | cmp - "$work/said"

echo "-- krv finds the library beside it, and the soname is what it should be"
"$prefix/bin/krv" --version
"$prefix/bin/krv" info "$source/examples/living-room.korvo" > /dev/null
readelf -d "$prefix/bin/krv" | grep -q 'NEEDED.*libkorvo\.so\.0'
! grep -rl "$build" "$prefix" || { echo "installed files name the build folder"; exit 1; }
