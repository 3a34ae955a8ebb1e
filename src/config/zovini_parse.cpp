// SPDX-License-Identifier: Apache-2.0
//
// INI files: reading one into the cache. A line is cut at its first semicolon
// or line end, wherever that stands, and stripped of white space behind; what is
// left opens a section, names a parameter of the section above it, or is
// ignored. Lengths rule: zeros in a line are characters like any other.
//
//   [Main]              section "Main"
//   Port = 8080 ; tcp   parameter "Port", value "8080"
//   x=1                 ignored: names have at least two characters
//
// The entry is filled in place, so a shortage of memory or a failing read on the
// way empties it; the next get then reads the file again. Takes no lock and jumps
// nowhere: who calls holds iniSem where it matters, and jumps off.
#include <string.h>

#include "config/zovini_private.h"
#include "text/zov_stream_private.h"

namespace zov {
namespace {

constexpr size_t kLeastNameBytes = 2;

bool isWhite(char character) {
  return character == ' ' || (character >= '\t' && character <= '\r');
}

bool endsText(char character) {
  return character == ';' || character == '\n' || character == '\r';
}

// What of a line counts.
IniText contentOf(IniText line) {
  size_t length = 0;
  while (length < line.length && !endsText(line.bytes[length])) {
    ++length;
  }
  while (length > 0 && isWhite(line.bytes[length - 1])) {
    --length;
  }
  return {line.bytes, length};
}

// The bytes before the first of a given character; all if there is none.
IniText before(IniText text, char character) {
  const void *found = memchr(text.bytes, character, text.length);
  if (found == nullptr) {
    return text;
  }
  return {text.bytes, static_cast<size_t>(static_cast<const char *>(found) - text.bytes)};
}

IniText withoutLastSpaces(IniText text) {
  while (text.length > 0 && text.bytes[text.length - 1] == ' ') {
    --text.length;
  }
  return text;
}

IniText withoutFirstSpaces(IniText text) {
  while (text.length > 0 && *text.bytes == ' ') {
    ++text.bytes;
    --text.length;
  }
  return text;
}

// Where the lines of a file go. section is null before the first header and
// behind a header that found no room.
struct Target {
  IniFile &file;
  IniSection *section;
};

// Each is false without memory only.

bool takeHeader(Target &target, IniText content) {
  bool isFull = false;
  const IniText name = before({content.bytes + 1, content.length - 1}, ']');
  target.section = addSection(target.file, name, isFull);
  return target.section != nullptr || isFull;
}

bool takeParam(const Target &target, IniText content) {
  const IniText left = before(content, '=');
  const IniText name = withoutLastSpaces(left);
  if (left.length == content.length || name.length < kLeastNameBytes) {
    return true;
  }
  const size_t valueAt = left.length + 1;
  const IniText right = {content.bytes + valueAt, content.length - valueAt};
  return addParam(*target.section, name, withoutFirstSpaces(right));
}

bool takeLine(Target &target, IniText line) {
  const IniText content = contentOf(line);
  if (content.length == 0) {
    return true;
  }
  if (*content.bytes == '[') {
    return takeHeader(target, content);
  }
  return target.section == nullptr || takeParam(target, content);
}

bool takeLines(IniFile &file, ZOV_STREAM stream) {
  Target target = {file, nullptr};
  char *buffer = nullptr;
  uint32_t sizeBytes = 0;
  uint32_t length = 0;
  LineEnd end = streamGetLine(*stream, &buffer, &sizeBytes, &length);
  while (end == LineEnd::kWhole && takeLine(target, {buffer, length})) {
    end = streamGetLine(*stream, &buffer, &sizeBytes, &length);
  }
  zov_freeMem(buffer, ZOV_DEFAULT_TAG);
  return end == LineEnd::kNothing;
}

// The entry that a file is read into, empty.
IniFile *entryFor(const char *path) {
  IniFile *file = findINI(path);
  if (file == nullptr) {
    return addINI(path);
  }
  emptyINI(*file);
  return file;
}

int32_t _readIniFile(const char *path, uint16_t flags) {
  const NoJump noJump;
  IniFile *file = nullptr;
  const int32_t status = path == nullptr ? ZOV_INI_NOFILE : CacheINIFile(path, flags, file);
  if (status != ZOV_INI_NOFILE) {
    return status;
  }
  file = path == nullptr ? nullptr : findINI(path);
  if (file != nullptr) {
    emptyINI(*file);
  }
  return ZOV_OKAY;
}

}  // namespace

bool isReadWhole(const TextStream &in) {
  return !in.cache.readFailed && in.cache.position >= in.cache.length;
}

int32_t failureOf(int32_t status) {
  return heldShortage == Shortage::kNone ? status : ZOV_INI_NOMEMORY;
}

int32_t CacheINIFile(const char *path, uint16_t flags, IniFile *&file) {
  const ZOV_STREAM stream = zov_fopenEx(path, "r", ZOV_ENC_BYTES, flags);
  if (stream == nullptr) {
    return failureOf(ZOV_INI_NOFILE);
  }
  file = entryFor(path);
  const bool isTaken = file != nullptr && takeLines(*file, stream);
  const bool isWhole = isReadWhole(*stream);
  zov_fclose(stream);
  if (isTaken && isWhole) {
    settleINI(*file);
    return ZOV_OKAY;
  }
  if (file != nullptr) {
    emptyINI(*file);
  }
  return isTaken ? failureOf(ZOV_INI_NOFILE) : ZOV_INI_NOMEMORY;
}

}  // namespace zov

extern "C" {

int32_t zov_readIniFile(const char *path) {
  return zov::_readIniFile(path, 0);
}

int32_t zov_readIniFileEx(const char *path, uint16_t flags) {
  return zov::_readIniFile(path, flags);
}
}
