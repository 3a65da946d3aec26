#!/usr/bin/env bash
# Shows the main job in a few seconds. With the manager's command: a backup to a file, what has
# changed since, and a restore that comes back by itself unless it is confirmed. With stock SNMP
# tools: a switch copies its running configuration to a TFTP server and back, with the notification
# at the end, and its startup configuration to an SFTP server; then a refused request and a failed
# copy; then a save on all three switches of a fabric, and one that fails because a switch is down.
# Installs and builds what it needs. Exits with 0 only if every step worked.
#
# `demo.sh frr` shows backup, restore and save of a switch that is a router with FRR.
set -euo pipefail

if [[ -z ${LAB_AGENT:-} ]]; then # outside: make the lab, and come back inside
    scripts=$(cd "$(dirname "${BASH_SOURCE[0]}")" && pwd)
    case ${1:-} in
    '') options=(--switches 3) ;;
    frr) options=(--frr) ;;
    *)
        echo "demo: usage: demo.sh [frr]" >&2
        exit 2
        ;;
    esac
    exec bash "$scripts/lab.sh" exec "${options[@]}" -- bash "$scripts/demo.sh" "$@"
fi

repository=$(cd "$(dirname "${BASH_SOURCE[0]}")/.." && pwd)
export MIBDIRS=$repository/mibs:$repository/mibs/base MIBS=CONFIG-COPY-MIB

title() { printf '\n\033[1m--- %s\033[0m\n' "$*"; }
say() { printf '# %s\n' "$*"; }
fail() { printf 'demo: %s\n' "$*" >&2; exit 1; }

# Shows a command and runs it.
run() {
    local word line='$'
    for word in "$@"; do
        [[ $word =~ ^[[:alnum:]./:_=+-]+$ ]] && line+=" $word" || line+=" '$word'"
    done
    printf '%s\n' "$line"
    "$@"
}

value_of() { snmpget -Oqvt "$LAB_AGENT" "$1"; }

# Polls a request until its copy has ended; the final state is left in $state.
wait_for_end() {
    local deadline=$((SECONDS + 30))
    state=$(value_of "ccCopyState.$1")
    while [[ $state == waiting || $state == running ]]; do
        ((SECONDS < deadline)) || fail "request $1 is still $state"
        sleep 0.1
        state=$(value_of "ccCopyState.$1")
    done
    printf '$ snmpget %s ccCopyState.%s     # again and again, until it has ended\n%s\n' \
        "$LAB_AGENT" "$1" "$state"
}

expect_state() { [[ $state == "$1" ]] || fail "the copy ended as $state instead of $1"; }

# A router with FRR as the switch.
demo_frr() {
    local row=0 before agent=(setpriv --reuid=Debian-snmp --regid=Debian-snmp --init-groups)

    # copy STATE COLUMN TYPE VALUE…: creates a row, starts its copy and waits for that end
    copy() {
        local expected=$1 words=()
        shift
        row=$((row + 1))
        while (($#)); do
            words+=("$1.$row" "$2" "$3")
            shift 3
        done
        run snmpset "$LAB_AGENT" "ccCopyEntryRowStatus.$row" i createAndGo "${words[@]}"
        wait_for_end "$row"
        expect_state "$expected"
    }
    restore() {
        copy "$1" ccCopySourceFileType i networkFile ccCopyDestFileType i runningConfig \
            ccCopyServerAddress a "$LAB_SERVER4" ccCopyFileName s "$2"
    }
    shows() { vtysh -c "show running-config" | grep -qxF "$1" || fail "FRR does not run '$1'"; }

    title "FRR, and the user of the agent in FRR's groups"
    run vtysh -c "show watchfrr"
    run id -Gn Debian-snmp
    run cat "$ULMO_CONF"

    title "Back up: FRR's running configuration to the TFTP server $LAB_SERVER4"
    copy successful ccCopySourceFileType i runningConfig ccCopyDestFileType i networkFile \
        ccCopyServerAddress a "$LAB_SERVER4" ccCopyFileName s backup.cfg
    run cat "$LAB_SERVER_ROOT/backup.cfg"

    title "Restore: a file on the server adds a route to announce by BGP"
    run tee "$LAB_SERVER_ROOT/bgp.cfg" <<'END'
router bgp 65001
 neighbor 192.0.2.77 remote-as 65002
 address-family ipv4 unicast
  network 203.0.113.0/24
 exit-address-family
exit
END
    restore successful bgp.cfg
    run vtysh -c "show running-config"
    shows "  network 203.0.113.0/24"

    title "A bad file: its third line is for a daemon that does not run"
    before=$(vtysh -c "show running-config")
    run tee "$LAB_SERVER_ROOT/bad.cfg" <<'END'
no router bgp 65001
ip route 203.0.113.0/24 blackhole
router ospf
END
    restore failed bad.cfg
    run snmpget "$LAB_AGENT" ccCopyFailCause.$row
    run cmdshell -c "show copies"
    [[ $(vtysh -c "show running-config") == "$before" ]] || fail "FRR has changed"
    echo "FRR runs what it ran before"

    title "Save: to the startup configuration, which survives a restart of FRR"
    copy successful ccCopySourceFileType i runningConfig ccCopyDestFileType i startupConfig
    run ls -l /etc/frr
    "${agent[@]}" cmdshell -c "show running-config" | cmp - /etc/frr/frr.conf ||
        fail "the saved configuration differs"
    run /usr/lib/frr/frrinit.sh restart
    run vtysh -c "show running-config"
    shows "  network 203.0.113.0/24"

    title "Exactly the backup again: one line in front of it"
    sed '1i configuration replace' "$LAB_SERVER_ROOT/backup.cfg" >"$LAB_SERVER_ROOT/exact.cfg"
    run head -n 3 "$LAB_SERVER_ROOT/exact.cfg"
    restore successful exact.cfg
    "${agent[@]}" cmdshell -c "show running-config" | run cmp - "$LAB_SERVER_ROOT/backup.cfg" ||
        fail "FRR does not run the backup"
    echo "identical"
}

if [[ ${1:-} == frr ]]; then
    demo_frr
    printf '\nEvery step worked.\n'
    exit
fi

title "The switch and what it runs"
run /ulmo/bin/cmdshell -c "show running-config"

title "Back up, see what has changed, go back: the manager's command, without a file server"
cd /tmp
run config-copy "$LAB_AGENT" running ./switch.cfg
/ulmo/bin/cmdshell -c "show running-config" | cmp - switch.cfg || fail "the backup differs"
say "somebody changes the switch"
run tee change.cfg <<'END'
vlan 99
 name forgotten
END
run /ulmo/bin/cmdshell -c "configure /tmp/change.cfg"
status=0
run config-copy diff "$LAB_AGENT" ./switch.cfg running || status=$?
((status == 1)) || fail "the exit status of the difference is $status"

say "from now on each change comes back by itself unless it is saved within 6 seconds"
run tee -a "$ULMO_CONF" <<<"confirm_limit = 6"
say "a restore that nobody confirms"
run config-copy --replace "$LAB_AGENT" ./switch.cfg running
run /ulmo/bin/cmdshell -c "show pending"
sleep 7
status=0
run config-copy diff "$LAB_AGENT" ./switch.cfg running || status=$?
((status == 1)) || fail "the change did not come back"
say "a restore that is confirmed: the switch still answers, so it is saved"
run config-copy --replace --confirm "$LAB_AGENT" ./switch.cfg running
sleep 7
run config-copy diff "$LAB_AGENT" ./switch.cfg running || fail "the restore did not last"
sed -i '/^confirm_limit/d' "$ULMO_CONF"

title "The same with stock SNMP tools: running configuration to the TFTP server $LAB_SERVER4"
say "1. create a request in row 1 and fill in its columns"
run snmpset "$LAB_AGENT" ccCopyEntryRowStatus.1 i createAndWait
run snmpset "$LAB_AGENT" ccCopyProtocol.1 i tftp ccCopySourceFileType.1 i runningConfig \
    ccCopyDestFileType.1 i networkFile
run snmpset "$LAB_AGENT" ccCopyServerAddressType.1 i ipv4 ccCopyServerAddressRev1.1 d "$LAB_SERVER4"
run snmpset "$LAB_AGENT" ccCopyFileName.1 s backup.cfg ccCopyNotificationOnCompletion.1 i true
say "2. start the copy"
run snmpset "$LAB_AGENT" ccCopyEntryRowStatus.1 i active
wait_for_end 1
expect_state successful
say "3. compare the file on the server with the running configuration"
run ls -l "$LAB_SERVER_ROOT/backup.cfg"
/ulmo/bin/cmdshell -c "show running-config" | cmp - "$LAB_SERVER_ROOT/backup.cfg" ||
    fail "the backup differs"
echo "identical"
say "4. the notification that the manager received"
deadline=$((SECONDS + 5))
until notification=$(grep -F '.1.3.6.1.4.1.41927.9.96.2.1.1.1' "$LAB_TRAPS"); do
    ((SECONDS < deadline)) || fail "no notification came"
    sleep 0.1
done
tr '\t' '\n' <<<"$notification" | sed 's/^/  /'

title "Restore: change the file and copy it to the running configuration"
run sed -i 's/^hostname .*/hostname restored-switch/' "$LAB_SERVER_ROOT/backup.cfg"
say "one SET creates row 2, fills it in and starts the copy"
run snmpset "$LAB_AGENT" ccCopyEntryRowStatus.2 i createAndGo \
    ccCopySourceFileType.2 i networkFile ccCopyDestFileType.2 i runningConfig \
    ccCopyServerAddress.2 a "$LAB_SERVER4" ccCopyFileName.2 s backup.cfg
wait_for_end 2
expect_state successful
run /ulmo/bin/cmdshell -c "show running-config"
/ulmo/bin/cmdshell -c "show running-config" |
    grep -qx 'hostname restored-switch' || fail "the configuration was not applied"

title "Back up by SFTP: the startup configuration, with user and password"
run snmpset "$LAB_AGENT" ccCopyEntryRowStatus.7 i createAndWait ccCopyProtocol.7 i sftp \
    ccCopySourceFileType.7 i startupConfig \
    ccCopyDestFileType.7 i networkFile ccCopyServerAddress.7 a "$LAB_SERVER4" \
    ccCopyFileName.7 s startup.cfg
# shellcheck disable=SC2016 # the password is shown as the name of its variable
printf '$ snmpset %s ccCopyUserName.7 s %s ccCopyUserPassword.7 s "$LAB_PASSWORD"\n' \
    "$LAB_AGENT" "$LAB_USER"
snmpset "$LAB_AGENT" ccCopyUserName.7 s "$LAB_USER" ccCopyUserPassword.7 s "$LAB_PASSWORD"
run snmpset "$LAB_AGENT" ccCopyEntryRowStatus.7 i active
wait_for_end 7
expect_state successful
/ulmo/bin/cmdshell -c "show startup-config" | cmp - "$LAB_SERVER_ROOT/startup.cfg" ||
    fail "the backup differs"
echo "identical; the switch keeps the server's host key:"
run cut -c 1-60 "$LAB_STATE/ssh_known_hosts"

title "A request that is refused"
say "the switch refuses itself as the file server"
run snmpset "$LAB_AGENT" ccCopyEntryRowStatus.3 i createAndWait \
    ccCopySourceFileType.3 i runningConfig ccCopyDestFileType.3 i networkFile \
    ccCopyServerAddress.3 a 127.0.0.1 ccCopyFileName.3 s backup.cfg
if run snmpset "$LAB_AGENT" ccCopyEntryRowStatus.3 i active 2>&1; then
    fail "the request was accepted"
fi
say "destroy the request"
run snmpset "$LAB_AGENT" ccCopyEntryRowStatus.3 i destroy

title "A copy that fails"
say "there is no such file on the server"
run snmpset "$LAB_AGENT" ccCopyEntryRowStatus.4 i createAndGo \
    ccCopySourceFileType.4 i networkFile ccCopyDestFileType.4 i runningConfig \
    ccCopyServerAddress.4 a "$LAB_SERVER4" ccCopyFileName.4 s no-such-file.cfg
wait_for_end 4
expect_state failed
run snmpget "$LAB_AGENT" ccCopyFailCause.4
[[ $(value_of ccCopyFailCause.4) == badFileName ]] || fail "the cause is wrong"

# Whether the startup configuration of a switch equals its running one, octet for octet.
has_saved() { cmp -s "/lab/switch$1/disk/state/running.cfg" "/lab/switch$1/disk/state/system.cfg"; }

# shellcheck disable=SC2153 # the lab sets both LAB_AGENTS and LAB_AGENT
title "Save on every switch of the fabric: three of them, $LAB_AGENTS"
for switch in 1 2 3; do
    printf 'vlan 10%s\n' "$switch" >"/tmp/change$switch.cfg"
    lab-ctl switch-exec "$switch" /ulmo/bin/cmdshell -c "configure /tmp/change$switch.cfg"
    ! has_saved "$switch" || fail "switch $switch runs what it has saved already"
done
say "each switch has unsaved changes; one SET at the first switch makes all of them save"
run snmpset "$LAB_AGENT" ccCopyEntryRowStatus.5 i createAndGo \
    ccCopySourceFileType.5 i runningConfig ccCopyDestFileType.5 i fabricStartupConfig
wait_for_end 5
expect_state successful
for switch in 1 2 3; do
    has_saved "$switch" || fail "switch $switch has not saved"
    echo "switch $switch: the startup configuration is the running configuration"
done
say "the log of the first switch's system manager"
tail -n 5 "$LAB_LOG/wardend1.log"

title "The same with the second switch down"
run lab-ctl stop-agent 2
run snmpset "$LAB_AGENT" ccCopyEntryRowStatus.6 i createAndGo \
    ccCopySourceFileType.6 i runningConfig ccCopyDestFileType.6 i fabricStartupConfig
wait_for_end 6
expect_state failed
run snmpget "$LAB_AGENT" ccCopyFailCause.6
[[ $(value_of ccCopyFailCause.6) == systemManagerFailed ]] || fail "the cause is wrong"
say "the error table has the outcome of each switch"
run snmpwalk "$LAB_AGENT" ccCopyErrorTable
errors=$(snmpwalk -Oqv "$LAB_AGENT" ccCopyErrorText | tr -d '"')
[[ $errors == $'saved\nno answer in 10 s\nsaved' ]] || fail "the outcomes are wrong: $errors"
run lab-ctl start-agent 2

title "The manager's command with a file server"
run config-copy "$LAB_AGENT" running "tftp://$LAB_SERVER4/one-command.cfg"
/ulmo/bin/cmdshell -c "show running-config" | cmp - "$LAB_SERVER_ROOT/one-command.cfg" ||
    fail "the backup differs"
say "a failed copy: the reason in words, and the exit status 1"
status=0
run config-copy "$LAB_AGENT" "tftp://$LAB_SERVER4/no-such-file.cfg" running 2>&1 || status=$?
((status == 1)) || fail "the exit status is $status"
say "all three switches at the same time, each to a file of its own"
run tee /tmp/switches <<<"${LAB_AGENTS// /$'\n'}"
run config-copy --hosts /tmp/switches running "tftp://$LAB_SERVER4/{host}.cfg"
for agent in $LAB_AGENTS; do
    [[ -s $LAB_SERVER_ROOT/$agent.cfg ]] || fail "there is no backup of $agent"
done

title "All requests; the agent removes them after five minutes"
run snmptable -CB -Cw 150 "$LAB_AGENT" ccCopyTable

printf '\nEvery step worked.\n'
