# Shared by snmp.ftp.expect, sftp.expect and scp.expect. Each transfers one file between this switch
# and a server with the system's own client, which runs on a pseudo terminal. A script prints
# nothing if the file was transferred, and otherwise the reason in one line on standard error.
#
# Exit codes:
#   0  done: the client and, if the protocol allows, the server have confirmed the whole file
#   1  timed out, or the server can't be reached: no answer, no route, connection refused, no such
#      host
#   2  file name refused, here or by the server: missing, not permitted, a directory, a control
#      character in it
#   3  no space or quota left, here or on the server
#   4  login refused
#   5  host key refused: it has changed, or is not known and first contact is off
#   6  connection lost
#   7  wrong use, bad settings, or the VRF does not exist or can't be entered
#   8  anything else
#   9  the file of a download has more octets than a configuration may have
#
# Every script takes the number of a VRF as optional last argument, and runs the client within it.
#
# Settings (platform.conf): transfer_time_limit, transfer_idle_limit, ssh_accept_new_host_keys,
# ssh_identity.
#
# All texts are octets, one character for each in any locale: the system encoding is ISO 8859-1 once
# take_arguments has returned.

log_user 0
match_max 65536

array set CODE {done 0 unreachable 1 name 2 space 3 login 4 host_key 5 lost 6 use 7 other 8
    size 9}
set password {}
set temporary {}
set client_pid 0
set closed no
set transcript {}
# The report file of the copy, if there is one: platform/host/history/copy_report.h
set report {}
set moved_file {} ;# the local one

# Returns the script's arguments. They contain a password and must not stay in the process list: the
# script restarts itself without arguments and reads them from a pipe as its standard input.
proc take_arguments {} {
    global env argc argv0 report
    if {![info exists env(ULMO_ARGUMENTS_ON_STDIN)]} {
        # Not $argv, which Tcl has converted from the caller's locale.
        set words [lrange [split [contents /proc/self/cmdline] \0] end-$argc end-1]
        lassign [chan pipe] reading writing
        # More than a pipe holds can't be a genuine file name, and would block here for ever.
        if {[string length [join $words]] > 4000} {
            fail use "the arguments are too long"
        }
        fconfigure $writing -translation binary
        puts -nonewline $writing [join [concat $words {{}}] \0]
        close $writing
        spawn -noecho -open $reading
        set env(ULMO_ARGUMENTS_ON_STDIN) yes
        set env(LC_ALL) C
        overlay -0 [string range $spawn_id 3 end] [info nameofexecutable] -N -n -- $argv0
    }
    set report [from_environment ULMO_COPY_REPORT {}]
    fconfigure stdin -translation binary
    set words [lrange [split [read stdin] \0] 0 end-1]
    # The clients must not use these variables (a home folder, an agent, a proxy, a pager).
    set path $env(PATH)
    set kept [list PATH $path LC_ALL C TERM dumb HOME /nonexistent]
    foreach name {ULMO_STATE_DIR ULMO_RUN_DIR ULMO_CONF} {
        if {[info exists env($name)]} {
            lappend kept $name $env($name)
        }
    }
    foreach name [array names env] {
        unset env($name)
    }
    array set env $kept
    return $words
}

# Removes the VRF's number from the end of the arguments if there is one more than `count`.
proc split_vrf {words count usage} {
    global vrf
    set vrf {}
    if {[llength $words] == $count + 1} {
        set vrf [lindex $words end]
        set words [lrange $words 0 end-1]
        if {![regexp {^-?[0-9]{1,10}$} $vrf]} {
            fail use "the VRF must be a number"
        }
    }
    if {[llength $words] != $count} {
        fail use "usage: $usage \[VRF\]"
    }
    return $words
}

proc refuse_control_characters {code what text} {
    if {[regexp {[\x00-\x1f\x7f]} $text]} {
        fail $code "a control character in the $what"
    }
}

proc check_names {args} {
    foreach name $args {
        if {$name eq {}} {
            fail name "no file name"
        }
        refuse_control_characters name "file name" $name
    }
}

proc check_login {user} {
    global password
    refuse_control_characters login "user name" $user
    refuse_control_characters login "password" $password
}

proc check_server {server} {
    if {![regexp {^[A-Za-z0-9_.:][A-Za-z0-9_.:%-]*$} $server]} {
        fail unreachable "not the name or address of a server"
    }
}

proc contents {file} {
    set channel [open $file rb]
    set text [read $channel]
    close $channel
    return $text
}

proc from_environment {name default} {
    global env
    return [expr {[info exists env($name)] && $env($name) ne {} ? $env($name) : $default}]
}

# The effective values of these settings, or what else ulmo-setting prints. If a bad value must not
# be ignored, the transfer fails with the reason.
proc settings {args} {
    global here
    if {[catch {exec $here/ulmo-setting {*}$args} values]} {
        fail use [regsub {^ulmo-setting: } $values {}]
    }
    return [split $values \n]
}

# Adds a line to the copy's report.
proc report {key text} {
    global report
    if {$report ne {}} {
        catch {
            set channel [open $report {WRONLY APPEND}]
            fconfigure $channel -translation {binary lf}
            puts $channel "$key [one_line $text]"
            close $channel
        }
    }
}

# The characters of a text by which a reader would recognise the password or a part of it.
proc bare {text} {
    return [regsub -all {[^a-z0-9\x80-\xff]} [string tolower $text] {}]
}

# Whether the text reveals the password. A server or a client may echo it in its messages.
proc tells_password {text} {
    global password
    if {$password eq {}} {
        return no
    }
    set text_bare [bare $text]
    set password_bare [bare $password]
    for {set at 0} {$at == 0 || $at + 4 <= [string length $password_bare]} {incr at} {
        set part [string range $password_bare $at $at+3]
        if {$part ne {} && [string first $part $text_bare] >= 0} {
            return yes
        }
    }
    return [expr {[string first $password $text] >= 0}]
}

# The reason of the failure, for a reader who sees neither the server nor the client's output:
# `line`, unless we have better words.
proc reason {code line} {
    global transcript user server
    if {$code eq "login" && [info exists user]} {
        return "login refused for $user"
    }
    if {$code eq "host_key" && [info exists server]} {
        set has_changed [regexp {REMOTE HOST IDENTIFICATION HAS CHANGED} $transcript]
        return "host key [expr {$has_changed ? "changed" : "not known"}] for $server"
    }
    return $line
}

proc one_line {text} {
    return [regsub -all {[\x00-\x1f\x7f]+} [string trim $text] { }]
}

# A text on one line, or a plain one instead if it contains the password or a part of it.
proc harmless {code text} {
    set text [one_line $text]
    if {$text eq {} || [tells_password $text]} {
        array set plain {
            unreachable "the server does not answer" name "file name refused" space "no space left"
            login "login refused" host_key "host key refused" lost "connection lost"
            use "wrong use" other "the transfer failed" size "the file is too large"
        }
        return $plain($code)
    }
    return [string range $text 0 400]
}

# Ends the script. If the download has grown too large, that is why the client has failed.
proc fail {code text} {
    global CODE argv0 octet_limit
    end_client
    report_part
    if {[is_too_large]} {
        set code size
        set text "more than $octet_limit octets, the most that is taken"
        report cause 5 ;# COPY_FAIL_BAD_CONFIG of platform/copy_table.h
    }
    drop_temporary
    set line [harmless $code $text]
    report reason [reason $code $line]
    fconfigure stderr -translation {binary lf}
    catch {puts stderr "[string range $argv0 [string last / $argv0]+1 end]: $line"}
    exit $CODE($code)
}

# Runs the script's body.
proc transfer {body} {
    trap {fail other "ended by a signal"} {SIGTERM SIGINT SIGHUP}
    if {[catch {uplevel #0 $body} text]} {
        fail other $text
    }
    report file $::moved_file
    exit 0
}

# The absolute name, which means the same to every client and to Tcl, where a plain name may begin
# with `~` or `|`.
proc absolute {name} {
    return [expr {[string match /* $name] ? $name : "[pwd]/$name"}]
}

proc fail_for_local_file {problem} {
    fail [expr {[lindex $::errorCode 1] in {ENOSPC EDQUOT} ? "space" : "name"}] $problem
}

# The local file of an upload, by its absolute name.
proc local_source {name} {
    global moved_file
    set name [absolute $name]
    if {![catch {file type $name}] && ![file isfile $name]} {
        fail name "$name is not a regular file"
    }
    if {[catch {close [open $name r]} problem]} {
        fail_for_local_file $problem
    }
    set moved_file $name
    return $name
}

# The local file of a download: a new file in the folder of the target, readable by its owner only.
# keep_download renames it.
proc local_target {name} {
    global target temporary octet_limit
    set octet_limit [settings --download-limit]
    set target [absolute $name]
    if {[file isdirectory $target]} {
        fail name "$target is a directory"
    }
    set new "[string range $target 0 [string last / $target]].transfer-[pid]-[token]"
    if {[catch {close [open $new {WRONLY CREAT EXCL} 0600]} problem]} {
        fail_for_local_file $problem
    }
    set temporary $new
    return $new
}

proc keep_download {} {
    global target temporary moved_file
    if {[is_too_large]} {
        fail size {}
    }
    if {[catch {file rename -force $temporary $target} problem]} {
        fail_for_local_file $problem
    }
    set temporary {}
    set moved_file $target
}

proc is_too_large {} {
    global temporary octet_limit
    return [expr {$temporary ne {} && ![catch {file size $temporary} size] && $size > $octet_limit}]
}

# How much of a download has arrived.
proc report_part {} {
    global temporary
    if {$temporary ne {} && ![catch {file size $temporary} size]} {
        report moved $size
    }
}

proc drop_temporary {} {
    global temporary
    if {$temporary ne {}} {
        catch {file delete $temporary}
    }
}

# A text that no server can guess.
proc token {} {
    set channel [open /dev/urandom rb]
    fconfigure $channel -buffering none -buffersize 16
    binary scan [read $channel 8] H* text
    close $channel
    return $text
}

# Starts the client on a terminal of its own, in raw mode, and starts the time limits.
proc start_client {args} {
    global spawn_id client_pid vrf idle_limit deadline moved looked progress here env
    global temporary octet_limit
    lassign [settings transfer_idle_limit transfer_time_limit] idle_limit time_limit
    set moved [clock seconds]
    set looked $moved
    set deadline [expr {$moved + $time_limit}]
    set progress {}
    # It dies with this script, however that ends.
    set args [linsert $args 0 setpriv --pdeathsig KILL]
    if {$vrf ne {}} {
        set args [linsert $args 0 $here/vrf-exec $vrf]
    }
    # spawn would pass each word in Tcl's own encoding, while the environment takes octets. The
    # shell restores the octets, closes what spawn leaves open, and sets up the terminal, for which
    # spawn would start two more shells.
    set number 0
    set words {}
    set variables {}
    foreach word $args {
        set variable ULMO_WORD_[incr number]
        set env($variable) $word
        lappend variables $variable
        append words " \"\$$variable\""
    }
    set shell "stty raw -echo || exit; set --$words; unset $variables;"
    if {$temporary ne {}} {
        # In units of 512 octets, with a megabyte more: the client may cut off the block at which it
        # fails, and the rest must still be too large.
        append shell " trap '' XFSZ; ulimit -f [expr {$octet_limit / 512 + 2048}];"
    }
    append shell " exec \"\$@\" 3>&- 4>&- 5>&- 6>&- 7>&- 8>&- 9>&-"
    set client_pid [spawn -noecho -nottycopy -nottyinit /bin/sh -c $shell]
    foreach variable $variables {
        unset env($variable)
    }
}

# If the client has gone, the next wait for its answer notices.
proc type {text} {
    catch {send -- $text}
}

# Waits until the client's output matches one of the regular expressions, and returns the name that
# precedes it in the arguments, or `end` if the client has closed its terminal. The output up to
# there is returned in `said` and appended to `transcript`.
proc await {args} {
    global spawn_id transcript said closed
    set said {}
    if {$closed} {
        return end
    }
    set clauses {}
    foreach {name pattern} $args {
        lappend clauses -re $pattern [list set event $name]
    }
    lappend clauses eof {set event end} full_buffer {set event more} timeout {set event quiet}
    while 1 {
        expect -timeout 1 {*}$clauses
        check_limits $event
        if {$event eq "quiet"} {
            continue
        }
        if {[info exists expect_out(buffer)]} {
            append said [string map {\r {}} $expect_out(buffer)]
            unset expect_out
        }
        if {$event ne "more"} {
            set closed [expr {$event eq "end"}]
            set transcript [string range $transcript$said end-200000 end]
            return $event
        }
    }
}

proc check_limits {event} {
    global moved looked deadline idle_limit progress
    set now [clock seconds]
    if {$event ni {quiet more}} {
        set moved $now
    } elseif {$now != $looked} {
        set looked $now
        if {$progress ne [set progress [progress_now]]} {
            set moved $now
        }
    }
    if {$event eq "end"} {
        return
    }
    if {$now >= $deadline} {
        fail unreachable "not finished within the time limit"
    }
    if {$now - $moved >= $idle_limit} {
        fail unreachable "nothing has moved for $idle_limit seconds"
    }
}

# A text that changes whenever the client, or a process that it has started, has read something, or
# the peer has received something. It is the only sign of a slow transfer: the clients move data in
# large blocks, and the kernel buffers more.
proc progress_now {} {
    set seen {}
    foreach pid [family] {
        catch {lappend seen [lindex [contents /proc/$pid/io] 1]}
        set links {}
        catch {set links [glob -nocomplain /proc/$pid/fd/*]} ;# it may end meanwhile
        foreach link $links {
            if {![catch {file readlink $link} end] && [regexp {^socket:\[(.*)\]$} $end - inode]} {
                set sockets($inode) yes
            }
        }
        foreach table {tcp tcp6} {
            if {![array exists sockets] || [catch {contents /proc/$pid/net/$table} lines]} {
                continue
            }
            foreach line [split $lines \n] {
                if {[info exists sockets([lindex $line 9])]} {
                    lappend seen [lindex $line 4]
                }
            }
        }
    }
    return $seen
}

# The client and its descendants.
proc family {} {
    global client_pid
    set pids $client_pid
    for {set at 0} {$at < [llength $pids]} {incr at} {
        set pid [lindex $pids $at]
        catch {lappend pids {*}[contents /proc/$pid/task/$pid/children]}
    }
    return $pids
}

# Waits for the client, which has closed its terminal, and returns its exit status; -1 if a signal
# has ended it.
proc exit_status {} {
    global client_pid
    set ended [wait]
    set client_pid 0
    return [expr {[llength $ended] > 4 ? -1 : [lindex $ended 3]}]
}

# Kills the client and all that it has started.
proc end_client {} {
    global spawn_id client_pid
    if {$client_pid != 0} {
        catch {exec kill -KILL {*}[family]}
        catch {close}
        catch {wait}
        set client_pid 0
    }
}

# The first kind of `table`, a list of kinds and regular expressions, that matches a line of the
# text, and that line; nothing if there is none.
proc classified {text table} {
    foreach {kind pattern} $table {
        foreach line [split $text \n] {
            if {[regexp -- $pattern $line]} {
                return [list $kind $line]
            }
        }
    }
    return {}
}

# A word of an OpenSSH configuration line.
proc ssh_word {text} {
    return "\"[string map {\\ \\\\ \" \\\" % %%} $text]\""
}

# ssh run by the superuser would create the file as the superuser's, and an agent that later runs as
# another user could not use it.
proc own_by_folder {file} {
    set folder [file dirname $file]
    catch {
        set owner [file attributes $folder -owner]
        if {$owner ne [file attributes /proc/self -owner]} {
            close [open $file {WRONLY CREAT EXCL} 0600]
            file attributes $file -owner $owner -group [file attributes $folder -group]
        }
    }
}

# The options for how ssh logs in: by the switch's key, if it has one, and by the password. ssh would
# ask for the passphrase of a key, so a key with one is refused before the client starts, as is a
# file without a key.
proc ssh_login_options {} {
    set methods password,keyboard-interactive
    set key [lindex [settings ssh_identity] 0]
    if {$key eq {}} {
        return [list PubkeyAuthentication=no PreferredAuthentications=$methods]
    }
    if {[catch {exec ssh-keygen -y -P {} -f $key 2>@1} said]} {
        if {[string match "*incorrect passphrase*" $said]} {
            set said "it has a passphrase, which nobody can type here; remove it with `ssh-keygen -p`"
        }
        fail use "ssh_identity = $key: [lindex [split $said \n] 0]"
    }
    return [list PubkeyAuthentication=yes PreferredAuthentications=publickey,$methods \
        IdentitiesOnly=yes IdentityFile=[ssh_word $key]]
}

# The options with which ssh asks for the password on its terminal, asks nothing else, and uses none
# of the settings of the user that runs it.
proc ssh_options {user} {
    global here env logged_in
    set logged_in [token] ;# no server can guess it
    set env(ULMO_LOGGED_IN) $logged_in
    set hosts [absolute [from_environment ULMO_STATE_DIR /var/lib/ulmo]]/ssh_known_hosts
    own_by_folder $hosts
    set new [expr {[settings ssh_accept_new_host_keys] eq "yes" ? "accept-new" : "yes"}]
    set options [list -F none -S $here/ssh-quiet]
    foreach option [list "User=\"[string map {\\ \\\\ \" \\\"} $user]\"" \
            StrictHostKeyChecking=$new UserKnownHostsFile=[ssh_word $hosts] \
            GlobalKnownHostsFile=/dev/null UpdateHostKeys=no \
            CheckHostIP=no HashKnownHosts=no VerifyHostKeyDNS=no \
            BatchMode=no NumberOfPasswordPrompts=1 \
            {*}[ssh_login_options] \
            GSSAPIAuthentication=no HostbasedAuthentication=no \
            IdentityAgent=none AddKeysToAgent=no ForwardAgent=no ForwardX11=no \
            ClearAllForwardings=yes ProxyCommand=none ControlMaster=no ControlPath=none] {
        lappend options -o $option
    }
    # With AES instructions in the processor, AES takes half the time of the client's first choice.
    # The other ciphers of the client stay on offer.
    if {![catch {contents /proc/cpuinfo} processor]
            && [regexp -line {^(flags|Features)[ \t]*:.* aes( |$)} $processor]} {
        lappend options -o Ciphers=^aes128-gcm@openssh.com,aes256-gcm@openssh.com
    }
    return $options
}

# A server's address as sftp and scp take it before a colon.
proc ssh_host {server} {
    return "\[$server\]"
}

# Answers ssh's question for the password, once. Returns when the server has let us in. If the
# client ends before that, the transfer fails.
proc ssh_login {user server} {
    global password said logged_in
    if {$user eq {}} {
        fail login "no user name"
    }
    # The client's own question, and the server's, which the client prefixes with the asker.
    set prompt {(^|[\r\n])([^\r\n]*'s password: |\([^\r\n]*@[^\r\n]*\) [^\r\n]+)$}
    set asked 0
    while 1 {
        switch [await in "(^|\[\r\n\])$logged_in\[\r\n\]" prompt $prompt] {
            in {return}
            prompt {
                if {[incr asked] > 1} {
                    fail login "$user@$server: the password is refused"
                }
                type $password\n
            }
            end {ssh_failed [exit_status]}
        }
    }
}

# With these, sftp and scp tell how the server answers each write of an upload. They succeed if it
# answers the last ones well, even if others failed and the file has a hole.
set tell_writes {-v -v -v}
set debug_line {^(scp: )?debug[123]: }

# The client has closed its terminal: success if its status says so, and if the server has written
# everything. Keeps a download.
proc ssh_finish {} {
    global temporary said
    set status [exit_status]
    if {$status != 0} {
        ssh_failed $status
    }
    if {[regexp {SSH2_FXP_STATUS ([1-9][0-9]*)\n(scp: )?debug3: In write loop, ack} $said - code]} {
        fail space "the server has not written a part of the file: SFTP status $code"
    }
    if {$temporary ne {}} {
        keep_download
    }
}

# Fails for what the client has said.
proc ssh_failed {status} {
    global transcript debug_line
    set transcript [join [lsearch -inline -all -not -regexp [split $transcript \n] $debug_line] \n]
    if {$status == 125} {
        fail use [last_line]
    }
    lassign [classified $transcript {
        host_key {^Host key verification failed\.?$}
        login {Permission denied \([^ ]*\)\.?$}
        login {Too many authentication failures$}
        login {^remote username contains invalid characters$}
        space {: (No space left on device|Disk quota exceeded)$}
        space {(write|close|fsync) remote .*: Failure$}
        unreachable {^ssh: }
        unreachable {(Connection|Operation) timed out}
        lost {[Cc]onnection (closed|reset)|Connection to .* (closed|aborted)|[Bb]roken pipe$|lost connection$}
        name {: (No such file or directory|Permission denied|Failure|Is a directory|Not a directory|Bad message|Operation unsupported)$}
        name {" not found\.$| not a regular file$|non-regular file: |[Ff]ile name too long|is not a directory$}
    }] kind line
    if {$kind eq {} && $status == -1} { # it wrote to an ssh that had ended
        fail lost {}
    }
    if {$kind eq {}} {
        fail other [last_line]
    }
    fail $kind $line
}

# The last line that the client itself wrote; ssh was asked for its progress lines.
proc last_line {} {
    global transcript
    set last "the client failed"
    foreach line [split $transcript \n] {
        if {[string trim $line] ne {} && ![regexp {^sftp> } $line]} {
            set last $line
        }
    }
    return $last
}

set here [file dirname [file normalize [info script]]]
