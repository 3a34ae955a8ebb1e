// SPDX-License-Identifier: Apache-2.0
//
// The swept operations of the upper families: streams, console and log, INI files,
// parser and typed buffers.
#include <fcntl.h>

#include "expression_tables.h"
#include "sweep/sweep.h"

namespace zovtest {

namespace {

// Ends the writing of a stream. Whether all of it arrived is told by errno.
int32_t closed(World &w, bool isWritten) {
  w.stream != nullptr ? zov_fclose(w.stream) : void();
  w.stream = nullptr;
  return got(isWritten && errno == 0);
}

// Reads the lines "one" and "two" whatever they are written in.
int32_t readText(World &w) {
  w.stream = zov_fopen(w("a"), "r", 0);
  errno = 0;
  const char *line = w.stream == nullptr ? nullptr : zov_fGetLine(w.stream, &w.text, &w.size);
  if (line == nullptr || strcmp(line, "one\n") != 0) {
    return got(line != nullptr, errno != 0);
  }
  line = zov_fGetLine(w.stream, &w.text, &w.size);
  return got(line != nullptr && strcmp(line, "two\n") == 0);
}

TEST(Sweep, Text) {
  const std::string text = "kept " + std::string(1097, ' ') + "end";
  std::string units = "\xFF\xFE";
  for (int unit = 0; unit < 600; ++unit) {
    units += {'u', '\0'};
  }
  const std::vector<int32_t> openFails = {ZOV_ERROR, ZOV_NOMEMORY};
  const auto inBackground = [](World &) { zov_background = 1; };
  const auto closeLog = [](World &) { zov_log_close(), zov_log_close(), zov_background = 0; };
  // clang-format off
  sweep("text", {
    {"zov_fopen zov_fprintf zov_vfprintf zov_fflush zov_fclose", kJumps | kPartly, "a=", "a=" + text,
     [](World &w) {
       w.stream = zov_fopen(w("a"), "w", ZOV_ENC_BYTES);
       errno = 0;
       return closed(w, w.stream != nullptr && zov_fprintf(w.stream, "%s%1100s", "kept ", "end") == 1105 && zov_fflush(w.stream) == 0);
     }},
    {"zov_fopenEx zov_fputc", kJumps | kPartly, "a=", "a=" + units,
     [](World &w) {
       w.stream = zov_fopenEx(w("a"), "w", ZOV_ENC_UTF16, ZOV_FILE_NOSYNC);
       int count = 0;
       errno = 0;
       while (w.stream != nullptr && count < 600 && zov_fputc('u', w.stream) == 0 && errno == 0) {
         ++count;
       }
       return closed(w, count == 600);
     }},
    {"zov_fopen_std", kJumps, "", "", [](World &w) { return got((w.stream = zov_fopen_std("stderr")) != nullptr); }},
    {"zov_fopen zov_fGetLine", kJumps, "a=one\ntwo\n", "a=one\ntwo\n", readText},
    {"zov_stdout_open zov_printf zov_stdout_close", 0, "", "a=text 7",
     [](World &w) {
       const int32_t status = zov_stdout_open(w("a"));
       const int32_t printed = status == ZOV_OKAY ? zov_printf("text %d", 7) : 0;
       status == ZOV_OKAY ? zov_stdout_close() : void();
       return status == ZOV_OKAY ? got(printed == 6) : status;
     }, openFails, "a=(Out of memory.*\n)?"},
    {"zov_log_open", 0, "", "a=", [](World &w) { return zov_log_open(w("a")); }, openFails, nullptr, inBackground, closeLog},
    {"zov_log_create", kJumps, "", "a=", [](World &w) { return zov_log_create(w("."), "/a"); }, {}, "", inBackground, closeLog},
  });
  // clang-format on
}

TEST(Sweep, Ini) {
  const std::string rest = "\ncd=2\nef=" + std::string(3000, 'v') + "\n";  // of several blocks
  const std::string old = "a.ini=[S]\nab=1" + rest;
  const std::string changed = "a.ini=[S]\nab=new" + rest;
  const auto forget = [](World &) { zov_iniCleanup(); };
  const std::vector<int32_t> fails = {ZOV_INI_NOFILE, ZOV_INI_NOTREPLACED, ZOV_INI_NOMEMORY};
  // clang-format off
  sweep("ini", {
    {"zov_iniGetEx", kKeeps, "/m/" + old, "/m/" + old,
     [](World &w) {
       const int32_t status = zov_iniGetEx("/m/a.ini", "S", "cd", w.room, sizeof w.room, kMem);
       return status != ZOV_OKAY ? status : got(true, strcmp(w.room, "2") == 0);
     }, fails, nullptr, nullptr, forget},
    // A get behind a set answers the new value, or tells that it cannot.
    {"zov_iniSet zov_iniGet", kLate, old, changed,
     [](World &w) {
       zov_iniGet(w("a.ini"), "S", "ab", w.room, sizeof w.room);
       const int32_t status = zov_iniSet(w("a.ini"), "S", "ab", "new");
       const int32_t read = status != ZOV_OKAY ? status : zov_iniGet(w("a.ini"), "S", "ab", w.room, sizeof w.room);
       return status != ZOV_OKAY || read != ZOV_OKAY ? status : got(true, strcmp(w.room, "new") == 0);
     }, fails, nullptr, nullptr, forget},
    {"zov_iniSetW", kLate, old, old + "\n[T]\nef=3\n", [](World &w) { return zov_iniSetW(w.wide("a.ini"), L"T", L"ef", L"3"); }, fails,
     nullptr, nullptr, forget},
    {"zov_iniSetEx", kKeeps, "/m/" + old, "/m/" + changed,
     [](World &) { return zov_iniSetEx("/m/a.ini", "S", "ab", "new", kMem); }, fails, nullptr, nullptr, forget},
  });
  // clang-format on
}

TEST(Sweep, Wire) {
  // clang-format off
  sweep("wire", {
    // A string of more bytes than memory is taken for at once.
    {"zov_inputBuffCreate zov_inputBuffGetString", kJumps, "", "",
     [](World &w) {
       const ZOV_BUFF_READ read = [](void *world, void *to, uint32_t room, uint32_t *taken) {
         const bool isFirst = static_cast<World *>(world)->size++ == 0;
         *taken = isFirst ? 4 : room;
         isFirst ? memcpy(to, "\0\3\xd", 4) : memset(to, 'x', room);
         return int32_t{0};
       };
       w.input = reinterpret_cast<ZOV_INPUTBUFF>(&w);
       int32_t status = zov_inputBuffCreate(read, nullptr, &w, 1, &w.input);
       status = status != 0 ? status : zov_inputBuffGetString(w.input, &w.text);
       return status != 0 ? status : got(true, strlen(w.text) == 0x30d00);
     }, {ZOV_BUFF_NOMEMORY}},
    {"zov_outputBuffCreate", kJumps, "", "",
     [](World &w) {
       w.output = reinterpret_cast<ZOV_OUTPUTBUFF>(&w);
       return zov_outputBuffCreate([](void *, const void *, uint32_t) { return int32_t{0}; }, &w, 1, &w.output);
     }, {ZOV_BUFF_NOMEMORY}},
    // A hundred open brackets make the stacks grow.
    {"zov_yyparse", kJumps | kKeeps, "", "",
     [](World &w) {
       ZOV_PARSE_CONTEXT context{};
       context.valueSize = 4;
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
     }, {ZOV_NOMEMORY}, nullptr, [](World &w) { w.tag = zov_createTagEx(nullptr, 0, ZOV_HERE); }},
  });
  // clang-format on
}

}  // namespace

}  // namespace zovtest
