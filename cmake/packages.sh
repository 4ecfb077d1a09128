#!/bin/sh
# packages.sh LIST...: makes sure that the packages of the named lists (build, test, bench, lint, arm, package) are
# installed.
#
# On Debian 12 what is missing is installed with apt-get, after one line that says so. On another system, or without the
# right to install, what is missing is printed and the status is 2. When nothing is missing nothing is said and nothing
# is touched. EBRIDGE_PACKAGES=installed skips the look, for systems that have all of it under other names.
#
# A Redis server that comes by this way is not started: tests start their own. Its package has it start with the machine,
# from the next time on, unless somebody says `systemctl disable redis-server`.
set -eu

packages_of() {
    case $1 in
    build) echo 'g++ cmake ninja-build pkg-config libprotobuf-c-dev protobuf-c-compiler libuv1-dev libspdlog-dev' \
        'libhiredis-dev nlohmann-json3-dev libcli11-dev libedit-dev' ;;
    test) echo 'libgtest-dev libgmock-dev redis-server abigail-tools' ;;
    bench) echo 'libbenchmark-dev libabsl-dev redis-server' ;;
    arm) echo 'g++-arm-linux-gnueabihf qemu-user-static libprotobuf-c-dev:armhf libuv1-dev:armhf' \
        'libspdlog-dev:armhf libhiredis-dev:armhf libgtest-dev:armhf libgmock-dev:armhf' ;;
    lint) echo 'clang clang-format clang-tidy libclang-rt-14-dev shellcheck' ;;
    package) echo 'dpkg-dev fakeroot file' ;;
    *) echo "packages.sh: no list '$1'" >&2; exit 2 ;;
    esac
}

is_installed() {
    # Where packages of two architectures stand side by side, a plain name asks for this machine's own.
    case $1 in
    *:*) architecture=${1#*:} ;;
    *) architecture="all|$(dpkg --print-architecture 2>/dev/null)" ;;
    esac
    dpkg-query --show --showformat='${Architecture} ${db:Status-Status}\n' "$1" 2>/dev/null |
        grep -qxE "($architecture) installed"
}

is_debian_12() {
    # shellcheck disable=SC1091
    [ -r /etc/os-release ] && (. /etc/os-release && [ "${ID:-}" = debian ] && [ "${VERSION_ID:-}" = 12 ])
}

[ "${EBRIDGE_PACKAGES:-}" != installed ] || exit 0

wanted=
for list in "$@"; do
    wanted="$wanted $(packages_of "$list")"
done

missing=
count=0
for package in $wanted; do
    if ! is_installed "$package"; then
        missing="$missing $package"
        count=$((count + 1))
    fi
done
[ "$count" -gt 0 ] || exit 0

give_up() {
    echo "$1 These Debian 12 packages, or what your system has in their place, are missing:" >&2
    # shellcheck disable=SC2086
    printf '  %s\n' $missing >&2
    echo "Once they are there under other names: EBRIDGE_PACKAGES=installed make ..." >&2
    exit 2
}

as_root=
is_debian_12 || give_up 'Packages are installed by themselves on Debian 12 only.'
if [ "$(id -u)" -ne 0 ]; then
    command -v sudo >/dev/null || give_up 'Not root, and no sudo here.'
    as_root=sudo
fi

if [ "$count" -eq 1 ]; then noun=package; else noun=packages; fi
echo "installing $count $noun:$missing"
policy=/usr/sbin/policy-rc.d
forbidden=
clean_up() {
    rm -f "$log"
    [ -z "$forbidden" ] || $as_root rm -f "$policy"
}
log=$(mktemp)
trap clean_up EXIT
trap 'exit 2' HUP INT TERM

# The package asks this script before it starts the server, port 6379. One that is there already has its reasons.
forbid_start() {
    if [ -e "$policy" ] || [ -h "$policy" ]; then
        return
    fi
    forbidden=yes
    $as_root sh -c 'cat >"$0" && chmod 755 "$0"' "$policy" <<'END'
#!/bin/sh
# Here while packages are being installed, see cmake/packages.sh of the extended bridge.
case $1 in redis-server*) exit 101 ;; esac
END
}

apt() {
    # shellcheck disable=SC2086
    $as_root env DEBIAN_FRONTEND=noninteractive apt-get -q -y -o DPkg::Lock::Timeout=300 "$@" >>"$log" 2>&1
}
case $missing in
*:armhf*) $as_root dpkg --add-architecture armhf ;;
esac
case $missing in
*redis-server*) forbid_start ;;
esac
# A package list that cannot be refreshed may still do; when it does not, the log says why.
# shellcheck disable=SC2086
if ! { apt update || true; apt install --no-install-recommends $missing; }; then
    tail -n 20 "$log" >&2
    echo "packages.sh: apt-get failed, see above" >&2
    exit 2
fi
