// SPDX-License-Identifier: Apache-2.0
//
// Text files in and out: a record to a line, with the separator behind its key.
#include <errno.h>
#include <fcntl.h>
#include <sys/stat.h>

#include <initializer_list>

#include "engine/engine.h"

namespace minidb {

namespace {

using Number = unsigned long long;

constexpr uint32_t kMaxLineBytes = 1 << 30;

// For what is there but is no regular file.
bool isPlain(const char *path) {
  const uint32_t kind = kindOf(path);
  return kind == S_IFREG || kind == 0 || fail("this is no regular file: \"%.200s\"", path);
}

// --- In ------------------------------------------------------------------

// Puts the record of a line.
bool takeLine(Transaction &change, Text line, char separator) {
  line.length -= line.length > 0 && line.bytes[line.length - 1] == '\r';
  if (line.length == 0) {
    return true;
  }
  if (memchr(line.bytes, '\0', line.length) != nullptr) {
    return fail(Status::kRefused, "it holds a NUL");
  }
  const char *end = static_cast<const char *>(memchr(line.bytes, separator, line.length));
  if (end == nullptr) {
    return fail(Status::kRefused, "it has no separator");
  }
  const uint32_t keyBytes = static_cast<uint32_t>(end - line.bytes);
  return putRecord(change, {line.bytes, keyBytes}, {end + 1, line.length - keyBytes - 1});
}

// Takes the line of a number, kMissing behind the last.
bool takeNext(Session &session, Buffer &line, uint64_t number) {
  line.length = 0;
  return readLine(session.input, line, session.tag, kMaxLineBytes) &&
         takeLine(*session.transaction, textOf(line), session.database->separator) &&
         goOn(session.progress, number);
}

// --- Drafts --------------------------------------------------------------

// Locks a file that still has its name then: who had it locked may have removed it.
bool lockNamed(uint64_t descriptor, const char *path) {
  return zov_flLock(descriptor) == ZOV_OKAY && leadsTo(path, descriptor);
}

// Makes and locks the file. A draft is locked while somebody writes it, so one that is
// not was left over; another process may take this one for that before it is locked.
bool createLocked(Draft &draft) {
  uint64_t old = ZOV_NO_DESCRIPTOR;
  if (zov_flOpen(draft.path, O_RDONLY | O_NOFOLLOW | O_NONBLOCK, 0, &old) == 0) {
    if (lockNamed(old, draft.path)) {
      zov_flRemove(draft.path);
    }
    zov_flClose(old);
  }
  if (zov_flOpen(draft.path, O_WRONLY | O_CREAT | O_EXCL, 0, &draft.descriptor) != 0) {
    return false;
  }
  if (lockNamed(draft.descriptor, draft.path)) {
    return true;
  }
  zov_flClose(draft.descriptor);
  errno = EBUSY;
  return false;
}

void closeDraft(Draft &draft) {
  zov_outputBuffDestroy(draft.out);
  draft.out = nullptr;
  zov_flClose(draft.descriptor);
}

// Whether a path leads to one of the database's own files: data, settings, log, or
// what a server has beside its socket.
bool isOwnFile(const Database &database, const char *path) {
  const Settings &settings = database.settings;
  bool isOwn = isStoreFile(*database.store, path) ||
               isSameFile(path, besideSocket(settings, ".pid").text) ||
               isSameFile(path, besideSocket(settings, ".lock").text);
  for (const Option option : {kFile, kLog, kSocket}) {
    isOwn = isOwn || isSameFile(path, settings.text[option]);
  }
  return isOwn;
}

// Begins a draft, in place of what a killed process left of one.
bool openDraft(Draft &draft, const Database &database, const char *target) {
  draft.target = target;
  const int length = zov_snprintf(draft.path, sizeof draft.path, "%s.minidb-new", target);
  if (isOwnFile(database, target) || isOwnFile(database, draft.path)) {
    return fail("this is a file of the database itself: \"%.200s\"", target);
  }
  draft.status = zov_outputBuffCreate(writeToDescriptor, &draft.descriptor, 0, &draft.out);
  errno = draft.status != 0 ? ENOMEM : ENAMETOOLONG;
  if (draft.status == 0 && length < static_cast<int>(sizeof draft.path) && createLocked(draft)) {
    return true;
  }
  zov_outputBuffDestroy(draft.out);
  draft.out = nullptr;
  return failedAt("create", target);
}

void writeDraft(Draft &draft, Text text) {
  if (draft.status == 0) {
    draft.status = zov_outputBuffPutBytes(draft.out, text.bytes, text.length);
  }
}

// Makes the draft safe on disk and gives it the target's name, or drops it.
bool keepDraft(Draft &draft) {
  draft.status = draft.status != 0 ? draft.status : zov_outputBuffFlush(draft.out);
  errno = draft.status;
  const bool isKept = draft.status == 0 && zov_flSync(draft.descriptor) == ZOV_OKAY &&
                      zov_fileRename(draft.path, draft.target) == ZOV_OKAY;
  if (!isKept) {
    failedAt("write", draft.target);
    zov_flRemove(draft.path);
  }
  closeDraft(draft);
  return isKept && syncDirectory(draft.target);
}

// --- Out -----------------------------------------------------------------

// Whether a load would read a key back. In a first line the bytes that mark an encoding,
// and some more, would not be of it.
bool isReadable(Text key, char separator, bool isFirst) {
  constexpr char kFirst[] = {'\xef', '\xfe', '\xff'};
  constexpr char kSecond[] = {'\xbb', '\xfe', '\xff'};
  const char *bytes = key.bytes;
  return memchr(bytes, separator, key.length) == nullptr &&
         !(isFirst && key.length > 1 && memchr(kFirst, bytes[0], sizeof kFirst) != nullptr &&
           memchr(kSecond, bytes[1], sizeof kSecond) != nullptr);
}

// Writes the record that a cursor stands on.
bool writeRecord(Session &session, Cursor &cursor, bool isFirst) {
  Draft &draft = session.draft;
  bool isLine = isReadable(keyOf(cursor), session.database->separator, isFirst);
  char last = '\0';
  const bool isRead = passRecord(session, cursor, [&draft, &isLine, &last](Text piece) {
    isLine = isLine && memchr(piece.bytes, '\n', piece.length) == nullptr;
    last = piece.bytes[piece.length - 1];
    writeDraft(draft, piece);
  });
  writeDraft(draft, {"\n", 1});
  if (isRead && (!isLine || last == '\r')) {
    const Text key = keyOf(cursor);
    return fail(Status::kRefused, "no line can hold the record \"%.*s\" with this separator",
                static_cast<int>(key.length < 100 ? key.length : 100), key.bytes);
  }
  return isRead;
}

}  // namespace

void dropDraft(Draft &draft) {
  if (draft.out != nullptr) {
    zov_flRemove(draft.path);
    closeDraft(draft);
  }
}

bool load(Session &session, const Statement &statement) {
  const char *path = statement.first.bytes;
  const View &view = sightOf(session);
  const uint64_t before = view.records;
  if (!isPlain(path)) {
    return false;
  }
  session.input = zov_fopen(path, "r", ZOV_ENC_BYTES);
  if (session.input == nullptr) {
    return failedAt("open", path);
  }
  Buffer line = {};
  uint64_t lines = 0;
  while (takeNext(session, line, lines + 1)) {
    ++lines;
  }
  if (lastStatus() != Status::kMissing) {
    return fail("line %llu: %s; nothing was loaded", Number{lines} + 1, problem());
  }
  note(session, "%llu lines, %llu new records", Number{lines}, Number{view.records} - before);
  return true;
}

bool dump(Session &session, const Statement &statement) {
  const char *path = statement.first.bytes;
  if (!isPlain(path) || !openDraft(session.draft, *session.database, path)) {
    return false;
  }
  Cursor cursor;
  uint64_t records = 0;
  bool more = seekFirst(cursor, sightOf(session), {});
  while (more && session.draft.status == 0) {
    more = writeRecord(session, cursor, records == 0) && goOn(session.progress, ++records) &&
           seekNext(cursor);
  }
  note(session, "%llu records written to \"%.500s\"", Number{records}, path);
  return (more || lastStatus() == Status::kMissing) && keepDraft(session.draft);
}

}  // namespace minidb
