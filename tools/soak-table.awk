# SPDX-License-Identifier: Apache-2.0
# Adds up the pieces of a soak, each from "piece N" on a line "KEY VALUE..." for everything, a row for
# each combination of the clock's offset and the app's jitter and one for a boot of more than an hour,
# and prints the page with the tables. tools/soak runs it.

function least(a, b) { return a == "" || b < a ? b : a }
function most(a, b) { return a == "" || b > a ? b : a }

$1 == "piece" { pieces++ }
$1 == "daemon" {
    daemon = $2
    if (!(daemon in daemonMinutes)) daemons[++daemonCount] = daemon
}
$1 == "ppm" { ppm = $2 }
$1 == "jitter_ms" { jitter = $2 }
$1 == "minutes" {
    isLong = $2 > 60
    row = jitter SUBSEP ppm SUBSEP isLong
    if (!(row in jitters)) {
        order[++rows] = row
        jitters[row] = jitter
        ppms[row] = ppm
        longs[row] = isLong
    }
    minutes[row] += $2
    allMinutes += $2
    daemonMinutes[daemon] += $2
}
$1 ~ /^(speaker|mic|strained)\.[a-z_]+$/ && NF == 2 { sum[row, $1] += $2 }
$1 == "xruns" { sum[row, $1] += $2 }
$1 ~ /^(first|last)\./ {
    low[row, $1] = least(low[row, $1], $2)
    high[row, $1] = most(high[row, $1], $2)
}
$1 ~ /\.latency_us$/ && $5 > 0 {
    low[row, $1] = least(low[row, $1], $2)
    high[row, $1] = most(high[row, $1], $5)
}
$1 ~ /\.latency_bins$/ {
    for (i = 2; i <= NF; i++) {
        split($i, bin, ":")
        bins[row, $1, bin[1]] += bin[2]
        inBins[row, $1] += bin[2]
    }
}
$1 ~ /\.minutes_us$/ {
    for (i = 2; i <= NF; i++) {
        low[row, $1] = least(low[row, $1], $i)
        high[row, $1] = most(high[row, $1], $i)
    }
}
$1 == "hour" && isLong {
    hours[++hourCount] = sprintf("%d | %d | %d | %d | %d | %d | %d | %d", $2, $3, $4, $5, $6, $7, $8, $9)
}
$1 == "disturbance" {
    if (!($2 in times)) kinds[++kindCount] = $2
    times[$2]++
    shortest[$2] = least(shortest[$2], $4)
    longest[$2] = most(longest[$2], $4)
    speakerBack[$2] = most(speakerBack[$2], $5)
    if (NF == 7) {
        unsettled[$2]++
    } else {
        micBack[$2] = most(micBack[$2], $6)
        late[$2] += $6 >= 1000000 || $5 >= 1000000
    }
}
# The times of the ways back are in a table of their own.
$1 == "problem" && !/no way back/ { problems[++problemCount] = sprintf("%+d ppm, %d ms: %s", ppm, jitters[row], substr($0, 9)) }

function quantile(row, key, share,    wanted, bin, total) {
    wanted = share * inBins[row, key]
    for (bin = 0; bin < 4000; bin++) {
        total += bins[row, key, bin]
        if (total > wanted) return (bin + 0.5) * 50
    }
}

# The middle of a bin may lie beyond the latencies in it.
function latency(row, way, share,    us) {
    us = quantile(row, way ".latency_bins", share)
    us = most(low[row, way ".latency_us"], us)
    return ms(least(high[row, way ".latency_us"], us))
}

function ms(us) { return us == "" ? "-" : sprintf("%.2f", us / 1000) }
function label(row) { return sprintf("%+d%s | %d", ppms[row], longs[row] ? " (one boot)" : "", jitters[row]) }
function value(row, key) { return sprintf("%.0f", sum[row, key]) }
# The microphone's direction, calm or strained by the app's jitter.
function undisturbed(row, what) { return sprintf("%.0f", sum[row, "mic." what] + sum[row, "strained." what]) }
function spread(row, key) { return low[row, key] == high[row, key] ? low[row, key] : low[row, key] "-" high[row, key] }

function minuteRange(row, key) {
    return ms(low[row, key]) "-" ms(high[row, key])
}

function latencyRow(row, way,    key) {
    key = way ".latency_us"
    if (!((row, key) in low)) return "- | - | - | -"
    return ms(low[row, key]) " | " latency(row, way, 0.5) " | " latency(row, way, 0.999) " | " ms(high[row, key])
}

function printIntroduction() {
    print "# Soak"
    print ""
    print "Both directions at once on the simulated board, in virtual time, with the host's clock fast (+) or slow (-)"
    print "and with an app whose writes come late by up to the jitter. Both ends play a tone that names its place, and"
    print "every frame is followed. This page is made by"
    print ""
    print "```sh long"
    printf "./test --soak %d\n", allMinutes / 60
    print "```"
    print ""
    print "which runs what is missing until `tests/board/soak/pieces.txt` holds so many hours, a boot for each piece,"
    print "and adds up what is there; `tools/soak --help` tells what a piece is. A piece is alike whenever it is run."
    print ""
}

function printSound(    i, r) {
    print "\n## The sound\n"
    print "Host to app (H) and app to host (A), while nothing is disturbed: from a second after a disturbance on, or as"
    print "soon after as the latency is in its window. Lost and repeated frames are told by the tone; a click is a"
    print "bend that neither the tone nor its interpolation has; xruns are those that were not injected; underruns"
    print "and overruns are those of the frame buffer. Samples gained are what latency control made up for the clocks'"
    print "difference."
    print "\n| ppm | jitter, ms | minutes | frames H | frames A | lost H | lost A | repeated H | repeated A | clicks H | clicks A | xruns | underruns | overruns | samples gained |"
    print "|---|---|---|---|---|---|---|---|---|---|---|---|---|---|---|"
    for (i = 1; i <= rows; i++) {
        r = order[i]
        print "| " label(r) " | " minutes[r] " | " value(r, "speaker.frames") " | " undisturbed(r, "frames") " | " \
            value(r, "speaker.lost") " | " undisturbed(r, "lost") " | " value(r, "speaker.repeated") " | " \
            undisturbed(r, "repeated") " | " value(r, "speaker.clicks") " | " undisturbed(r, "clicks") " | " \
            value(r, "xruns") " | " undisturbed(r, "underruns") " | " undisturbed(r, "overruns") " | " undisturbed(r, "gained") " |"
    }
}

function printLatency(    i, r) {
    print "\n## The latency\n"
    print "In ms: smallest, median, 99.9 %, largest; and the lowest and the highest of the minutes' medians. H is from"
    print "the USB frame that brings a period's first sample to the app's read of it; A is from when the app's clock"
    print "has a sample, so before the jitter, to the USB frame that takes it. The window of A is 15 to 24 ms, or 28 to"
    print "42 ms with the buffer that a jitter of 8 ms makes the daemon enlarge."
    print "\n| ppm | jitter, ms | H min | H median | H 99.9 % | H max | H minutes | A min | A median | A 99.9 % | A max | A minutes |"
    print "|---|---|---|---|---|---|---|---|---|---|---|---|"
    for (i = 1; i <= rows; i++) {
        r = order[i]
        print "| " label(r) " | " latencyRow(r, "speaker") " | " minuteRange(r, "speaker.minutes_us") " | " \
            latencyRow(r, "mic") " | " minuteRange(r, "mic.minutes_us") " |"
    }
}

function printProcess(    i, r) {
    print "\n## The daemon's process\n"
    print "At the first and at the last look of a piece. The heap of a channel's thread comes and stays when a stream is"
    print "opened for the second time."
    print "\n| ppm | jitter, ms | resident, kB, start | end | private, kB, start | end | descriptors, start | end |"
    print "|---|---|---|---|---|---|---|---|"
    for (i = 1; i <= rows; i++) {
        r = order[i]
        print "| " label(r) " | " spread(r, "first.resident_kb") " | " spread(r, "last.resident_kb") " | " \
            spread(r, "first.private_kb") " | " spread(r, "last.private_kb") " | " \
            spread(r, "first.descriptors") " | " spread(r, "last.descriptors") " |"
    }
}

function printHours(    i) {
    if (hourCount == 0) return
    print "\n## Hour after hour\n"
    print "One boot, in which neither board nor daemon is started again: what there was at the end of each hour, of"
    print "everything since the beginning. Frames H, frames A and wrong are of the time in which nothing was disturbed; wrong"
    print "is what was lost, repeated, silent or nothing that was sent, clicks, underruns and overruns, in both directions."
    print "\n| hour | frames H | frames A | wrong | disturbances | resident, kB | private, kB | descriptors |"
    print "|---|---|---|---|---|---|---|---|"
    for (i = 1; i <= hourCount; i++) print "| " hours[i] " |"
}

function printDaemons(    i, d, text) {
    for (i = 1; i <= daemonCount; i++) {
        d = daemons[i]
        text = text sprintf("%s `%s` (%.1f h)", i > 1 ? "," : "", d, daemonMinutes[d] / 60)
    }
    print "The commit that had last changed the daemon's sources when a piece was run:" text "."
}

function printDisturbances(    i, k) {
    print "\n## The disturbances\n"
    print "One every 129 seconds, the kinds in turn. The longest time, in ms, from its end until the sound was whole and"
    print "in its window again; 0 is at once. Not settled: the microphone's stream was closed long enough to begin anew,"
    print "or was starved by the jitter (below)."
    print "\n| what | times | lasting, ms | H back after | A back after | later than 1 s | not settled |"
    print "|---|---|---|---|---|---|---|"
    for (i = 1; i <= kindCount; i++) {
        k = kinds[i]
        print "| " k " | " times[k] " | " ms(shortest[k]) "-" ms(longest[k]) " | " ms(speakerBack[k]) " | " \
            ms(micBack[k]) " | " late[k] + 0 " | " unsettled[k] + 0 " |"
    }
    print ""
    print "What takes A longer than a second is latency control itself. A playback that starts anew after an xrun fills"
    print "its ring of 15 ms at once, from the frame buffer; an app that was late fills the buffer beyond its range. Only"
    print "when a read is starved is the buffer primed anew and the latency right at once. Else frames are drawn out or"
    print "pressed until the depth is in its range: by one sample each, and mostly every second one, which is 2 ms of"
    print "latency in a second."
}

function printStrained(    i, r) {
    print "\n## The app's jitter beyond what the buffer holds\n"
    print "The buffer of 10 to 15 ms holds a jitter of 3 ms under every offset of the clock: reads of 5 ms from blocks of"
    print "10 ms alone move its depth through the whole range. A jitter of 8 ms starves it, or finds it full, now and"
    print "then, until a second comes in which it starves eleven times; then the daemon buffers 20 to 30 ms, for as"
    print "long as the stream is open. The microphone's direction before that:"
    print "\n| ppm | jitter, ms | seconds | frames A | lost A | silent A | clicks A | underruns | overruns |"
    print "|---|---|---|---|---|---|---|---|---|"
    for (i = 1; i <= rows; i++) {
        r = order[i]
        if (sum[r, "strained.seconds"] > 0) {
            print "| " label(r) " | " value(r, "strained.seconds") " | " value(r, "strained.frames") " | " \
                value(r, "strained.lost") " | " value(r, "strained.silent") " | " value(r, "strained.clicks") " | " \
                value(r, "strained.underruns") " | " value(r, "strained.overruns") " |"
        }
    }
}

END {
    printIntroduction()
    printf "## What it holds\n\n"
    printf "**%.1f virtual hours** of both directions, in %d pieces.\n", allMinutes / 60, pieces
    printDaemons()
    if (problemCount == 0) {
        print "\nNo frame was lost or repeated, and there was no click, while nothing was disturbed."
    } else {
        print "\nWhat the pieces found wrong:\n"
        for (i = 1; i <= problemCount; i++) print "- " problems[i]
    }
    printSound()
    printLatency()
    printProcess()
    printHours()
    printDisturbances()
    printStrained()
}
