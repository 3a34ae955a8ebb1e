// SPDX-License-Identifier: Apache-2.0
//
// The swept operations of the upper families: streams, console and log, INI files,
// parser and typed buffers.
#include <fcntl.h>

#include "expression_tables.h"
#include "support/route_file.h"
#include "sweep/sweep.h"

namespace zovtest {

namespace {

const std::vector<int32_t> error = {ZOV_ERROR};
const std::vector<int32_t> iniFailures = {ZOV_INI_NOFILE, ZOV_INI_NOTREPLACED, ZOV_INI_NOMEMORY};

void closeStream(World &w) {
  w.made != nullptr ? zov_fclose(static_cast<ZOV_STREAM>(w.made)) : void();
  w.made = nullptr;
}

// Writes a text that takes more than a block. Whether all of it arrived is told
// by errno.
int32_t writeText(World &w) {
  ZOV_STREAM stream = zov_fopen(w("a"), "w", ZOV_ENC_BYTES);
  w.made = stream;
  if (stream == nullptr) {
    return ZOV_ERROR;
  }
  errno = 0;
  const bool written =
      zov_fprintf(stream, "%s%1100s", "kept ", "end") == 1105 && zov_fflush(stream) == 0;
  closeStream(w);
  return got(written && errno == 0);
}

// Reads the lines "one" and "two" whatever they are written in.
int32_t readText(World &w) {
  ZOV_STREAM stream = zov_fopen(w("a"), "r", 0);
  w.made = stream;
  uint32_t size = 0;
  errno = 0;
  const char *line = stream == nullptr ? nullptr : zov_fGetLine(stream, &w.text, &size);
  if (line == nullptr || strcmp(line, "one\n") != 0) {
    return got(line != nullptr, errno != 0);
  }
  line = zov_fGetLine(stream, &w.text, &size);
  return got(line != nullptr && strcmp(line, "two\n") == 0);
}

void closeText(World &w) {
  closeStream(w);
  putAwayText(w);
}

TEST(Sweep, Text) {
  const std::string bytes = "a=kept " + std::string(1097, ' ') + "end";
  const auto putLines = [](World &w) { w.put("a", "one\ntwo\n"); };
  const auto closeLog = [](World &) { zov_log_close(), zov_log_close(), zov_background = 0; };
  // clang-format off
  sweep("text", {
    {"zov_fopen zov_fprintf zov_fflush", kJumps | kPartly, [](World &w) { w.put("a", ""); },
     writeText, error, "a=", bytes, closeStream},
    {"zov_fopenEx zov_vfprintf", kJumps | kPartly, [](World &w) { w.put("a", ""); },
     [](World &w) {
       ZOV_STREAM stream = zov_fopenEx(w("a"), "w", ZOV_ENC_BYTES, ZOV_FILE_NOSYNC);
       w.made = stream;
       const auto print = [](ZOV_STREAM to, const char *format, ...) {
         va_list arguments;
         va_start(arguments, format);
         const int32_t length = zov_vfprintf(to, format, arguments);
         va_end(arguments);
         return length;
       };
       errno = 0;
       const bool printed = stream != nullptr && print(stream, "%s", "text") == 4 && zov_fflush(stream) == 0;
       closeStream(w);
       return got(printed && errno == 0);
     }, error, "a=", "a=text", closeStream},
    {"zov_fopen_std", kJumps, nothing,
     [](World &w) {
       ZOV_STREAM stream = zov_fopen_std("stderr");
       w.made = stream;
       return got(stream != nullptr);
     }, error, "", "", closeStream},
    {"zov_fopen zov_fGetLine", kJumps, putLines, readText, error, "a=one\ntwo\n", "a=one\ntwo\n", closeText},
    {"zov_stdout_open zov_printf", kLitters, nothing,
     [](World &w) {
       const int32_t status = zov_stdout_open(w("a"));
       if (status != ZOV_OKAY) {
         return status;
       }
       const int32_t printed = zov_printf("text %d", 7);
       zov_stdout_close();
       return got(printed == 6);
     }, {ZOV_ERROR, ZOV_NOMEMORY}, "", "a=text 7", nullptr, "a="},
    {"zov_log_open", 0, [](World &) { zov_background = 1; }, [](World &w) { return zov_log_open(w("a")); },
     {ZOV_ERROR, ZOV_NOMEMORY}, "", "a=", closeLog},
    {"zov_log_create", kJumps, [](World &) { zov_background = 1; },
     [](World &w) { return zov_log_create(w("."), "/a"); }, error, "", "a=", closeLog, ""},
    {"zov_log_chunk_init zov_log_chunk zov_log_chunk_end", 0, [](World &) { zov_background = 1; },
     [](World &) {
       ZOV_LOG_CHUNK chunk = zov_log_chunk_init();
       const int32_t taken = chunk == nullptr ? -1 : zov_log_chunk(chunk, "%600s", "piece");
       chunk != nullptr ? zov_log_chunk_end(chunk, "end\n") : void();
       return got(taken == 600);
     }, error, "", "", closeLog},
  });
  // clang-format on
}

TEST(Sweep, Ini) {
  const auto putIni = [](World &w) { w.put("a.ini", "[S]\nab=1\ncd=2\n"); };
  const auto putMemIni = [](World &w) { w.put("/m/a.ini", "[S]\nab=1\ncd=2\n"); };
  const auto forget = [](World &) { zov_iniCleanup(); };
  // clang-format off
  sweep("ini", {
    {"zov_iniGet", 0, putIni,
     [](World &w) {
       const int32_t status = zov_iniGet(w("a.ini"), "S", "cd", w.room, sizeof w.room);
       return status != ZOV_OKAY ? status : got(true, strcmp(w.room, "2") == 0);
     }, iniFailures, "a.ini=[S]\nab=1\ncd=2\n", "a.ini=[S]\nab=1\ncd=2\n", forget},
    {"zov_iniGetW", 0, putIni,
     [](World &w) {
       wchar_t out[9] = L"";
       const int32_t status = zov_iniGetW(w.wide("a.ini"), L"S", L"ab", out, 9);
       return status != ZOV_OKAY ? status : got(true, wcscmp(out, L"1") == 0);
     }, iniFailures, "a.ini=[S]\nab=1\ncd=2\n", "a.ini=[S]\nab=1\ncd=2\n", forget},
    {"zov_iniGetEx", kKeeps, putMemIni,
     [](World &w) {
       const int32_t status = zov_iniGetEx("/m/a.ini", "S", "cd", w.room, sizeof w.room, kMem);
       return status != ZOV_OKAY ? status : got(true, strcmp(w.room, "2") == 0);
     }, iniFailures, "/m/a.ini=[S]\nab=1\ncd=2\n", "/m/a.ini=[S]\nab=1\ncd=2\n", forget},
    {"zov_iniSet", 0, putIni, [](World &w) { return zov_iniSet(w("a.ini"), "S", "ab", "new"); }, iniFailures,
     "a.ini=[S]\nab=1\ncd=2\n", "a.ini=[S]\nab=new\ncd=2\n", forget,
     "a.ini=[S]\nab=new\ncd=2\n"},
    {"zov_iniSet", 0, putIni, [](World &w) { return zov_iniSet(w("a.ini"), "S", "ab", nullptr); }, iniFailures,
     "a.ini=[S]\nab=1\ncd=2\n", "a.ini=[S]\ncd=2\n", forget, "a.ini=[S]\ncd=2\n"},
    {"zov_iniSetW", 0, putIni, [](World &w) { return zov_iniSetW(w.wide("a.ini"), L"T", L"ef", L"3"); }, iniFailures,
     "a.ini=[S]\nab=1\ncd=2\n", "a.ini=[S]\nab=1\ncd=2\n\n[T]\nef=3\n", forget,
     "a.ini=[S]\nab=1\ncd=2\n\n[T]\nef=3\n"},
    {"zov_iniSetEx", kKeeps, putMemIni, [](World &) { return zov_iniSetEx("/m/a.ini", "S", "ab", "new", kMem); }, iniFailures,
     "/m/a.ini=[S]\nab=1\ncd=2\n", "/m/a.ini=[S]\nab=new\ncd=2\n", forget},
  });
  // clang-format on
}

TEST(Sweep, Wire) {
  const auto endInput = [](World &w) {
    w.made != nullptr ? zov_inputBuffDestroy(static_cast<ZOV_INPUTBUFF>(w.made)) : void();
    w.made = nullptr;
    putAwayText(w);
  };
  // clang-format off
  sweep("wire", {
    // A string of more bytes than memory is taken for at once.
    {"zov_inputBuffCreate zov_inputBuffGetString", kJumps, nothing,
     [](World &w) {
       const ZOV_BUFF_READ read = [](void *world, void *to, uint32_t room, uint32_t *taken) {
         const bool isFirst = static_cast<World *>(world)->size++ == 0;
         *taken = isFirst ? 4 : room;
         isFirst ? memcpy(to, "\0\3\xd", 4) : memset(to, 'x', room);
         return int32_t{0};
       };
       w.size = 0;
       ZOV_INPUTBUFF input = reinterpret_cast<ZOV_INPUTBUFF>(&w);
       int32_t status = zov_inputBuffCreate(read, nullptr, &w, 1, &input);
       w.made = input;
       status = status != 0 ? status : zov_inputBuffGetString(input, &w.text);
       return status != 0 ? status : got(true, strlen(w.text) == 0x30d00);
     }, {ZOV_BUFF_NOMEMORY}, "", "", endInput},
    {"zov_outputBuffCreate", kJumps, nothing,
     [](World &w) {
       const ZOV_BUFF_WRITE write = [](void *, const void *, uint32_t) { return int32_t{0}; };
       ZOV_OUTPUTBUFF output = reinterpret_cast<ZOV_OUTPUTBUFF>(&w);
       const int32_t status = zov_outputBuffCreate(write, nullptr, 0, &output);
       w.made = output;
       return status != 0 ? status : zov_outputBuffPutInt32(output, 7);
     }, {ZOV_BUFF_NOMEMORY}, "", "",
     [](World &w) {
       w.made != nullptr ? zov_outputBuffDestroy(static_cast<ZOV_OUTPUTBUFF>(w.made)) : void();
       w.made = nullptr;
     }},
    // A hundred open brackets make the stacks grow.
    {"zov_yyparse", kJumps | kKeeps, [](World &w) { w.tag = zov_createTagEx(nullptr, 0, ZOV_HERE); },
     [](World &w) {
       ZOV_PARSE_CONTEXT context{};
       context.valueSize = 8;
       context.userContext = &w;
       context.tables = &expression_tables;
       context.tag = w.tag;
       w.size = 0;
       context.lexer = [](void *world, void *) -> int16_t {
         const uint32_t at = static_cast<World *>(world)->size++;
         return static_cast<int16_t>(at < 120 ? '(' : at == 120 ? expression_NUMBER : at < 241 ? ')' : at == 241 ? ';' : -5);
       };
       context.action = [](void *, void *, int32_t, void *) -> int16_t { return 0; };
       context.error = [](void *) { abort(); };
       return zov_yyparse(&context);
     }, {ZOV_NOMEMORY}, "", "", [](World &w) { zov_freeTagMemory(w.tag, 1), w.tag = 0; }},
  });
  // clang-format on
}

}  // namespace

}  // namespace zovtest
