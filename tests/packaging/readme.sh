#!/bin/sh
# readme.sh README HOST: the C example of the README is, to the letter, the file that is compiled and run.
set -eu

sed -n '/^```c$/,/^```$/p' "$1" | sed '1d;$d' | diff - "$2"
