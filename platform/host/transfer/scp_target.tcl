# Reads the remote argument of a copy by SCP, USER@SERVER:REMOTE, and writes the name for scp.
#
# SERVER is a name, an IPv4 address, or an IPv6 address with or without brackets. Without them it is
# the longest address that fits: in 2001:db8::1:2:x the file is x. So brackets are needed between an
# abbreviated address and a file name that begins with one to four hexadecimal digits and a colon.

proc is_ipv6 {text} {
    set text [regsub {%[A-Za-z0-9_.-]+$} $text {}]
    if {![regexp {^[0-9A-Fa-f:.]+$} $text] || [regexp {:::|^:[^:]|[^:]:$} $text]} {
        return no
    }
    set octet {(?:25[0-5]|2[0-4][0-9]|1[0-9][0-9]|[1-9]?[0-9])}
    regsub "(^|:)$octet\(?:\\.$octet){3}\$" $text {\10:0} text
    set gaps [regexp -all {::} $text]
    set groups 0
    foreach group [split $text :] {
        if {$group ne {}} {
            if {![regexp {^[0-9A-Fa-f]{1,4}$} $group]} {
                return no
            }
            incr groups
        }
    }
    return [expr {$gaps == 1 ? $groups < 8 : $gaps == 0 && $groups == 8}]
}

# Splits SERVER:REMOTE into a list of the two; empty if it has another form.
proc server_and_file {text} {
    if {[regexp {^\[([^\]]*)\]:(.*)$} $text - server file]} {
        if {![is_ipv6 $server]} {
            return {}
        }
        return [list $server $file]
    }
    # The colon after an IPv6 address comes before its 46th octet; an interface may follow the
    # address.
    set found {}
    set at [string first : $text]
    for {} {$at >= 0 && $at < 80} {set at [string first : $text $at+1]} {
        if {[is_ipv6 [string range $text 0 $at-1]]} {
            set found [list [string range $text 0 $at-1] [string range $text $at+1 end]]
        }
    }
    if {$found eq {} && [regexp {^([A-Za-z0-9_][A-Za-z0-9_.-]*):(.*)$} $text - server file]} {
        set found [list $server $file]
    }
    return $found
}

# Splits USER@SERVER:REMOTE into a list of the three; empty if it has another form. The user's name
# may contain an '@', a server's may not.
proc remote_parts {text} {
    for {set at [string first @ $text]} {$at >= 0} {set at [string first @ $text $at+1]} {
        set rest [server_and_file [string range $text $at+1 end]]
        if {$rest ne {}} {
            return [linsert $rest 0 [string range $text 0 $at-1]]
        }
    }
    return {}
}

# scp interprets patterns, in downloads only, and a name that begins with a tilde.
proc remote_name {name downwards} {
    if {[string match ~* $name]} {
        set name ./$name
    }
    if {$downwards} {
        regsub -all {[][?*\\{}]} $name {\\&} name
    }
    return $name ;# not through expr, which would write the name 1.50 as 1.5
}
