#!/bin/sh
# padded_keys.sh ROOT RECORDS: a keyed cache of records whose key is not equal byte by byte when its fields are does not
# compile, nor does one whose fields are not named as they stand, and says why. RECORDS is the folder of the generated
# record headers; CXX names the compiler.
set -eu
. "$(dirname "$0")/selftest.sh"

root=$1
records=$2
flags="-isystem $records $(pkg-config --cflags libprotobuf-c) -I$root/sw_bridge/ebridge -I$root/app/lib/ebridge"
for folder in "$root"/platform/*/include; do
    flags="$flags -I$folder"
done

# cache_of MEMBERS FIELD...: compiles a cache of toys that have these members before their colour, and a key of these
# fields.
# shellcheck disable=SC2317
cache_of() {
    members=$1
    shift
    fields=$(printf ', SW_FIELD(toy, %s)' "$@")
    # shellcheck disable=SC2086
    printf '%s\n' '#include "keyed_cache.hpp"' "struct toy { $members; int colour; };" 'namespace sw {' \
        "template <> struct record_key<toy> : key_of_fields<offsetof(toy, colour)$fields> {}; }" \
        'void *find(const toy *key) { return sw::family<toy>::find(0, key); }' |
        ${CXX:-c++} -std=c++20 -fsyntax-only $flags -x c++ -
}

gap='bytes that belong to none of its fields'
unequal='a field of the key has padding'
order='does not begin where the one before it ends'
accepts 'words' cache_of 'uint32_t kind; uint32_t id' kind id
accepts 'bytes that fill a word' cache_of 'uint32_t kind; uint8_t mac[8]' kind mac
refuses 'a gap before a word' "$order" cache_of 'uint8_t kind; uint32_t id' kind id
refuses 'a gap behind the last byte' "$gap" cache_of 'uint32_t kind; uint8_t mac[6]' kind mac
refuses 'a member that the key does not name' "$gap" cache_of 'uint32_t kind; uint32_t id' kind
refuses 'fields in another order' "$order" cache_of 'uint32_t kind; uint32_t id' id kind
refuses 'fields of two sizes in another order' "$order" cache_of 'uint32_t kind; uint8_t mac[8]' mac kind
refuses 'a field named twice in the place of another' "$order" cache_of 'uint32_t kind; uint32_t id' kind kind
refuses 'a field from behind the key' "$order" cache_of 'uint32_t kind; uint32_t id' kind colour
refuses 'a key that leaves out how the record begins' "$order" cache_of 'uint32_t kind; uint32_t id' id
refuses 'a gap in a field' "$unequal" cache_of 'struct { uint8_t kind; uint32_t id; } key' key
refuses 'a number that has two zeros' "$unequal" cache_of 'float weight' weight
exit $wrong
