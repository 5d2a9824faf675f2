# shellcheck shell=bash
# Shared by the example health-check plugins; sourced, never launched (it has no description
# file). Provides the command line, logging, JSON building and the POST of the report.
#
# Command line of every plugin:
#   -u URL              the daemon's endpoint; the report goes to URL/<plugin name>
#   --loglevel=LEVEL    debug, info, warning (default), error or critical: diagnostics below it
#                       are not written to stderr; debug shows the report before it is sent
#   ++group=...         meant for the launcher; ignored, as is anything not understood
#
# Exit status: 0 when the report was stored, 1 when the POST failed, 2 without -u.

# The daemon starts plugins with an empty environment; a run by hand must not depend on the
# caller's locale either: the JSON escaping below works on bytes.
export PATH=/usr/sbin:/usr/bin:/sbin:/bin LC_ALL=C TZ=UTC0

declare -A LOG_LEVELS=([debug]=10 [info]=20 [warning]=30 [error]=40 [critical]=50)
LOG_THRESHOLD=30
PLUGIN_NAME=plugin
PLUGIN_URL=
STATUS=ok
PROBLEMS=

log() {
    local level=$1
    shift
    if ((LOG_LEVELS[$level] >= LOG_THRESHOLD)); then
        printf '%s: %s: %s\n' "$PLUGIN_NAME" "$level" "$*" >&2
    fi
    return 0
}

# plugin_init NAME ARGS...: a plugin that takes options of its own defines plugin_option,
# which returns 0 for an argument it has taken.
plugin_init() {
    PLUGIN_NAME=$1
    shift
    local level=
    while (($# > 0)); do
        case $1 in
        -u) PLUGIN_URL=${2-} && shift ;;
        -u?*) PLUGIN_URL=${1#-u} ;;
        --loglevel=*) level=${1#*=} ;;
        --loglevel) level=${2-} && shift ;;
        ++*) ;;
        *)
            if ! declare -F plugin_option >/dev/null || ! plugin_option "$1"; then
                log info "ignoring argument: $1"
            fi
            ;;
        esac
        shift
    done
    if [[ -n $level ]]; then
        level=${level,,}
        if [[ -n ${LOG_LEVELS[$level]-} ]]; then
            LOG_THRESHOLD=${LOG_LEVELS[$level]}
        else
            log warning "unknown log level '$level', keeping warning"
        fi
    fi
    if [[ -z $PLUGIN_URL ]]; then
        log error "no endpoint given (-u URL)"
        exit 2
    fi
    PLUGIN_URL=${PLUGIN_URL%/}
}

# json_quote TEXT: REPLY = TEXT as a JSON string. Bytes that are not valid UTF-8 (a file name
# may hold any bytes) become U+FFFD so that the document stays valid.
json_quote() {
    local s=$1 out='' c b k need lo hi ok
    local -i i=0 n=${#1}
    if [[ $s != *[!\ -~]* && $s != *[\"\\]* ]]; then
        REPLY="\"$s\""
        return
    fi
    while ((i < n)); do
        c=${s:i:1}
        case $c in
        \" | \\) out+="\\$c" i+=1 && continue ;;
        [\ -~]) out+=$c i+=1 && continue ;;
        esac
        printf -v b '%d' "'$c"
        if ((b < 0x80)); then
            printf -v c '\\u%04x' "$b"
            out+=$c i+=1
            continue
        fi
        # Length of the sequence and the range of its second byte (no overlong forms, no
        # surrogates, nothing above U+10FFFF).
        need=0 lo=0x80 hi=0xbf
        if ((b >= 0xc2 && b <= 0xdf)); then
            need=1
        elif ((b == 0xe0)); then
            need=2 lo=0xa0
        elif ((b == 0xed)); then
            need=2 hi=0x9f
        elif ((b >= 0xe1 && b <= 0xef)); then
            need=2
        elif ((b == 0xf0)); then
            need=3 lo=0x90
        elif ((b >= 0xf1 && b <= 0xf3)); then
            need=3
        elif ((b == 0xf4)); then
            need=3 hi=0x8f
        fi
        ok=$((need > 0 && i + need < n))
        for ((k = 1; ok && k <= need; k++)); do
            printf -v c '%d' "'${s:i+k:1}"
            ((c >= lo && c <= hi)) || ok=0
            lo=0x80 hi=0xbf
        done
        if ((ok)); then
            out+=${s:i:need+1} i+=need+1
        else
            out+='\ufffd' i+=1
        fi
    done
    REPLY="\"$out\""
}

# json_number TEXT: REPLY = TEXT when it is a JSON number, else null (a field the kernel did
# not give).
json_number() {
    if [[ $1 =~ ^-?(0|[1-9][0-9]*)(\.[0-9]+)?$ ]]; then REPLY=$1; else REPLY=null; fi
}

# add_string VAR KEY TEXT, add_number VAR KEY TEXT, add_json VAR KEY JSON: append one member
# to the comma-separated members held in VAR. Keys are plain identifiers.
add_string() {
    local -n members_=$1
    json_quote "$3"
    members_+=${members_:+,}\"$2\":$REPLY
}
add_number() {
    local -n members_=$1
    json_number "$3"
    members_+=${members_:+,}\"$2\":$REPLY
}
add_json() {
    local -n members_=$1
    members_+=${members_:+,}\"$2\":$3
}

# percent PART WHOLE: REPLY = 100 * PART / WHOLE with one decimal, PERCENT10 = the same in
# tenths for comparisons; null and -1 when WHOLE is not a positive integer.
percent() {
    if [[ $1 =~ ^[0-9]+$ && $2 =~ ^[0-9]+$ ]] && (($2 > 0)); then
        PERCENT10=$(((($1) * 1000 + ($2) / 2) / ($2)))
        REPLY=$((PERCENT10 / 10)).$((PERCENT10 % 10))
    else
        PERCENT10=-1 REPLY=null
    fi
}

# rate_percent WHAT WARNING [CRITICAL]: flag the share that percent has just computed.
rate_percent() {
    if ((${3:-101} * 10 <= PERCENT10)); then
        flag critical "$1 $REPLY % used"
    elif (($2 * 10 <= PERCENT10)); then
        flag warning "$1 $REPLY % used"
    fi
}

# hundredths X.YY: REPLY = X.YY * 100 as an integer (load averages and pressure shares come
# with two decimals); 0 when TEXT is not of that form.
hundredths() {
    if [[ $1 =~ ^([0-9]+)\.([0-9]{2})$ ]]; then
        REPLY=$((10#${BASH_REMATCH[1]} * 100 + 10#${BASH_REMATCH[2]}))
    else
        REPLY=0
    fi
}

# flag LEVEL TEXT: raise STATUS to warning or critical (never lower it) and list TEXT among
# the report's problems. REPLY is left as it was.
flag() {
    local reply=$REPLY
    if [[ $1 == critical || $STATUS == ok ]]; then STATUS=$1; fi
    json_quote "$2"
    PROBLEMS+=${PROBLEMS:+,}$REPLY
    REPLY=$reply
    log info "problem ($1): $2"
}

# send_report MEMBERS: POST the report (common members first, then MEMBERS) and exit 1 with
# one line on stderr when it is not stored.
send_report() {
    local body err timestamp
    printf -v timestamp '%(%Y-%m-%dT%H:%M:%SZ)T' -1
    json_quote "$PLUGIN_NAME"
    body="{\"plugin\":$REPLY,\"timestamp\":\"$timestamp\",\"status\":\"$STATUS\""
    body+=",\"problems\":[$PROBLEMS]${1:+,$1}}"
    log debug "report: $body"
    if ! err=$(printf '%s' "$body" | curl -fsS --max-time 5 -o /dev/null \
        -H 'Content-Type: application/json' --data-binary @- --url "$PLUGIN_URL/$PLUGIN_NAME" 2>&1); then
        log critical "POST to $PLUGIN_URL/$PLUGIN_NAME failed: ${err//$'\n'/ }"
        exit 1
    fi
    log info "report stored at $PLUGIN_URL/$PLUGIN_NAME"
}
