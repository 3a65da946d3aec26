#!/bin/bash
# install-packages.sh [GROUP…]: installs the packages that packages.txt lists in the groups lab,
# packaging and tests (default: all) and that this machine lacks, and unpacks the daemons of the
# lab. Does nothing, and needs no root, if nothing is missing.
set -euo pipefail
umask 022 # the lab's daemons, which are unpacked here, run as users of their own

scripts=$(cd "$(dirname "${BASH_SOURCE[0]}")" && pwd)
lab=$(dirname "$scripts")/build/lab

groups=("$@")
((${#groups[@]})) || groups=(lab packaging tests)

# The packages of the groups.
listed() {
    local group
    for group in "$@"; do
        awk -v group="$group" '$1 == group { for (i = 2; i <= NF; i++) print $i }' \
            "$scripts/packages.txt"
    done
}

# as_root TEXT COMMAND…: runs the command as root and shows its progress under that name.
as_root() {
    local text=$1 sudo=()
    shift
    if [[ $EUID -ne 0 ]]; then
        command -v sudo >/dev/null || {
            echo "install-packages: '$*' needs root, and there is no sudo" >&2
            return 1
        }
        sudo=(sudo)
        sudo true # asks for the password now, while the prompt is visible
    fi
    "$scripts/progress.sh" "$text" "${sudo[@]}" "$@"
}

updated=
update_lists() {
    if [[ -z $updated ]]; then
        as_root "package lists" apt-get update -q
        updated=yes
    fi
}

present=$(dpkg-query -W -f '${db:Status-Status} ${Package}\n' 2>/dev/null |
    sed -n 's/^installed //p')
missing=()
for package in $(listed "${groups[@]}"); do
    grep -qxF "$package" <<<"$present" || missing+=("$package")
done
if [[ ${#missing[@]} -gt 0 ]]; then
    echo "install-packages: this machine lacks ${missing[*]}" | fold -s -w 100
    update_lists
    # apt-get closes the descriptor of its progress before it runs a package's scripts, so that must
    # not be their standard output; and sudo passes on only the standard descriptors.
    as_root "packages" sh -c 'exec "$@" 3>&1' sh env DEBIAN_FRONTEND=noninteractive \
        apt-get install -q -y --no-install-recommends -o APT::Status-Fd=3 -o Dpkg::Use-Pty=0 \
        "${missing[@]}"
fi

# A package list older than the archive names files that no longer exist there: the list is then
# fetched again, once.
download() {
    local fetch=(apt-get download -qq -o APT::Sandbox::User=root "$1")
    "${fetch[@]}" || { update_lists && "${fetch[@]}"; }
}

mkdir -p "$lab"
# shellcheck disable=SC2046 # one word a package
candidates=$(LC_ALL=C apt-cache policy $(listed unpack) |
    awk '/^[^ ]/ { name = $1 } $1 == "Candidate:" && $2 != "(none)" { print name $2 }')
for package in $(listed unpack); do
    root=$lab/root-$package
    stamp=$root.version
    version=$(sed -n "s/^$package://p" <<<"$candidates")
    if [[ -d $root && -f $stamp && ( -z $version || $(<"$stamp") == "$version" ) ]]; then
        continue
    fi
    work=$(mktemp -d "$lab/unpack.XXXXXX")
    trap 'rm -rf "$work"' EXIT
    echo "install-packages: unpacking $package"
    (cd "$work" && download "$package")
    dpkg -x "$work"/*.deb "$work/root"
    rm -rf "$root"
    mv "$work/root" "$root"
    dpkg-deb -f "$work"/*.deb Version >"$stamp"
    rm -rf "$work"
    trap - EXIT
done

# The list above must include all that an unpacked daemon needs, as nothing resolves its
# dependencies.
for program in snmpd/usr/sbin/snmpd snmptrapd/usr/sbin/snmptrapd atftpd/usr/sbin/atftpd \
    tftpd-hpa/usr/sbin/in.tftpd vsftpd/usr/sbin/vsftpd \
    openssh-server/usr/sbin/sshd; do
    if libraries=$(ldd "$lab/root-$program" | grep 'not found'); then
        echo "install-packages: ${program##*/} lacks" "$libraries" >&2
        exit 1
    fi
done
