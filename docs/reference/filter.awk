# SPDX-License-Identifier: Apache-2.0
# What Doxygen gets to read, of the header and of the guides. The status codes come
# from a list that a macro expands, which it cannot document: their enum is spelt out.
# And outside of quotation marks it drops a percent sign in front of a letter, in code
# spans too: there it is doubled. Lines keep their numbers, for the sake of messages.
# In a guide the name of a function becomes a link, and its program follows, whole. A
# page without an anchor gets one of its file's name: Doxygen's has the whole path.
# Needs -v root=DIRECTORY, that of the project.

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

function links(line, out, name) {
  while (match(line, /`zov_[A-Za-z0-9_]+(\(\))?`/)) {
    name = substr(line, RSTART + 1, RLENGTH - 2)
    out = out substr(line, 1, RSTART - 1)
    if (substr(name, 1, length(name) - 2 * (name ~ /\)$/)) in functions)
      out = out "<tt>@ref " substr(name, 1, length(name) - 2 * (name ~ /\)$/)) " \"" name "\"</tt>"
    else
      out = out "`" name "`"
    line = substr(line, RSTART + RLENGTH)
  }
  return out line
}

BEGIN {
  while ((getline line < (root "/include/zov.h")) > 0)
    if (match(line, /^ZOV_API .*zov_[A-Za-z0-9_]+\(/)) {
      sub(/\(.*/, "", line)
      sub(/.*[ *]/, "", line)
      functions[line]
    }
}
FNR == 1 { comment = guide = FILENAME ~ /\.md$/ }
FNR == 1 && guide && !/\{#/ {
  name = tolower(FILENAME)
  gsub(/.*\/|\.md$/, "", name)
  $0 = $0 " {#zov_" name "}"
}
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
{ print !comment ? $0 : guide ? links(percents($0)) : percents($0) }
!guide && /\*\// { comment = 0 }

END {
  program = FILENAME
  sub(/.*\//, "", program)
  sub(/\.md$/, ".c", program)
  if (!guide || (getline line < (root "/examples/guides/" program)) <= 0) exit
  print "\n## The whole program\n\n```c"
  do print line; while ((getline line < (root "/examples/guides/" program)) > 0)
  print "```"
}
