// SPDX-License-Identifier: Apache-2.0
//
// The engine: what statements are, and what they do to a database. It has no socket; what
// it says goes to a channel. What cannot be done is said by problem().
#ifndef MINIDB_ENGINE_H
#define MINIDB_ENGINE_H

#include <atomic>

#include "store/store.h"

namespace minidb {

// --- Support -------------------------------------------------------------

// Does work that allocates from a tag with a recovery point. False when memory ran
// out, wherever the work was then.
template <typename Work>
bool withRecovery(ZOV_TAG tag, Work work) {
  jmp_buf recovery;
  if (setjmp(recovery) != 0) {
    zov_resetTag(nullptr, tag);
    return false;
  }
  zov_resetTag(&recovery, tag);
  work();
  zov_resetTag(nullptr, tag);
  return true;
}

// Released with its tag. A zero-filled one is empty.
struct Buffer {
  char *bytes;
  uint32_t length;
  uint32_t capacity;
};

inline Text textOf(const Buffer &buffer) {
  return {buffer.bytes, buffer.length};
}

// Makes room behind the contents and a NUL behind that, below 2.5 GiB in all. Needs
// a recovery point.
char *makeRoom(Buffer &buffer, ZOV_TAG tag, uint32_t more);

// As makeRoom(), and puts a text there with a NUL behind it.
void append(Buffer &buffer, ZOV_TAG tag, Text text);

// Puts the next line of a stream, without its end, behind what the buffer holds. kMissing
// behind the last one; kRefused for one that is too long, or kFailed. Needs a recovery
// point.
bool readLine(ZOV_STREAM stream, Buffer &buffer, ZOV_TAG tag, uint32_t limit);

// Whether a whole text matches a pattern: `*` stands for any text, `?` for one
// character of UTF-8, and a backslash makes what is behind it stand for itself, an
// escape that zov_match() lacks. Takes at most the product of the two lengths.
bool matchesPattern(Text text, Text pattern);

// For `return failedAt(...)`: makes a problem of an action, a path and errno.
bool failedAt(const char *action, const char *path);

// Writes problem() as a message. For `return report()`.
bool report();

// S_IFREG or another kind of file that a path leads to; 0 for nothing, S_IFMT when that
// cannot be told.
uint32_t kindOf(const char *path);

// The channel of an output buffer whose context is a descriptor, an uint64_t. Its status
// is errno. zov_fileWrite() would report each failure.
int32_t writeToDescriptor(void *descriptor, const void *data, uint32_t length);

// --- Settings and options ------------------------------------------------

enum Option : uint8_t {
  kData,  // settings, which are in the file
  kSeparator,
  kCache,
  kSocket,
  kLog,
  kClients,
  kWait,
  kSettings,
  kFile = kSettings,  // what else can be given; the INI file's path
  kConnect,
  kMemory,
  kReadOnly,
  kForeground,
  kHelp,
  kVersion,
  kOptions
};

constexpr uint32_t kSettingBytes = 512;  // room for the text of one

struct Settings {
  char text[kOptions][kSettingBytes];  // "" for what was not given
  bool logs;                           // also for a client, which an option tells
  int wordCount;
  char **words;  // behind the options
};

inline bool isGiven(const Settings &settings, Option option) {
  return settings.text[option][0] != '\0';
}

int32_t numberOf(const Settings &settings, Option setting);
char separatorOf(const Settings &settings);
const char *nameOf(Option setting);

// The path of what a server has beside its socket, ".pid" or ".lock".
struct Beside {
  char text[kSettingBytes + 8];
};
Beside besideSocket(const Settings &settings, const char *suffix);

// Takes the text of a setting from the file, or what it is without one.
bool readSetting(Settings &settings, Option setting);

// Takes that of the settings that were not given.
bool readSettings(Settings &settings);

// Changes a setting in the file, which is made for it, and reads it back, one thread at
// a time. False when there is no such setting or it cannot have that value.
bool changeSetting(Settings &settings, const char *name, const char *value);

// Writes the log to a file, new and readable by this user alone, from now on. What has
// its name gets ".old" behind it.
bool openLog(const Settings &settings);

enum Program : uint8_t { kClient = 1, kServer = 2 };

// Starts the library, takes the options and the other settings, and runs a program whose
// files are for this user alone. The exit status: 0, 1 when that fails, and 2 when the
// options are wrong; what is wrong with them is reported.
int runProgram(Program program, int count, char **words, bool (*run)(const Settings &));

// How a statement's or option's form and a sentence on it stand in a line.
constexpr const char *kHelpFormat = "%-24s  %s\n";

// --- Databases and sessions ----------------------------------------------

struct Database {
  Store *store = nullptr;
  Settings settings = {};             // those of the start
  std::atomic<char> separator{'\0'};  // between a key and a value in text
};

// Opens the database that settings tell of, or fails with a problem().
bool openDatabase(Database &database, const Settings &settings);

// A file on its way to take the place of another one, or to be the first of its name:
// beside it, new, readable by this user alone and locked.
struct Draft {
  ZOV_OUTPUTBUFF out;  // null when there is no draft
  int32_t status;      // of the buffer; nothing is written when it is not 0
  uint64_t descriptor;
  const char *target;  // the caller's
  char path[4096];
};

enum class Scope : uint8_t {
  kStatement,    // each statement commits by itself
  kTransaction,  // those until commit or abort together
  kFailed        // one of these went wrong, begin itself perhaps: the rest is refused
};

constexpr uint32_t kMessageBytes = 1024;  // room for a note, an error or a formatted row

struct Session {
  Database *database;
  ZOV_OUTPUTBUFF out;  // what it has to say: items of a kind, a length and the bytes
  int32_t status;      // of the output; what is said is dropped when it is not 0
  Progress progress;   // of what is long
  ZOV_TAG tag;         // of a statement's memory, with a recovery point while it runs
  Scope scope;
  bool quits;
  Transaction *transaction;  // of the scope, or the statement's own

  // What the statement under way holds, which goes with it however it ends.
  View view;
  ZOV_STREAM input;
  Draft draft;
  char note[kMessageBytes];  // said when the statement is done
};

// Opens a session whose output goes to a channel. False when memory is missing;
// nothing is owed then.
bool openSession(Session &session, Database &database, ZOV_BUFF_WRITE write, void *context,
                 Progress progress);

// What a transaction changed that was not committed is gone.
void closeSession(Session &session);

// --- The query language --------------------------------------------------
//
// A word is a keyword only where one can stand: a verb in front of a statement, FROM, TO
// and LIMIT in a search; elsewhere it is a value like any other.

// Both count from 1; columns are characters of UTF-8.
struct Position {
  int32_t line;
  int32_t column;
};

// What a statement needs. One that needs no transaction under way is refused in one.
enum class Access : uint8_t {
  kNone,
  kRead,    // a view
  kChange,  // a transaction, its own where none is under way
  kLoad,    // the same, and its own keeps other writers waiting
  kAlone,   // a view, and that no transaction is under way
  kBegin,   // the same; when it fails, nothing runs until an end
  kEnd      // nothing; it runs also in a transaction that had a mistake
};

struct Statement;

// A kind of statement.
struct Verb {
  const char *form;  // how it goes, its word first
  int16_t token;
  Access access;
  bool (*run)(Session &session, const Statement &statement);
  const char *help;
};

// All of them, and one without a form behind the last.
extern const Verb kVerbs[];

// What a statement asks for. Texts that it does not give have null bytes; behind those
// it gives is a NUL.
struct Statement {
  const Verb *verb;
  Text first;   // key, pattern, path or name
  Text second;  // value
  Range range;
  Text most;
};

// Runs the statements of a text one by one; the last one may lack its semicolon. A
// statement that is wrong or fails is said to be, with line, column, token and what was
// expected if it is not of the language, and the next one runs. What one allocates is
// gone before the next; when memory runs out that statement fails and nothing else.
// `position` is that of the text's first character. False when one failed.
bool runQuery(Session &session, Text text, Position position);

// Where a text that comes in pieces stands in the language. Starts zero-filled.
struct Reading {
  char quote;    // inside a string: what ends it
  bool inWord;   // behind a byte of a word
  bool comment;  // inside a comment
  bool open;     // inside a statement
};

// Goes on with the next whole lines.
void readOn(Reading &reading, Text lines);

// --- For the parser ------------------------------------------------------

// Runs a statement and says what comes of it. False when it failed; a transaction that
// it belongs to can then only be aborted. Outside of one what it changed is on the disk
// before this returns. May jump to the recovery point of the tag, before anything is
// changed for good; endStatement() has to follow then.
bool runStatement(Session &session, const Statement &statement);

// Releases what a statement holds. One that failed, or jumped, or was none, makes its
// transaction fail, or the one that it should have begun. The verb may be null.
void endStatement(Session &session, const Verb *verb, bool failed);

// --- For statements ------------------------------------------------------
//
// What one needs by its verb is there before it runs: a view, a transaction. When it
// succeeds that is committed if it is the statement's own, and the note is said; else
// problem() is said, for kMissing that there is no record of its first text.

enum class Item : char {
  kRow = 'R',  // bytes of rows, each of which ends in a newline
  kNote = 'N',
  kError = 'E'
};

// Says something, which allocates nothing. What is formatted is cut when it is too long.
void say(Session &session, Item item, Text text);
void sayOf(Session &session, Item item, const char *format, ...) ZOV_PRINTF(3, 4);

// Sets the note.
void note(Session &session, const char *format, ...) ZOV_PRINTF(2, 3);

// What the session sees.
const View &sightOf(const Session &session);

// Passes the line of the record that a cursor stands on to `take` piece by piece, none
// of which is empty or kept in memory.
template <typename Take>
bool passRecord(const Session &session, Cursor &cursor, Take take) {
  const char separator = session.database->separator;
  take(keyOf(cursor));
  take(Text{&separator, 1});
  Text piece;
  while (readValue(cursor, piece)) {
    if (piece.length == 0) {
      return true;
    }
    take(piece);
  }
  return false;
}

// Removes a draft. One that was kept or never opened is left alone.
void dropDraft(Draft &draft);

bool load(Session &session, const Statement &statement);
bool dump(Session &session, const Statement &statement);

}  // namespace minidb

#endif
