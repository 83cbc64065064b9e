#!/bin/sh
# exports.sh [--write] LIBRARY LIST: compares what the library exports with a committed list, or writes the list.
# A host may have another JUCE, rapidxml or Boost in it, so nothing of theirs may be seen.
set -eu

write=
[ "$1" = --write ] && { write=yes; shift; }
library=$1
list=$2

# The version's own name is an absolute symbol beside the functions.
exported() {
    nm -D --defined-only "$library" | awk '$2 != "A" { sub(/@.*/, "", $3); print $3 }' | c++filt | LC_ALL=C sort -u
}

if [ -n "$write" ]; then
    exported > "$list"
    exit 0
fi
if ! exported | diff -u "$list" -; then
    echo "The exported names differ from $list; if that is meant, write it anew with" >&2
    echo "  cmake --build --preset release --target exports" >&2
    exit 1
fi
# The list itself could have been written carelessly.
if grep -vE '^(krv_|(typeinfo( name)? for |vtable for |guard variable for )?(korvodsp|korvotoolbox|event)::|IpcManager|SetIpcSharePrefix)' "$list"
then
    echo "These names are not of Korvo's interface." >&2
    exit 1
fi
