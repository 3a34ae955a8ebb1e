// SPDX-License-Identifier: Apache-2.0
//
// Text files in and out: a record to a line, with the separator behind its key.
#include "engine/session.h"

namespace minidb {

namespace {

using Number = unsigned long long;

constexpr uint32_t kMaxLineBytes = 1 << 30;

// --- In ------------------------------------------------------------------

// Puts the record of a line. False with a problem().
bool takeLine(Transaction &change, Text line, char separator) {
  line.length -= line.length > 0 && line.bytes[line.length - 1] == '\r';
  if (line.length == 0) {
    return true;
  }
  if (memchr(line.bytes, '\0', line.length) != nullptr) {
    return fail("it holds a NUL");
  }
  const char *end = static_cast<const char *>(memchr(line.bytes, separator, line.length));
  if (end == nullptr) {
    return fail("it has no separator");
  }
  const uint32_t keyBytes = static_cast<uint32_t>(end - line.bytes);
  return putRecord(change, {line.bytes, keyBytes}, {end + 1, line.length - keyBytes - 1}) ==
         Status::kOkay;
}

// Puts the records of the input, and counts its lines.
Outcome takeLines(Session &session, Transaction &change, const char *path, uint64_t &lines) {
  Buffer line = {};
  Line taken = readLine(session.input, line, session.tag, kMaxLineBytes);
  for (; taken == Line::kTaken; taken = readLine(session.input, line, session.tag, kMaxLineBytes)) {
    ++lines;
    if (!takeLine(change, textOf(line), session.database->separator)) {
      say(*session.output, Item::kError, "line %llu: %s; nothing was loaded",
          static_cast<Number>(lines), problem());
      return Outcome::kFailed;
    }
    if (!goesOn(session, lines)) {
      return Outcome::kFailed;
    }
    line.length = 0;
  }
  if (taken == Line::kEnd) {
    return Outcome::kDone;
  }
  taken == Line::kFailed
      ? failedAt("read", path)
      : fail("line %llu is too long; nothing was loaded", static_cast<Number>(lines + 1));
  return refuse(session);
}

// --- Out -----------------------------------------------------------------

// Whether a load would read the line of a record as it is. In a first line the bytes
// that mark an encoding, and some more, would not.
bool isReadable(Text key, char separator, bool isFirst) {
  const char *bytes = key.bytes;
  return memchr(bytes, separator, key.length) == nullptr &&
         memchr(bytes, '\n', key.length) == nullptr &&
         !(isFirst && key.length > 1 && memchr("\xef\xfe\xff", bytes[0], 3) != nullptr &&
           memchr("\xbb\xfe\xff", bytes[1], 3) != nullptr);
}

Outcome refuseRecord(Session &session, Text key) {
  fail("no line can hold the record \"%.*s\" with this separator",
       static_cast<int>(key.length < 100 ? key.length : 100), key.bytes);
  return refuse(session);
}

// Writes the record that a cursor stands on.
Outcome writeRecord(Session &session, Cursor &cursor, bool isFirst) {
  ZOV_OUTPUTBUFF out = session.draft.out;
  const char separator = session.database->separator;
  const Text key = keyOf(cursor);
  if (!isReadable(key, separator, isFirst)) {
    return refuseRecord(session, key);
  }
  int32_t sent = zov_outputBuffPutBytes(out, key.bytes, key.length);
  sent = sent != 0 ? sent : zov_outputBuffPutChar(out, separator);
  char last = '\0';
  Text piece;
  Status status = readValue(cursor, piece);
  for (; status == Status::kOkay && piece.length > 0; status = readValue(cursor, piece)) {
    if (memchr(piece.bytes, '\n', piece.length) != nullptr) {
      return refuseRecord(session, keyOf(cursor));
    }
    last = piece.bytes[piece.length - 1];
    sent = sent != 0 ? sent : zov_outputBuffPutBytes(out, piece.bytes, piece.length);
  }
  if (status == Status::kOkay && last == '\r') {
    return refuseRecord(session, keyOf(cursor));
  }
  sent = sent != 0 ? sent : zov_outputBuffPutChar(out, '\n');
  return status == Status::kOkay && (sent == 0 || failedAt("write", session.draft.target))
             ? Outcome::kDone
             : refuse(session);
}

Outcome writeRecords(Session &session, const View &view, uint64_t &records) {
  Cursor cursor;
  Status status = seekFirst(cursor, view, {});
  for (; status == Status::kOkay; status = seekNext(cursor)) {
    if (writeRecord(session, cursor, records == 0) != Outcome::kDone ||
        !goesOn(session, ++records)) {
      return Outcome::kFailed;
    }
  }
  return status == Status::kMissing ? Outcome::kDone : refuse(session);
}

// Whether a path leads to one of the database's own files: data, settings, log, or
// what a server has beside its socket.
bool isOwnFile(const Database &database, const char *path) {
  const Settings &settings = database.settings;
  bool isOwn = isStoreFile(*database.store, path) || isSameFile(path, settings.path) ||
               isSameFile(path, settings.text[kLog]);
  for (const char *suffix : {"", ".pid", ".lock"}) {
    isOwn = isOwn || isSameFile(path, besideSocket(settings, suffix).path);
  }
  return isOwn;
}

}  // namespace

Outcome load(Session &session, const Statement &statement) {
  const char *path = statement.first.bytes;
  const FileKind kind = kindOf(path);
  if (kind != FileKind::kRegular && kind != FileKind::kNone) {
    return refuse(session, "this is no regular file:", path);
  }
  session.input = zov_fopen(path, "r", ZOV_ENC_BYTES);
  if (session.input == nullptr) {
    failedAt("open", path);
    return refuse(session);
  }
  Transaction *change = openChange(session, Mode::kExclusive);
  if (change == nullptr) {
    return Outcome::kFailed;
  }
  const uint64_t before = viewOf(*change).records;
  uint64_t lines = 0;
  if (takeLines(session, *change, path, lines) != Outcome::kDone) {
    return Outcome::kFailed;
  }
  const uint64_t added = viewOf(*change).records - before;
  if (keepChange(session) != Outcome::kDone) {
    return Outcome::kFailed;
  }
  say(*session.output, Item::kNote, "%llu lines, %llu new records", static_cast<Number>(lines),
      static_cast<Number>(added));
  return Outcome::kDone;
}

Outcome dump(Session &session, const Statement &statement) {
  const char *path = statement.first.bytes;
  const FileKind kind = kindOf(path);
  if (isOwnFile(*session.database, path)) {
    return refuse(session, "this is a file of the database itself:", path);
  }
  if (kind != FileKind::kRegular && kind != FileKind::kNone) {
    return refuse(session, "this is no regular file:", path);
  }
  const View *view = openSight(session);
  if (view == nullptr) {
    return Outcome::kFailed;
  }
  uint64_t records = 0;
  if (!openDraft(session.draft, path)) {
    return refuse(session);
  }
  if (writeRecords(session, *view, records) != Outcome::kDone) {
    return Outcome::kFailed;
  }
  if (!keepDraft(session.draft)) {
    return refuse(session);
  }
  say(*session.output, Item::kNote, "%llu records written to \"%.500s\"",
      static_cast<Number>(records), path);
  return Outcome::kDone;
}

}  // namespace minidb
