#!/bin/bash
# install-packages.sh [GROUP…]: installs the packages that packages.txt lists in these groups
# (default: lab, packaging and tests) and that this machine lacks, and unpacks the daemons of the
# lab. With the group frr it also unpacks FRR, for the tests also Ansible and Prometheus. A group
# that is another machine's name (i386, arm64, s390x) also gets that machine's libraries, unpacked.
# Does nothing, and needs no root, if nothing is missing.
set -euo pipefail
umask 022 # the lab's daemons, which are unpacked here, run as users of their own

scripts=$(cd "$(dirname "${BASH_SOURCE[0]}")" && pwd)
top=$(dirname "$scripts")
lab=$top/build/lab

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

# The names of what is installed, also those that a newer Debian has only as other names of its
# packages.
present=$(dpkg-query -W -f '${db:Status-Status} ${Package}, ${Provides}\n' 2>/dev/null |
    sed -n 's/^installed //p' | tr -s ', ' '\n')
# The libraries of the unpacked daemons, as this machine's package lists name them.
libraries() {
    # shellcheck disable=SC2046 # one word a package
    LC_ALL=C apt-cache depends --important $(listed unpack) 2>/dev/null |
        sed -n 's/^ *Depends: lib/lib/p' | sort -u
}
find_missing() {
    mapfile -t missing < <({ listed "${groups[@]}"; libraries; } | grep -vxF "$present")
}
find_missing
if [[ ${#missing[@]} -gt 0 ]]; then
    update_lists
    find_missing # the libraries may be known only now
    echo "install-packages: this machine lacks ${missing[*]}" | fold -s -w 100
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

unpacked=(unpack)
if [[ " ${groups[*]} " =~ \ (frr|tests)\  ]]; then
    unpacked+=(unpack-frr)
fi
if [[ " ${groups[*]} " == *" tests "* ]]; then
    unpacked+=(unpack-tests)
fi
mkdir -p "$lab"
# shellcheck disable=SC2046 # one word a package
candidates=$(LC_ALL=C apt-cache policy $(listed "${unpacked[@]}") |
    awk '/^[^ ]/ { name = $1 } $1 == "Candidate:" && $2 != "(none)" { print name $2 }')
for package in $(listed "${unpacked[@]}"); do
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
    if [[ -d $work/root/lib ]]; then # since Debian 12, /lib is in /usr everywhere
        mkdir -p "$work/root/usr/lib"
        cp -a "$work/root/lib/." "$work/root/usr/lib"
        rm -r "$work/root/lib"
    fi
    rm -rf "$root"
    mv "$work/root" "$root"
    dpkg-deb -f "$work"/*.deb Version >"$stamp"
    rm -rf "$work"
    trap - EXIT
done

# fill_sysroot MACHINE: an apt with package lists of its own, for a machine with nothing installed,
# resolves what the listed packages depend on. It changes nothing on this machine.
fill_sysroot() {
    local machine=$1 root=$top/build/sysroot/$1 package link packages
    local stamp=$root.packages
    packages=$(listed sysroot)
    if [[ -d $root && -f $stamp && $(<"$stamp") == "$packages" ]]; then
        return
    fi
    mkdir -p "$top/build/sysroot"
    work=$(mktemp -d "$root.XXXXXX")
    trap 'rm -rf "$work"' EXIT
    mkdir -p "$work"/{lists,archives}/partial "$work/root"
    touch "$work/status"
    local apt=(apt-get -q -y --no-install-recommends -o APT::Architecture="$machine"
        -o APT::Architectures="$machine" -o Dir::State="$work" -o Dir::State::status="$work/status"
        -o Dir::Cache="$work" -o APT::Sandbox::User=root -o APT::Status-Fd=1)
    # The lists may lack one, as not every archive has this machine: that matters only if a package
    # is missing then.
    # shellcheck disable=SC2016 # for sh
    "$scripts/progress.sh" "libraries of $machine" \
        sh -c 'packages=$1; shift; "$@" update; exec "$@" --download-only install $packages' \
        sh "$packages" "${apt[@]}"
    for package in "$work"/archives/*.deb; do
        dpkg -x "$package" "$work/root"
    done
    # The linker follows a link to an absolute name out of the folder.
    find "$work/root" -type l -lname '/*' -print0 | while IFS= read -r -d '' link; do
        ln -srf "$work/root$(readlink "$link")" "$link"
    done
    rm -rf "$root"
    mv "$work/root" "$root"
    echo "$packages" >"$stamp"
    rm -rf "$work"
    trap - EXIT
}

for group in "${groups[@]}"; do
    if [[ -f $top/cmake/$group.cmake ]]; then
        fill_sysroot "$group"
    fi
done

frr_libraries=$(printf '%s:' "$lab"/root-{frr,lib*}/usr/lib/*-linux-gnu{,/frr})
# The list "lab" must include all that an unpacked daemon needs, as nothing resolves its
# dependencies.
for program in snmpd/usr/sbin/snmpd snmptrapd/usr/sbin/snmptrapd atftpd/usr/sbin/atftpd \
    tftpd-hpa/usr/sbin/in.tftpd vsftpd/usr/sbin/vsftpd \
    openssh-server/usr/sbin/sshd frr/usr/lib/frr/bgpd frr/usr/bin/vtysh; do
    if [[ $program == frr/* ]]; then
        [[ ${#unpacked[@]} -gt 1 ]] || continue
        export LD_LIBRARY_PATH=$frr_libraries
    fi
    if libraries=$(ldd "$lab/root-$program" | grep 'not found'); then
        echo "install-packages: ${program##*/} lacks" "$libraries" >&2
        exit 1
    fi
done
