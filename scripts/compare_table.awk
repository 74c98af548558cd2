# Turns the lines of the bench/compare programs ("library<TAB>row<TAB>value",
# several runs of each) into one Markdown table of medians. The ratios are
# speed ratios: above 1, kvtframework is faster than the best peer (or the
# OS baseline, the machine's limit); below 1, slower.
BEGIN {
    FS = "\t"
    # id | label | unit | h (higher is better) or l (lower is better)
    n = split("post1.rate|post, 1 producer x 1M|M events/s|h;" \
              "post1.cpu|post, 1 producer: CPU|s|l;" \
              "post2.rate|post, 2 producers x 1M|M events/s|h;" \
              "post2.cpu|post, 2 producers: CPU|s|l;" \
              "send.p50|blocking send round trip p50|us|l;" \
              "send.p99|blocking send round trip p99|us|l;" \
              "wake.p50|idle wake-up p50|us|l;" \
              "wake.p99|idle wake-up p99|us|l;" \
              "reactor.post1.rate|post, 1 producer (kvt: network reactor)|M events/s|h;" \
              "reactor.post1.cpu|post, 1 producer: CPU (kvt: network reactor)|s|l;" \
              "reactor.post2.rate|post, 2 producers (kvt: network reactor)|M events/s|h;" \
              "reactor.post2.cpu|post, 2 producers: CPU (kvt: network reactor)|s|l;" \
              "reactor.send.p50|send p50 (kvt: network reactor)|us|l;" \
              "reactor.send.p99|send p99 (kvt: network reactor)|us|l;" \
              "reactor.wake.p50|idle wake-up p50 (kvt: network reactor)|us|l;" \
              "reactor.wake.p99|idle wake-up p99 (kvt: network reactor)|us|l;" \
              "timers.1k|timers 1k: schedule, cancel half, expire half|ns/op|l;" \
              "timers.10k|timers 10k|ns/op|l;" \
              "timers.100k|timers 100k|ns/op|l;" \
              "tcp.rtt|TCP 64-byte ping-pong|k round trips/s|h;" \
              "tcp.stream|TCP 64 KiB streaming|GB/s|h;" \
              "buf.dup|buffer: duplicate 16 x 2 KiB, free|ns|l;" \
              "buf.split|buffer: duplicate, split in block 8, free|ns|l;" \
              "buf.gather|buffer: gather 16 blocks into an iovec|ns|l;" \
              "buf.flatten|buffer: flatten 32 KiB|ns|l;" \
              "trace.line|trace: format one line (os: snprintf)|ns|l;" \
              "dns.cached|DNS: cached lookup|ns|l;" \
              "dns.localhost|DNS: uncached localhost, end to end|us|l", rows, ";")
    ncols = split("kvt os libuv asio libevent ace ace-list", cols, " ")
    npeers = split("libuv asio libevent ace ace-list", peers, " ")
}

{
    key = $1 SUBSEP $2
    samples[key] = (key in samples) ? samples[key] " " $3 : $3
    seen[$1] = 1
}

function median(list,    v, k, i, j, t) {
    k = split(list, v, " ")
    for (i = 2; i <= k; i++) {
        for (j = i; j > 1 && v[j - 1] + 0 > v[j] + 0; j--) {
            t = v[j]; v[j] = v[j - 1]; v[j - 1] = t
        }
    }
    return v[int((k + 1) / 2)] + 0
}

function fmt(x) {
    if (x >= 100) return sprintf("%.0f", x)
    if (x >= 10) return sprintf("%.1f", x)
    if (x >= 1) return sprintf("%.2f", x)
    return sprintf("%.3f", x)
}

# The value of a row for a library; a peer has no reactor variant, so the
# plain row stands for it.
function value(lib, id,    key, base) {
    key = lib SUBSEP id
    if (key in samples) return median(samples[key])
    if (lib != "kvt" && id ~ /^reactor\./) {
        base = substr(id, 9)
        key = lib SUBSEP base
        if (key in samples) return median(samples[key])
    }
    return ""
}

# How many times faster kvt is than the other figure.
function speedup(ours, theirs, better) {
    if (ours == "" || theirs == "" || ours <= 0 || theirs <= 0) return "—"
    return sprintf("%.2f", better == "h" ? ours / theirs : theirs / ours)
}

END {
    header = "| workload | unit |"
    rule = "|---|---|"
    for (c = 1; c <= ncols; c++) {
        if (cols[c] == "kvt" || (cols[c] in seen)) {
            header = header " " cols[c] " |"
            rule = rule "---|"
            shown[c] = 1
        }
    }
    print header " kvt vs best peer | kvt vs limit |"
    print rule "---|---|"
    for (r = 1; r <= n; r++) {
        split(rows[r], f, "|")
        line = "| " f[2] " | " f[3] " |"
        for (c = 1; c <= ncols; c++) {
            if (!(c in shown)) continue
            v = value(cols[c], f[1])
            if (v == "") v = "—"
            else v = fmt(v)
            line = line " " v " |"
        }
        ours = value("kvt", f[1])
        best = ""
        for (p = 1; p <= npeers; p++) {
            v = value(peers[p], f[1])
            if (v == "") continue
            if (best == "" || (f[4] == "h" ? v > best : v < best)) best = v
        }
        print line " " speedup(ours, best, f[4]) " | " speedup(ours, value("os", f[1]), f[4]) " |"
    }
}
