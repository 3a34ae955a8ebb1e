// SPDX-License-Identifier: Apache-2.0
//
// INI files: reading one into the cache. A line is cut at its first semicolon or
// line end, wherever that stands, and stripped of white space behind. The rest
// opens a section, names a parameter of the section above it, or is ignored.
//
//   [Main]              section "Main"
//   Port = 8080 ; tcp   parameter "Port", value "8080"
//   x=1                 ignored: names have at least two characters
//
// The entry is filled in place, so a shortage of memory or a failing read on the
// way empties it; the next get then reads the file again. Takes no lock and never
// jumps: callers hold jumps off and, for gets and sets, iniSem.
#include "config/zovini_line.h"
#include "config/zovini_private.h"

namespace zov {
namespace {

constexpr size_t kLeastNameBytes = 2;

bool endsText(char character) {
  return character == ';' || character == '\n' || character == '\r';
}

// A line without comment, line end and the white space before them.
IniText contentOf(IniText line) {
  size_t length = 0;
  while (length < line.length && !endsText(line.bytes[length])) {
    ++length;
  }
  while (length > 0 && iniIsWhite(line.bytes[length - 1])) {
    --length;
  }
  return {line.bytes, length};
}

IniText withoutLastSpaces(IniText text) {
  while (text.length > 0 && text.bytes[text.length - 1] == ' ') {
    --text.length;
  }
  return text;
}

IniText withoutFirstSpaces(IniText text) {
  while (text.length > 0 && *text.bytes == ' ') {
    text = iniFrom(text, 1);
  }
  return text;
}

// A reading under way. section is null before the first header, and behind a header
// beyond the limit of sections.
struct Reader {
  IniFile &file;
  IniSection *section;
};

// These are false only without memory.

bool takeHeader(Reader &reader, IniText content) {
  reader.section = nullptr;
  if (iniIsFull(reader.file.sections)) {
    return true;
  }
  reader.section = addSection(reader.file, iniBefore(iniFrom(content, 1), ']'));
  return reader.section != nullptr;
}

bool takeParam(const Reader &reader, IniText content) {
  const IniText left = iniBefore(content, '=');
  const IniText name = withoutLastSpaces(left);
  const bool isParam = left.length < content.length && name.length >= kLeastNameBytes;
  if (!isParam || iniIsFull(reader.section->params)) {
    return true;
  }
  const IniText right = iniFrom(content, left.length + 1);
  return addParam(*reader.section, name, withoutFirstSpaces(right));
}

bool takeLine(Reader &reader, IniText line) {
  const IniText content = contentOf(line);
  if (content.length == 0) {
    return true;
  }
  if (*content.bytes == '[') {
    return takeHeader(reader, content);
  }
  return reader.section == nullptr || takeParam(reader, content);
}

bool takeLines(IniFile &file, TextStream &stream) {
  Reader reader = {file, nullptr};
  const auto take = [&](IniText line) { return takeLine(reader, line); };
  return iniEachLine(stream, take) == LineEnd::kNothing;
}

// The entry that a file is read into, emptied. Null without memory.
IniFile *entryFor(const char *path) ZOV_REQUIRES(iniSem) {
  IniFile *file = findINI(path);
  if (file == nullptr) {
    return addINI(path);
  }
  emptyINI(*file);
  return file;
}

int32_t _readIniFile(const char *path, uint16_t flags) {
  if (path == nullptr) {
    return ZOV_OKAY;
  }
  assumeAlone();
  const NoJump noJump;
  IniFile *file = nullptr;
  const int32_t status = CacheINIFile(path, flags, file);
  if (status != ZOV_INI_NOFILE) {
    return status;
  }
  removeINIFromCache(path);
  return ZOV_OKAY;
}

}  // namespace

int32_t iniUnopened(Opened opened) {
  return opened == Opened::kNoMemory ? ZOV_INI_NOMEMORY : ZOV_INI_NOFILE;
}

int32_t iniReadStatus(const TextStream &stream, bool isInMemory) {
  if (streamReachedEnd(stream)) {
    return ZOV_OKAY;
  }
  return isInMemory && streamReadFailed(stream) ? ZOV_INI_NOMEMORY : ZOV_INI_NOFILE;
}

int32_t CacheINIFile(const char *path, uint16_t flags, IniFile *&file) {
  ZOV_STREAM stream = nullptr;
  const Opened opened = streamOpen(path, "r", ZOV_ENC_BYTES, flags, stream);
  if (opened != Opened::kYes) {
    return iniUnopened(opened);
  }
  file = entryFor(path);
  const bool isTaken = file != nullptr && takeLines(*file, *stream);
  const int32_t status = isTaken ? iniReadStatus(*stream, isInMemory(flags)) : ZOV_INI_NOMEMORY;
  zov_fclose(stream);
  if (status == ZOV_OKAY) {
    indexINI(*file);
  } else if (file != nullptr) {
    emptyINI(*file);
  }
  return status;
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
