# Turns the Markdown table of scripts/compare.sh into the chart's data: one
# line per row that has a ratio, "label<TAB>vs best peer<TAB>vs limit", with
# "NaN" where a ratio is missing (gnuplot leaves such a bar out).
BEGIN { FS = "|"; OFS = "\t" }
/^\| workload/ {
    for (i = 2; i < NF; i++) {
        name = $i
        gsub(/^ +| +$/, "", name)
        if (name == "kvt vs best peer") peer = i
        if (name == "kvt vs limit") limit = i
    }
    next
}
/^\|---/ || !peer { next }
/^\|/ {
    label = $2
    gsub(/^ +| +$/, "", label)
    p = $peer; l = $limit
    gsub(/ /, "", p); gsub(/ /, "", l)
    if (p == "—" && l == "—") next
    print "\"" label "\"", (p == "—" ? "NaN" : p), (l == "—" ? "NaN" : l)
}
