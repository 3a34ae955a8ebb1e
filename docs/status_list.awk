# SPDX-License-Identifier: Apache-2.0
# Doxygen's view of the public header: the status codes come from a list that
# a macro expands, which Doxygen cannot document. Writes the header with that
# enum spelt out. Lines keep their numbers, for the sake of messages.
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
{ print }
