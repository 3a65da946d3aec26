# shellcheck shell=sh
# Sets the agent up as README.Debian says, and a TFTP server on this machine. Needs a systemd of its
# own. To be sourced in debian/tests.

# The lines of README.Debian between two given ones.
lines() { sed -n "s/^    //; /^$1/,/^$2/p" ../config-copy-mib.README.Debian; }

lines agentaddress includeDir >/etc/snmp/snmpd.conf
lines 'systemctl stop' 'systemctl start' >/tmp/make-user
sh -e /tmp/make-user
HOME=$(mktemp -d)
export HOME
mkdir "$HOME/.snmp"
lines defVersion defPrivPassphrase >"$HOME/.snmp/snmp.conf"

# The agent refuses 127.0.0.1 as a file server.
server=198.51.100.1
ip address add "$server/32" dev lo
trap 'ip address delete "$server/32" dev lo' EXIT
served=/srv/tftp
chown tftp "$served"
sed -i 's/^TFTP_OPTIONS=.*/TFTP_OPTIONS="--secure --create"/' /etc/default/tftpd-hpa
# Its init script starts no server as long as a process of the former one serves a transfer.
systemctl kill tftpd-hpa || true
systemctl restart tftpd-hpa

# shellcheck disable=SC2034 # the tests use it
switch=127.0.0.1
