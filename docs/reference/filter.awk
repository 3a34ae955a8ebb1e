# SPDX-License-Identifier: Apache-2.0
# What Doxygen gets to read, of the header and of the guides. The status codes come
# from a list that a macro expands, which it cannot document: their enum is spelt out.
# And outside of quotation marks it drops a percent sign in front of a letter, in code
# spans too: there it is doubled. Lines keep their numbers, for the sake of messages.

function percents(line, pieces, count, i, out) {
  count = split(line, pieces, "\"")
  for (i = 1; i <= count; i++) {
    if (i > 1) quoted = !quoted
    if (!quoted) {
      pieces[i] = " " pieces[i]
      while (match(pieces[i], /[^%]%[A-Za-z]/))
        pieces[i] = substr(pieces[i], 1, RSTART) "%" substr(pieces[i], RSTART + 1)
      sub(/^ /, "", pieces[i])
    }
    out = out (i > 1 ? "\"" : "") pieces[i]
  }
  return out
}

FNR == 1 { comment = guide = FILENAME ~ /\.md$/ }
/^ *\/\*\*/ { comment = 1; quoted = 0 }
guide && /^ *$/ { quoted = 0 }
guide && /^ *(```|~~~)/ { comment = !comment }
/^  X\(ZOV_[A-Z0-9_]+, -?[0-9]+, ".*"\)/ {
  name = $0
  sub(/^  X\(/, "", name)
  sub(/,.*/, "", name)
  value = $0
  sub(/^[^,]*, /, "", value)
  sub(/,.*/, "", value)
  meaning = $0
  sub(/^[^"]*"/, "", meaning)
  sub(/"[^"]*$/, "", meaning)
  members = members name " = " value ", /**< " meaning " */ "
}
/^#(define|undef) ZOV_STATUS_ENUM/ { print ""; next }
/^  ZOV_STATUS_LIST\(ZOV_STATUS_ENUM\)/ { print members; next }
{ print comment ? percents($0) : $0 }
!guide && /\*\// { comment = 0 }
