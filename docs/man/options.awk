# SPDX-License-Identifier: BSD-2-Clause
# awk -f options.awk HELP PAGE.scd: the page with @OPTIONS@ replaced by the options that the
# program's own --help lists, so that neither can forget one.
function flush() {
  if (name != "") options = options name "\n\t" text "\n\n"
  name = ""
}
FNR == NR && /^  (-.,|   ) --/ {
  flush()
  line = substr($0, 3)
  text = ""
  if (match(line, /  +[^ -]/) && RSTART > 4) {
    text = substr(line, RSTART)
    line = substr(line, 1, RSTART - 1)
  }
  gsub(/^ +| +$/, "", line)
  sub(/^ +/, "", text)
  count = split(line, word, " ")
  name = ""
  for (i = 1; i <= count; ++i)
    name = name (i > 1 ? " " : "") (word[i] ~ /^-/ ? "*" word[i] "*" : "_" word[i] "_")
  next
}
FNR == NR && /^                    / && name != "" {
  sub(/^ +/, "")
  text = text (text == "" ? "" : " ") $0
  next
}
FNR == NR { flush(); next }
$0 == "@OPTIONS@" {
  flush()
  gsub(/[\\]/, "\\\\", options)
  printf "%s", options
  next
}
{ print }
