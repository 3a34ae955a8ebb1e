// SPDX-License-Identifier: Apache-2.0
#include "engine/text.h"

#include <errno.h>

namespace minidb {

namespace {

// What is left of a text.
struct Rest {
  const char *at;
  const char *end;
};

// Takes what the next part of the pattern, which is no `*`, stands for off both.
bool takeOne(Rest &text, Rest &pattern) {
  if (text.at == text.end || pattern.at == pattern.end) {
    return false;
  }
  if (*pattern.at == '?') {
    do {
      ++text.at;
    } while (text.at < text.end && (static_cast<unsigned char>(*text.at) & 0xc0) == 0x80);
    ++pattern.at;
    return true;
  }
  const bool escaped = *pattern.at == '\\' && pattern.end - pattern.at > 1;
  if (*text.at != pattern.at[escaped ? 1 : 0]) {
    return false;
  }
  pattern.at += escaped ? 2 : 1;
  ++text.at;
  return true;
}

// Goes on to where the text may match behind a `*`. False when it cannot.
bool skipTo(Rest &text, const Rest &pattern) {
  if (pattern.at < pattern.end && strchr("*?\\", *pattern.at) == nullptr) {
    text.at = static_cast<const char *>(
        memchr(text.at, *pattern.at, static_cast<size_t>(text.end - text.at)));
  }
  return text.at != nullptr;
}

}  // namespace

char *makeRoom(Buffer &buffer, ZOV_TAG tag, uint32_t more) {
  const uint32_t wanted = buffer.length + more + 1;
  if (wanted > buffer.capacity) {
    const uint32_t capacity = wanted + wanted / 2;
    buffer.bytes = static_cast<char *>(zov_extendMem(buffer.bytes, capacity, tag, 0, 0, ZOV_HERE));
    buffer.capacity = capacity;
  }
  return buffer.bytes + buffer.length;
}

void append(Buffer &buffer, ZOV_TAG tag, Text text) {
  char *end = makeRoom(buffer, tag, text.length);
  if (text.length > 0) {
    memcpy(end, text.bytes, text.length);
  }
  end[text.length] = '\0';
  buffer.length += text.length;
}

Line readLine(ZOV_STREAM stream, Buffer &buffer, ZOV_TAG tag, uint32_t limit) {
  errno = 0;
  int32_t byte = zov_fgetc(stream);
  if (byte < 0) {
    return zov_errno() == 0 ? Line::kEnd : Line::kFailed;
  }
  for (; byte >= 0 && byte != '\n'; byte = zov_fgetc(stream)) {
    if (buffer.length >= limit) {
      return Line::kTooLong;
    }
    if (buffer.length + 1 >= buffer.capacity) {
      makeRoom(buffer, tag, 1);
    }
    buffer.bytes[buffer.length++] = static_cast<char>(byte);
  }
  return byte >= 0 || zov_errno() == 0 ? Line::kTaken : Line::kFailed;
}

bool matchesPattern(Text wholeText, Text wholePattern) {
  Rest text = {wholeText.bytes, wholeText.bytes + wholeText.length};
  Rest pattern = {wholePattern.bytes, wholePattern.bytes + wholePattern.length};
  Rest starText = {nullptr, nullptr};  // where what is behind the latest `*` was tried
  Rest starPattern = pattern;
  while (text.at < text.end || pattern.at < pattern.end) {
    if (pattern.at < pattern.end && *pattern.at == '*') {
      ++pattern.at;
      starPattern = pattern;
      starText = text;
    } else if (takeOne(text, pattern)) {
      continue;
    } else if (starText.at == nullptr || starText.at == starText.end) {
      return false;
    } else {
      ++starText.at;
      pattern = starPattern;
    }
    if (!skipTo(starText, starPattern)) {
      return false;
    }
    text = starText;
  }
  return true;
}

}  // namespace minidb
