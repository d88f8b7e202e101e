# Makes the Debian changelog from CHANGELOG.md (Keep a Changelog form): one
# entry per released version, each item as "* <Group>: <text>", the release
# date as the entry's date. The unreleased section is left out.
#   awk -v package=NAME -v maintainer="NAME <MAIL>" -f changelog.awk CHANGELOG.md
# Wraps one item to 80 columns, as Debian's tools expect of changelog lines.
function flush_item(    n, i, words, line) {
    if (item == "") return
    n = split(item, words, " ")
    line = "  *"
    for (i = 1; i <= n; i++) {
        if (length(line) + 1 + length(words[i]) > 79 && line != "  *" && line != "   ") {
            items = items line "\n"; line = "   "
        }
        line = line " " words[i]
    }
    items = items line "\n"
    item = ""
}
function flush_entry() {
    flush_item()
    if (version == "") return
    printf "%s (%s) unstable; urgency=medium\n\n", package, version
    printf "%s", items
    printf "\n -- %s  %s\n", maintainer, date
    version = ""; items = ""; group = ""
}
# RFC 5322 date at midnight UTC; the weekday by Zeller's congruence.
function rfc_date(iso,    y, m, d, k, j, h, days, months) {
    split(iso, part, "-"); y = part[1] + 0; m = part[2] + 0; d = part[3] + 0
    split("Sat Sun Mon Tue Wed Thu Fri", days, " ")
    split("Jan Feb Mar Apr May Jun Jul Aug Sep Oct Nov Dec", months, " ")
    if (m < 3) { mm = m + 12; yy = y - 1 } else { mm = m; yy = y }
    k = yy % 100; j = int(yy / 100)
    h = (d + int(13 * (mm + 1) / 5) + k + int(k / 4) + int(j / 4) + 5 * j) % 7
    return sprintf("%s, %02d %s %04d 00:00:00 +0000", days[h + 1], d, months[m], y)
}
/^## \[/ {
    flush_entry()
    if ($0 ~ /^## \[Unreleased\]/) next
    if (!match($0, /^## \[[^]]+\] - [0-9][0-9][0-9][0-9]-[0-9][0-9]-[0-9][0-9]/)) {
        print "CHANGELOG.md:" NR ": release heading must read '## [X.Y.Z] - YYYY-MM-DD'" > "/dev/stderr"
        failed = 1; exit 1
    }
    version = $2; gsub(/[][]/, "", version)
    date = rfc_date($4)
    next
}
version == "" { next }
/^### / { flush_item(); group = substr($0, 5); next }
/^- / { flush_item(); item = group ": " substr($0, 3); next }
/^  [^ ]/ && item != "" { item = item " " substr($0, 3); next }
/^$/ { flush_item(); next }
END {
    if (!failed) flush_entry()
}
