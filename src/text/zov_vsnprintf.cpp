// SPDX-License-Identifier: Apache-2.0
//
// The formatter: one engine behind every formatted text of the library, so that
// a text is the same under every libc. Its grammar is a reduced one and its results
// differ from libc's on purpose in places; the public header lists them.
//
//   format --parse--> FmtSpec, one a directive --convert--> FmtOutput
//
// This file reads the format, fetches the arguments and prints strings; integers
// and floating point have a file each. A FmtOutput lives for one call and a
// FmtSpec for one directive, both on the stack of that call: the engine
// allocates nothing, takes no lock and keeps no state, so it may be used
// anywhere and at any time. Only zov_makeStrV() allocates and may jump, while it
// holds nothing.
//
// A directive fails the whole call when a number in it is too large, or when its
// value is; the text before it stays.
#include <stdarg.h>
#include <string.h>

#include "core/zov_make.h"
#include "text/zov_vsnprintf_private.h"

namespace zov {
namespace {

// Bytes of text that are scanned one by one.
constexpr int32_t kShortText = 16;

// Texts up to so many bytes, the terminator's included, zov_makeStrV() formats once.
constexpr uint64_t kMadeText = 256;

// Terminates the text and gives its length.
int32_t result(FmtOutput &output, bool failed) {
  if (output.position < output.size) {
    output.buffer[output.position] = '\0';
  } else if (output.size != 0) {
    output.buffer[output.size - 1] = '\0';
  }
  if (failed || output.position >= static_cast<uint64_t>(INT32_MAX)) {
    return -1;
  }
  return static_cast<int32_t>(output.position);
}

uint16_t flagOf(char character) {
  switch (character) {
    case '-':
      return FMT_LEFT;
    case '+':
      return FMT_PLUS;
    case ' ':
      return FMT_SPACE;
    case '#':
      return FMT_ALT;
    case '0':
      return FMT_ZERO;
    case '\'':
      return FMT_GROUP;
    default:
      return 0;
  }
}

void parse_flags(FmtSpec &spec) {
  for (uint16_t flag = flagOf(*spec.cursor); flag != 0; flag = flagOf(*++spec.cursor)) {
    spec.flags |= flag;
  }
}

// Appends the digits that follow, if any, to number. False when they overflow.
bool parseNumber(FmtSpec &spec, int32_t &number) {
  for (; *spec.cursor >= '0' && *spec.cursor <= '9'; ++spec.cursor) {
    const int32_t digit = *spec.cursor - '0';
    if (number > (INT32_MAX - digit) / 10) {
      return false;
    }
    number = number * 10 + digit;
  }
  return true;
}

bool parse_width(FmtSpec &spec) {
  if (*spec.cursor != '*') {
    return parseNumber(spec, spec.width);
  }
  ++spec.cursor;
  spec.width = va_arg(spec.output->arguments, int32_t);
  if (spec.width == INT32_MIN) {
    return false;
  }
  if (spec.width < 0) {
    spec.flags |= FMT_LEFT;
    spec.width = -spec.width;
  }
  return true;
}

bool parse_precision(FmtSpec &spec) {
  if (*spec.cursor != '.') {
    return true;
  }
  ++spec.cursor;
  if (*spec.cursor == '*') {
    ++spec.cursor;
    const int32_t precision = va_arg(spec.output->arguments, int32_t);
    spec.precision = precision < 0 ? -1 : precision;
    return true;
  }
  spec.precision = 0;
  return parseNumber(spec, spec.precision);
}

// Takes the second of a doubled letter.
int32_t parseDoubled(FmtSpec &spec, int32_t single, int32_t doubled) {
  if (spec.cursor[1] != spec.cursor[0]) {
    return single;
  }
  ++spec.cursor;
  return doubled;
}

void parse_modifier(FmtSpec &spec) {
  switch (*spec.cursor) {
    case 'h':
      spec.modifier = parseDoubled(spec, kModShort, kModChar);
      break;
    case 'l':
      spec.modifier = parseDoubled(spec, kModLong, kModLongLong);
      break;
    case 'L':
      spec.modifier = kModLongDouble;
      break;
    case 'z':
      spec.modifier = kModSize;
      break;
    case 't':
      spec.modifier = kModPtrdiff;
      break;
    case 'j':
      spec.modifier = kModMax;
      break;
    default:
      return;
  }
  ++spec.cursor;
}

// Reads no more of the text than the precision allows: with one the text need not
// be terminated.
void format_str(FmtSpec &spec, const char *text) {
  FmtOutput &output = *spec.output;
  const bool limited = spec.precision >= 0;
  const uint64_t limit = static_cast<uint64_t>(spec.precision);
  if (text == nullptr) {
    constexpr char kNull[] = "(null)";
    text = limited && limit < sizeof kNull - 1 ? "" : "(null)";
  }
  const uint64_t length = limited ? strnlen(text, limit) : strlen(text);
  const int64_t pad = spec.width - static_cast<int64_t>(length);
  if (!spec.has(FMT_LEFT)) {
    emitn(output, pad, ' ');
  }
  emitstr(output, text, length);
  if (spec.has(FMT_LEFT)) {
    emitn(output, pad, ' ');
  }
}

// Fetches an argument of the width the modifier names, extended as the
// conversion's sign asks. A long double is no integer: none is fetched.
int64_t fetchInteger(FmtSpec &spec) {
  va_list &arguments = spec.output->arguments;
  const bool isUnsigned = spec.has(FMT_UNSIGNED);
  switch (spec.modifier) {
    case kModNone: {
      const int32_t value = va_arg(arguments, int32_t);
      return isUnsigned ? int64_t{static_cast<uint32_t>(value)} : value;
    }
    case kModChar: {
      const int32_t value = va_arg(arguments, int32_t);
      return isUnsigned ? int64_t{static_cast<uint8_t>(value)} : static_cast<int8_t>(value);
    }
    case kModShort: {
      const int32_t value = va_arg(arguments, int32_t);
      return isUnsigned ? int64_t{static_cast<uint16_t>(value)} : static_cast<int16_t>(value);
    }
    case kModLongDouble:
      return 0;
    default:
      return va_arg(arguments, int64_t);
  }
}

void handle_integer(FmtSpec &spec) {
  format_int(spec, fetchInteger(spec));
}

void handle_ptr(FmtSpec &spec) {
  const void *pointer = va_arg(spec.output->arguments, const void *);
  if (pointer == nullptr) {
    format_str(spec, "(nil)");
    return;
  }
  spec.flags |= FMT_PTR | FMT_UNSIGNED;
  spec.base = 16;
  format_int(spec, static_cast<int64_t>(reinterpret_cast<uintptr_t>(pointer)));
}

template <typename Count>
void storeCount(FmtOutput &output) {
  *va_arg(output.arguments, Count *) = static_cast<Count>(output.position);
}

void handle_n(FmtSpec &spec) {
  switch (spec.modifier) {
    case kModNone:
      return storeCount<int32_t>(*spec.output);
    case kModChar:
      return storeCount<int8_t>(*spec.output);
    case kModShort:
      return storeCount<int16_t>(*spec.output);
    case kModLongDouble:
      return;
    default:
      return storeCount<int64_t>(*spec.output);
  }
}

bool parse_integer(FmtSpec &spec, int32_t base, uint16_t flags) {
  spec.base = base;
  spec.flags |= flags;
  handle_integer(spec);
  return true;
}

bool parse_float(FmtSpec &spec, uint16_t flags) {
  spec.flags |= flags;
  if (spec.has(FMT_GSTYLE) && spec.precision == 0) {
    spec.precision = 1;
  }
  return handle_float(spec);
}

// Takes the conversion letter and prints its argument. The format may end here
// instead; its terminator is an unknown letter that is not stepped over.
bool parse_type(FmtSpec &spec) {
  const char letter = *spec.cursor;
  if (letter == '\0') {
    return true;
  }
  ++spec.cursor;
  switch (letter) {
    case '%':
      emit(*spec.output, '%');
      return true;
    case 'd':
    case 'i':
      return parse_integer(spec, 10, 0);
    case 'u':
      return parse_integer(spec, 10, FMT_UNSIGNED);
    case 'o':
      return parse_integer(spec, 8, FMT_UNSIGNED);
    case 'x':
      return parse_integer(spec, 16, FMT_UNSIGNED);
    case 'X':
      return parse_integer(spec, 16, FMT_UNSIGNED | FMT_UPPER);
    case 'c':
      emit(*spec.output, static_cast<char>(va_arg(spec.output->arguments, int32_t)));
      return true;
    case 's':
      format_str(spec, va_arg(spec.output->arguments, const char *));
      return true;
    case 'p':
      handle_ptr(spec);
      return true;
    case 'n':
      handle_n(spec);
      return true;
    case 'f':
    case 'a':
      return parse_float(spec, 0);
    case 'F':
    case 'A':
      return parse_float(spec, FMT_UPPER);
    case 'e':
      return parse_float(spec, FMT_ESTYLE);
    case 'E':
      return parse_float(spec, FMT_ESTYLE | FMT_UPPER);
    case 'g':
      return parse_float(spec, FMT_GSTYLE);
    case 'G':
      return parse_float(spec, FMT_GSTYLE | FMT_UPPER);
    default:
      return true;
  }
}

// Prints the directive whose text, behind its "%", begins at cursor. Returns
// where it ends, or null when it failed.
const char *handle_fmt(FmtOutput &output, const char *cursor) {
  FmtSpec spec{.output = &output, .cursor = cursor};
  // Every letter is above '9', and every character that may precede it is not.
  if (*cursor <= '9') {
    parse_flags(spec);
    if (!parse_width(spec) || !parse_precision(spec)) {
      return nullptr;
    }
  }
  parse_modifier(spec);
  return parse_type(spec) ? spec.cursor : nullptr;
}

// Prints the text up to the next directive or the end, which it returns. Most such
// texts are short, for which a loop beats the call.
const char *emitText(FmtOutput &output, const char *text) {
  const char *end = text;
  while (*end != '%' && *end != '\0') {
    if (++end == text + kShortText) {
      end = strchrnul(end, '%');
      break;
    }
  }
  emitstr(output, text, static_cast<uint64_t>(end - text));
  return end;
}

// Formats into a buffer. The output's arguments are started already.
int32_t _format(FmtOutput &output, char *buffer, uint64_t sizeBytes, const char *format) {
  output.buffer = buffer;
  output.position = 0;
  output.size = buffer == nullptr ? 0 : sizeBytes;
  for (;;) {
    format = emitText(output, format);
    if (*format == '\0') {
      return result(output, false);
    }
    format = handle_fmt(output, format + 1);
    if (format == nullptr) {
      return result(output, true);
    }
  }
}

}  // namespace
}  // namespace zov

extern "C" {

int32_t zov_vsnprintf(char *buffer, uint64_t sizeBytes, const char *format, va_list arguments) {
  zov::FmtOutput output;
  va_copy(output.arguments, arguments);
  const int32_t length = zov::_format(output, buffer, sizeBytes, format);
  va_end(output.arguments);
  return length;
}

// Starts the list where the engine consumes it, as a list just written is slow to
// copy.
int32_t zov_snprintf(char *buffer, uint64_t sizeBytes, const char *format, ...) {
  zov::FmtOutput output;
  va_start(output.arguments, format);
  const int32_t length = zov::_format(output, buffer, sizeBytes, format);
  va_end(output.arguments);
  return length;
}

// Text that fits the buffer on the stack is not formatted a second time.
char *zov_makeStrV(const char *sourceName, uint32_t line, ZOV_TAG tag, const char *format,
                   va_list arguments) {
  char text[zov::kMadeText];
  const int32_t length = zov_vsnprintf(text, sizeof text, format, arguments);
  if (length < 0) {
    return nullptr;
  }
  const uint64_t sizeBytes = static_cast<uint64_t>(length) + 1;
  char *made = zov::makeArray<char>(sizeBytes, tag, sourceName, line);
  if (made == nullptr) {
    return nullptr;
  }
  if (sizeBytes <= sizeof text) {
    memcpy(made, text, sizeBytes);
  } else {
    zov_vsnprintf(made, sizeBytes, format, arguments);
  }
  return made;
}

char *zov_makeStrVA(const char *sourceName, uint32_t line, ZOV_TAG tag, const char *format, ...) {
  va_list arguments;
  va_start(arguments, format);
  char *made = zov_makeStrV(sourceName, line, tag, format, arguments);
  va_end(arguments);
  return made;
}
}
