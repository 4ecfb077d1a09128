#!/bin/sh
# library_includes.sh ROOT: the library knows the platform by its public headers alone. Its sources, its public header and
# the platform's headers, which it includes, take nothing from Redis, event-loop, logging-library or JSON headers, nothing
# from the platform's sources, and none of the C++ headers that bring initialisers or exceptions with them.
set -eu

banned='hiredis|uv\.h|uv/|event2?/|ev\.h|spdlog|fmt/|nlohmann|rapidjson|json|CLI/|CLI11|absl/|gtest|gmock'
banned="$banned|iostream>|regex>|fstream>|sstream>|/src/|\.\./"

check() {
    root=$1
    files=$(find "$root/app/lib/ebridge" "$root/sw_bridge/ebridge" "$root"/platform/*/include -type f \
        \( -name '*.h' -o -name '*.hpp' -o -name '*.cpp' -o -name '*.c' \))
    [ -n "$files" ] || { echo "no sources found under $root"; return 1; }
    # shellcheck disable=SC2086
    if grep -HnE "^[[:space:]]*#[[:space:]]*include[[:space:]]*[<\"]([^>\"]*/)?($banned)" $files; then
        echo 'the library includes what it must not know'
        return 1
    fi
}

selftest() {
    . "$(dirname "$0")/selftest.sh"
    mkdir -p "$tmp/app/lib/ebridge" "$tmp/sw_bridge/ebridge" "$tmp/platform/toy/include"
    refuses 'no sources at all' 'no sources' check "$tmp"
    source=$tmp/app/lib/ebridge/toy.cpp
    printf '#include <cstring>\n#include "qz_mom.h"\n// #include <uv.h>\n' >"$source"
    accepts 'platform headers and the C library' check "$tmp"
    for header in '<hiredis/hiredis.h>' '<uv.h>' '<spdlog/spdlog.h>' '<nlohmann/json.hpp>' '<iostream>' \
        '"../platform/mom/src/store.hpp"'; do
        printf '#include %s\n' "$header" >"$source"
        refuses "$header" 'must not know' check "$tmp"
    done
    printf '#  include <uv.h>\n' >"$tmp/platform/toy/include/toy.h"
    printf '#include "toy.h"\n' >"$source"
    refuses 'a platform header that shows its event loop' 'must not know' check "$tmp"
    exit $wrong
}

if [ "$1" = selftest ]; then selftest; else check "$@"; fi
