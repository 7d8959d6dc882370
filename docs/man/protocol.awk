# SPDX-License-Identifier: BSD-2-Clause
# awk -f protocol.awk docs/protocol.md: the protocol as a manual page.
function plain(text) {
  gsub(/\\/, "\\\\", text)
  gsub(/[_*]/, "\\\\&", text)
  gsub(/`/, "", text)
  while (match(text, /\[[^]]*\]\([^)]*\)/)) {
    link = substr(text, RSTART, RLENGTH)
    sub(/^\[/, "", link)
    sub(/\].*/, "", link)
    text = substr(text, 1, RSTART - 1) link substr(text, RSTART + RLENGTH)
  }
  return text
}
BEGIN {
  print "qora-codec(7)\n\n# NAME\n\nqora-codec - the protocol between a parent and the codec service\n"
}
/^# / || /^- \[.*\]\(#/ { next }
/^```mermaid/ { picture = 1 }  # a page of text has none
picture { if ($0 == "```") picture = 0; next }
/^    / { print "```\n" substr($0, 5) "\n```"; next }
/^```/ { literal = !literal; print "```"; next }
literal { print; next }
/^## / { heading = toupper(substr($0, 4)); print "# " plain(heading); next }
/^### / { print "## " plain(substr($0, 5)); next }
/^\|[-|: ]+$/ { next }
/^\|/ {
  count = split($0, cell, / *\| */)
  for (i = 2; i < count; ++i)
    print (i > 2 ? ":" : table ? "|" : "[") (table ? " " : "[") " " plain(cell[i])
  table = 1
  next
}
{ if (table) { print ""; table = 0; if ($0 == "") next } print plain($0) }
