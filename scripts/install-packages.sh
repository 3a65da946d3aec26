#!/bin/bash
# install-packages.sh [GROUP…]: installs what packages.txt lists in the groups lab, packaging and tests (default: all)
# and this machine lacks, and unpacks the daemons of the lab. Does nothing, and needs no root, when all is there.
set -euo pipefail
umask 022 # the daemons of the lab, which are unpacked here, run as users of their own

scripts=$(cd "$(dirname "${BASH_SOURCE[0]}")" && pwd)
lab=$(dirname "$scripts")/build/lab

groups=("$@")
((${#groups[@]})) || groups=(lab packaging tests)

# The packages of the groups.
listed() {
    local group
    for group in "$@"; do
        awk -v group="$group" '$1 == group { for (i = 2; i <= NF; i++) print $i }' "$scripts/packages.txt"
    done
}

# as_root TEXT COMMAND…: runs the command as root and tells under that name how far it is.
as_root() {
    local text=$1 sudo=()
    shift
    if [[ $EUID -ne 0 ]]; then
        command -v sudo >/dev/null || { echo "install-packages: '$*' needs root, and there is no sudo" >&2; return 1; }
        sudo=(sudo)
        sudo true # asks for the password now, while it can be seen
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

present=$(dpkg-query -W -f '${db:Status-Status} ${Package}\n' 2>/dev/null | sed -n 's/^installed //p')
missing=()
for package in $(listed "${groups[@]}"); do
    grep -qxF "$package" <<<"$present" || missing+=("$package")
done
if [[ ${#missing[@]} -gt 0 ]]; then
    echo "install-packages: this machine lacks ${missing[*]}" | fold -s -w 100
    update_lists
    # apt-get closes the descriptor of its progress before it runs a package's scripts, so that must not be their standard
    # output; and sudo passes on no other than the standard ones.
    as_root "packages" sh -c 'exec "$@" 3>&1' sh env DEBIAN_FRONTEND=noninteractive \
        apt-get install -q -y --no-install-recommends -o APT::Status-Fd=3 -o Dpkg::Use-Pty=0 "${missing[@]}"
fi

# A list that is older than the archive names files that are gone from it: then it is fetched anew, once.
download() {
    apt-get download -qq -o APT::Sandbox::User=root "$1" || { update_lists && apt-get download -qq -o APT::Sandbox::User=root "$1"; }
}

mkdir -p "$lab"
# shellcheck disable=SC2046 # one word a package
candidates=$(LC_ALL=C apt-cache policy $(listed unpack) | awk '/^[^ ]/ { name = $1 } $1 == "Candidate:" && $2 != "(none)" { print name $2 }')
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

# What an unpacked daemon needs must be in the list above, as nothing resolves its dependencies.
for program in snmpd/usr/sbin/snmpd snmptrapd/usr/sbin/snmptrapd atftpd/usr/sbin/atftpd tftpd-hpa/usr/sbin/in.tftpd vsftpd/usr/sbin/vsftpd \
    openssh-server/usr/sbin/sshd; do
    if libraries=$(ldd "$lab/root-$program" | grep 'not found'); then
        echo "install-packages: ${program##*/} lacks" "$libraries" >&2
        exit 1
    fi
done
