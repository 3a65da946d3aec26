#!/usr/bin/env bash
# check.sh CMAKE BUILD DOCUMENT SNMPD: installs the component of BUILD for building the module with
# another platform, follows DOCUMENT outside this tree, and has a stock agent make a copy.
set -euo pipefail
cmake=$1 build=$2 document=$3 snmpd=$4
here=$(cd "$(dirname "${BASH_SOURCE[0]}")" && pwd)

place=$(mktemp -d)
agent=

# Ends the agent and returns its exit status: an agent that crashes at its end fails the check.
end_agent() {
    local ending=$agent
    agent=
    kill "$ending"
    wait "$ending"
}
end() {
    [[ -z $agent ]] || end_agent || echo "the agent ended with status $?, too" >&2
    rm -rf "$place"
}
trap end EXIT

"$cmake" --install "$build" --component dev --prefix "$place/usr" >/dev/null
export PKG_CONFIG_PATH=$place/usr/share/pkgconfig
cp "$here/own_platform.cpp" "$place"
cd "$place"
sed -n '/^module=/,/^[^[:alnum:][:blank:]]/p' "$document" | sed '$d' >build-it
grep -q 'pkg-config --cflags --libs' build-it
bash -eu build-it

# The fakes come with all headers that they include.
fakes=$(pkg-config --variable=fakesdir config-copy-mib)
while read -r included; do
    [[ -e $fakes/$included || -e usr/include/config-copy-mib/$included ||
        -e usr/share/config-copy-mib/module/$included ]] || { echo "no $included" >&2; exit 1; }
done < <(sed -n 's/^#include "\(.*\)"/\1/p' "$fakes"/*)

mkdir switch switch/work switch/server
echo "hostname own-platform" >switch/running.cfg
cat >snmpd.conf <<END
dontLogTCPWrappersConnects yes
agentaddress unix:$place/socket
com2secunix manager default public
group managers v2c manager
view all included .1
access managers "" v2c noauth exact all all none
dlmod config_copy_mib $place/config_copy_mib.so
END
export MIBS='' SNMP_PERSISTENT_DIR=$place OWN_PLATFORM=$place/switch
"$snmpd" -f -Lf log -C -c snmpd.conf >output 2>&1 &
agent=$!

at_agent() { "$1" -v2c -c public -t1 -r0 -Oqvt "unix:$place/socket" "${@:2}"; }

# within_10_s WHAT COMMAND…: repeats the command until it succeeds.
within_10_s() {
    local deadline=$((SECONDS + 10))
    until "${@:2}" 2>/dev/null; do
        ((SECONDS < deadline)) || { echo "not within 10 s: $1" >&2; cat log >&2; exit 1; }
        sleep 0.1
    done
}

readonly row=.1.3.6.1.4.1.41927.9.96.1.1.1.1 create_and_go=4
copy() { # INDEX FROM TO FILE
    at_agent snmpset "$row.14.$1" i $create_and_go "$row.3.$1" i "$2" "$row.4.$1" i "$3" \
        "$row.5.$1" a 192.0.2.1 "$row.6.$1" s "$4" >/dev/null
}
reads() { [[ $(at_agent snmpget "$row.$1") == "$2" ]]; }
readonly network=1 startup=3 running=4 successful=3 failed=4 bad_file_name=2 refused=8

within_10_s "the agent takes a request" copy 1 $running $network backup.cfg
within_10_s "the configuration is backed up" reads 10.1 $successful
cmp switch/running.cfg switch/server/backup.cfg
echo "hostname restored" >switch/server/backup.cfg
copy 2 $network $running backup.cfg
within_10_s "it is restored" reads 10.2 $successful
cmp switch/server/backup.cfg switch/running.cfg
copy 3 $network $running missing.cfg
within_10_s "a copy of a file that is not there fails" reads 10.3 $failed
reads 13.3 $bad_file_name
copy 4 $running $startup ""
within_10_s "a save is refused" reads 10.4 $failed
reads 13.4 $refused
end_agent || { echo "the agent ended with status $?" >&2; cat log output >&2; exit 1; }
