#!/usr/bin/env bash
# Runs Quorvex and other programs in turn on work that they have in common, and prints as a table what an event takes:
# the median of the rounds, and the times of the program as a multiple of those of Quorvex.
#
#     bench/peers/run.sh
#
# EVENTS (2000000) and ROUNDS (7) can be set. All is written to build/peers, which stays until the next run.
set -euo pipefail
cd "$(dirname "${BASH_SOURCE[0]}")/../.."
events=${EVENTS:-2000000}
rounds=${ROUNDS:-7}
qvx=$PWD/build/release/tools/qvx/qvx
hooks=${qvx%/*}/libquorvex_functions.so
programs=$PWD/build/peers

say() { printf '== %s\n' "$*" >&2; }

# compile NAME [PACKAGE]: the program of that source, with what pkg-config tells of the package; OUTPUT is another name.
compile() {
    # shellcheck disable=SC2046  # the options are words
    c++ -std=c++20 -O2 -DNDEBUG -Wall -Wextra -Wpedantic -Wconversion -Wshadow -Werror -I. "bench/peers/$1.cpp" \
        -o "$programs/${OUTPUT:-$1}" ${2:+$(pkg-config --cflags --libs "$2")} "${@:3}"
}

say "compiling"
rm -rf "$programs"
mkdir -p "$programs/work"
compile Quorvex '' build/release/quorvex/libquorvex.a -pthread
compile Calls '' -pg
OUTPUT=Hooks compile Calls '' -finstrument-functions -finstrument-functions-exclude-file-list=/usr/include,Work.h
compile Ctf
compile Logs spdlog
compile Otf2 otf2
compile Babeltrace babeltrace2
compile Lttng lttng-ust
cd "$programs/work"

say "starting the daemon of LTTng"
export LTTNG_HOME=$PWD/lttng
mkdir "$LTTNG_HOME"
lttng-sessiond --no-kernel >lttng/log 2>&1 &
daemon=$!
trap 'kill $daemon 2>/dev/null || true' EXIT
for ((i = 0; i < 50; ++i)); do
    ! lttng --no-sessiond list >/dev/null 2>&1 || break
    sleep 0.1
done

say "writing what is read"
mkdir ctf
{
    ../Quorvex write "$events" calls.qvx
    ../Ctf write "$events" ctf
    ../Otf2 write "$events" otf2
    $qvx export calls.qvx --to vcd -o calls.vcd
} >/dev/null

# What a program does. Those that tell what an event takes print it, of the others the run is timed.
record_quorvex() { rm -rf recorded && mkdir recorded && QVX_TRACEDIR=recorded ../Quorvex record "$events"; }
record_mapped() { QVX_TRACEMODE=mapped record_quorvex; }
by_uftrace() {
    rm -rf uftrace
    uftrace record -d uftrace "$1" record "$events" 2>uftrace.log && ! grep LOST uftrace.log >&2
}
record_uftrace() { by_uftrace ../Calls; }
hooks_quorvex() { rm -rf recorded && mkdir recorded && QVX_TRACEDIR=recorded LD_PRELOAD=$hooks ../Hooks record "$events"; }
hooks_mapped() { QVX_TRACEMODE=mapped hooks_quorvex; }
hooks_uftrace() { by_uftrace ../Hooks; }
begin_lttng() {
    lttng --no-sessiond create calls --output="$PWD/recorded.lttng" &&
        lttng enable-channel --userspace --subbuf-size=4M --num-subbuf=16 --blocking-timeout=inf calls &&
        lttng enable-event --userspace --channel=calls 'quorvex_bench:*' && lttng start
}
end_lttng() { lttng stop && lttng list calls && lttng destroy; }
record_lttng() {
    rm -rf recorded.lttng
    begin_lttng >&2 && LTTNG_UST_ALLOW_BLOCKING=1 ../Lttng record "$events" && end_lttng >lttng.log &&
        grep -q 'Discarded events: 0' lttng.log
}
record_otf2() { rm -rf recorded.otf2 && ../Otf2 record "$events" recorded.otf2; }
log_spdlog() { ../Logs spdlog "$events" log.txt; }
log_fprintf() { ../Logs fprintf "$events" log.txt; }
write_quorvex() { ../Quorvex write "$events" written.qvx; }
write_otf2() { rm -rf written.otf2 && ../Otf2 write "$events" written.otf2; }
read_quorvex() { ../Quorvex read "$events" calls.qvx; }
read_quorvex_lists() { ../Quorvex lists "$events" calls.qvx; }
read_babeltrace() { ../Babeltrace read "$events" ctf; }
read_otf2() { ../Otf2 read "$events" otf2; }
through_quorvex() { $qvx info calls.qvx >info.txt; }
through_babeltrace() { babeltrace2 ctf --component=sink.utils.dummy; }
text_quorvex() { $qvx dump calls.qvx >text.txt; }
text_babeltrace() { babeltrace2 ctf >text.txt; }
details_babeltrace() { babeltrace2 ctf --component=sink.text.details >text.txt; }
text_otf2() { otf2-print otf2/trace.otf2 >text.txt; }
vcd_quorvex() { $qvx export calls.qvx --to vcd -f -o written.vcd; }
vcd_vcd2fst() { vcd2fst calls.vcd written.fst >/dev/null; }

# The work, and who does it: a function from above, and whether it tells its time. The first of each work is Quorvex.
rows=(
    'an enter or leave of a traced function|Quorvex|record_quorvex|tells'
    '|Quorvex, mode mapped|record_mapped|tells'
    '|uftrace|record_uftrace|tells'
    '|LTTng-UST|record_lttng|tells'
    '|OTF2|record_otf2|tells'
    '|fprintf|log_fprintf|tells'
    '|spdlog|log_spdlog|tells'
    'an enter or leave told by -finstrument-functions|Quorvex|hooks_quorvex|tells'
    '|Quorvex, mode mapped|hooks_mapped|tells'
    '|uftrace|hooks_uftrace|tells'
    'writing events|Quorvex|write_quorvex|tells'
    '|OTF2|write_otf2|tells'
    'reading events in a program|Quorvex, one by one|read_quorvex|tells'
    '|Quorvex, by list|read_quorvex_lists|tells'
    '|babeltrace2, its C interface|read_babeltrace|tells'
    '|OTF2, callbacks|read_otf2|tells'
    'a program goes through a trace|qvx info|through_quorvex|'
    '|babeltrace2, dummy sink|through_babeltrace|'
    'a trace as text|qvx dump|text_quorvex|'
    '|babeltrace2, pretty|text_babeltrace|'
    '|babeltrace2, details|details_babeltrace|'
    '|otf2-print|text_otf2|'
    'a trace as a value change dump|qvx export|vcd_quorvex|'
    '|vcd2fst, reading the dump|vcd_vcd2fst|'
)

: >times
for ((round = 1; round <= rounds; ++round)); do
    say "round $round of $rounds"
    # What one leaves to be stored must not slow down the next, nor always the same one.
    for i in $(shuf -i "0-$((${#rows[@]} - 1))"); do
        [ -n "${rows[i]}" ] || continue
        sync -f .
        IFS='|' read -r work name run tells <<<"${rows[i]}"
        start=${EPOCHREALTIME/./}
        if ! told=$($run 2>failure); then
            say "left out: $name, which fails here: $(tail -n 1 failure)"
            [ -z "$work" ] || exit 1
            rows[i]=
            continue
        fi
        took=$((${EPOCHREALTIME/./} - start)) # microseconds
        [ -n "$tells" ] || told=$(awk -v us=$took -v events="$events" 'BEGIN { print 1000 * us / events }')
        echo "$i $told" >>times
    done
done

echo
echo "$events events, medians of $rounds rounds, $(date +%F)"
echo
sort -k 1n,1 -k 2n,2 times | awk -v names="$(printf '%s\n' "${rows[@]}")" '
    function row(    parts) {
        split(names_of[at + 1], parts, "|")
        median = (times[int((n + 1) / 2)] + times[int(n / 2) + 1]) / 2
        if (parts[1] != "")
            base = median
        printf "| %s | %s | %.1f | %.1f | %s |\n", parts[1], parts[2], median, 1000 / median,
            parts[1] != "" ? "" : sprintf("%.2f", base / median)
    }
    BEGIN {
        split(names, names_of, "\n")
        print "| work | by | ns an event | million events a second | Quorvex / it |\n|---|---|---|---|---|"
        at = -1
    }
    $1 != at { if (at >= 0) row(); at = $1; n = 0 }
    { times[++n] = $2 }
    END { row() }'
