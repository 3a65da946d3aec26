#!/bin/sh
# A switch that keeps its configuration as lines of text in a folder:
#
#   tiny-switch.sh FOLDER ACTION
#
# The statements are `hostname NAME` and `vlan NUMBER`; `no` in front of one removes it. Blank lines
# and those that begin with '!' or '#' are comments. docs/porting.md shows the settings that make it
# a device.
set -eu
cd "$1"

# Makes the file `merged`: the configuration in the file $1, with the statements of standard input
# executed on it. Refuses all of them if one is wrong.
merge() {
    awk -v former="$1" '
        BEGIN { while ((getline line < former) > 0) value[key_of(line)] = line }
        { gsub(/^[ \t]+|[ \t\r]+$/, "") }
        /^$/ || /^[!#]/ { next }
        {
            is_no = sub(/^no /, "")
            key = key_of($0)
            if (key == "") { bad = "line " NR ": unknown statement \047" $1 "\047"; exit }
            if (is_no) delete value[key]; else value[key] = $0
        }
        END {
            if (bad) { print bad > "/dev/stderr"; exit 1 }
            for (key in value) print value[key]
        }
        function key_of(line) {
            if (line ~ /^hostname [A-Za-z][A-Za-z0-9-]*$/) return "hostname"
            if (line ~ /^vlan [1-9][0-9]*$/ && substr(line, 6) + 0 < 4095) return line
            return ""
        }' >new
    sort -k 1,1 -k 2n new >merged
}

# Makes standard input the file $1: at any instant, it is the whole old one or the whole new one.
become() {
    cat >"$1.new"
    sync "$1.new"
    mv "$1.new" "$1"
}

[ -e running ] || if [ -e startup ]; then become running <startup; else
    echo hostname tiny | become running
fi
case $2 in
    show-running) cat running ;;
    show-startup) [ ! -e startup ] || cat startup ;;
    check) merge running ;;
    apply) merge running; become running <merged ;;
    replace) merge /dev/null; become running <merged ;;
    save) become startup <running ;;
    store-startup) cat >text; merge /dev/null <text; become startup <text ;;
    *) echo "unknown action '$2'" >&2 && exit 2 ;;
esac
