// SPDX-License-Identifier: Apache-2.0
//
// The table of the two modes in docs/files.md, which is what the calls do: each
// is made without a mode and under either, on a directory made anew, and is
// allowed when its result and what is left are the same, skipped when its
// result is, and refused otherwise. The guide's table is compared with that
// word for word.
#include <map>

#include "support/faults.h"
#include "support/guide.h"
#include "support/route_file.h"

namespace {

// What every call finds: files, directories, and what was opened before the mode.
struct Ground {
  explicit Ground(void (*mode)()) {
    EXPECT_EQ(zov_init() + chdir(dir.path().c_str()), 0);
    setenv("TMPDIR", dir.path().c_str(), 1);
    std::filesystem::create_directories("full/sub");
    std::filesystem::create_directory("empty");
    for (const char *name :
         {"file", "other", "held", "native", "full/inner", "old.ini", "new.ini"}) {
      zovtest::writeFile(name, "[s]\nname=1\n");
    }
    EXPECT_TRUE(zovtest::putFile("/file", "text", ZOV_FILE_MEMORY));
    handle = zov_fileOpen("held", O_RDWR, 0);
    EXPECT_EQ(zov_flOpen("native", O_RDWR, 0, &descriptor), 0);
    reader = zov_fopen("file", "r", 0);
    writer = zov_fopen("written", "w", 0);
    walk = zov_pathOpen("full", "inner");
    EXPECT_EQ(zov_log_open("log") + zov_stdout_open("out") + zov_stderr_open("err"), ZOV_OKAY);
    EXPECT_EQ(zov_fputs("taken", writer) + zov_printf("taken") + zov_printfErr("taken"), 15);
    EXPECT_EQ(get("old.ini"), ZOV_OKAY);
    mode();
    syncs.emplace(zovtest::Call::fsync);
  }
  // Whatever a call has opened goes, too.
  ~Ground() {
    zov_readonly = zov_diskless = 0;
    zov_fileUnlock(handle);
    zov_pathClose(walk);
    zov_term();
    close_range(3, ~0u, 0);
    unsetenv("TMPDIR");
  }
  int32_t get(const char *path) { return zov_iniGet(path, "s", "name", bytes, sizeof bytes); }
  // Names with sizes, the syncs since the mode, and a setting.
  std::string left() {
    std::map<std::string, uint64_t> sizes;
    for (const auto &each : std::filesystem::recursive_directory_iterator(".")) {
      sizes[each.path()] = each.is_regular_file() ? each.file_size() : 0;
    }
    sizes["syncs"] = syncs->uses();
    sizes[get("old.ini") == ZOV_OKAY ? bytes : "no setting"] = 0;
    return testing::PrintToString(sizes);
  }

  const zovtest::TempDir dir;
  ZOV_FILE handle;
  uint64_t descriptor;
  ZOV_STREAM reader;
  ZOV_STREAM writer;
  ZOV_PATH_WALK walk;
  ZOV_FILE_STACK stack = {};
  ZOV_FILE_STACK_NODE node = {};
  int32_t number = 0;
  char bytes[32] = "";
  wchar_t wide[32] = L"";
  std::optional<zovtest::Fault> syncs;
};

template <typename Result>
std::string text(Result result) {
  if constexpr (std::is_same_v<Result, ZOV_PATH_WALK>) {
    zov_pathClose(result);
  } else if constexpr (std::is_same_v<Result, ZOV_DISK_WALK>) {
    zov_flPathClose(result);
  } else if constexpr (!std::is_pointer_v<Result>) {
    return std::to_string(result);
  }
  if constexpr (std::is_pointer_v<Result>) {
    return result != nullptr ? "made"
           : errno == 0      ? "null"
                             : std::string("null, ") + strerrorname_np(errno);
  }
}

#define CALL(...) [](Ground &on) { return static_cast<void>(on), errno = 0, text((__VA_ARGS__)); }
#define FORMS(name, from, to)                                                          \
  CALL(name(from, to)), CALL(name##Ex(from, 0, to, 0)), CALL(name##W(L##from, L##to)), \
      CALL(name##ExW(L##from, 0, L##to, 0))

// clang-format off
const struct {
  const char *what;
  std::vector<std::string (*)(Ground &)> calls;
} kRows[] = {
    {"`zov_fileOpen` to read", {CALL(zov_fileOpen("file", 0, 0)), CALL(zov_fileOpenW(L"file", 0, 0))}},
    {"`zov_fileOpen` to write, create or cut",
     {CALL(zov_fileOpen("file", O_WRONLY, 0)), CALL(zov_fileOpen("file", O_RDWR, 0)),
      CALL(zov_fileOpen("new", O_CREAT, 0)), CALL(zov_fileOpenW(L"file", O_TRUNC, 0))}},
    {"on a handle opened before: `zov_fileRead`, `zov_fileSeekRead`, `zov_fileSeek`, "
     "`zov_fileLength`, `zov_fileLock`, `zov_fileUnlock`, `zov_fileClose`",
     {CALL(zov_fileRead(on.handle, on.bytes, 4)), CALL(zov_fileSeekRead(on.handle, 1, on.bytes, 4)),
      CALL(zov_fileSeek(on.handle, 1, 0)), CALL(zov_fileLength(on.handle)), CALL(zov_fileLock(on.handle))}},
    {"on such a handle: `zov_fileWrite`, `zov_fileSeekWrite`",
     {CALL(zov_fileWrite(on.handle, "longer than it was", 18)), CALL(zov_fileSeekWrite(on.handle, 99, "x", 1))}},
    {"on such a handle: `zov_fileSetSize`", {CALL(zov_fileSetSize(on.handle, 2))}},
    {"on such a handle: `zov_fileSync`", {CALL(zov_fileSync(on.handle))}},
    {"`zov_fileLengthStat`, `zov_pathIsLink`", {CALL(zov_fileLengthStat("file", 0)), CALL(zov_pathIsLink("file"))}},
    {"`zov_fileModTimeStat`", {CALL(std::min<int64_t>(zov_fileModTimeStat("file", 0), 1))}},
    {"`zov_fileCopy` to disk", {FORMS(zov_fileCopy, "file", "new")}},
    {"`zov_fileCopy` from disk into memory", {CALL(zov_fileCopyEx("file", 0, "/f", ZOV_FILE_MEMORY))}},
    {"`zov_fileCmp`", {FORMS(zov_fileCmp, "file", "other")}},
    {"`zov_fileMove` to disk", {FORMS(zov_fileMove, "file", "new")}},
    {"`zov_fileMove` from disk into memory", {CALL(zov_fileMoveEx("file", 0, "/f", ZOV_FILE_MEMORY))}},
    {"`zov_fileRename`", {FORMS(zov_fileRename, "file", "new")}},
    {"`zov_fileRemove`", {CALL(zov_fileRemove("file")), CALL(zov_fileRemoveW(L"file")), CALL(zov_fileRemoveExW(L"file", 0))}},
    {"`zov_fileValidate`", {CALL(zov_fileValidate("file", nullptr)), CALL(zov_fileValidateExW(L"file", 0, &on.number))}},
    {"`zov_dirCreate`, `zov_dirCreateAll`, `zov_dirRemove`",
     {CALL(zov_dirCreate("new")), CALL(zov_dirCreateW(L"new")), CALL(zov_dirCreateAll("new/er")),
      CALL(zov_dirCreateAllW(L"new/er")), CALL(zov_dirRemove("empty")), CALL(zov_dirRemoveW(L"empty"))}},
    {"`zov_dirMove`", {FORMS(zov_dirMove, "full", "new")}},
    {"`zov_pathOpen`", {CALL(zov_pathOpen(".", "*")), CALL(zov_pathOpenExW(L".", 0, L"*"))}},
    {"on a walk begun before: `zov_pathNext`, `zov_pathNextW`, `zov_pathClose`",
     {CALL(zov_pathNext(on.walk, &on.number)), CALL(zov_pathNextW(on.walk, &on.number))}},
    {"`zov_currdir`, `zov_fullpath`: other than `/`", {CALL(strlen(zov_currdir()) > 1), CALL(strlen(zov_fullpath("")) > 1)}},
    {"`zov_dirWritable`", {CALL(zov_dirWritable("."))}},
    {"if it was not looked for before: `zov_findOStmpdir`, `zov_osTmpdir`, `zov_tmpdir`, and a directory in `zov_fileCreateTmpName`",
     {CALL(zov_findOStmpdir()), CALL(zov_osTmpdir()), CALL(zov_tmpdir(0)),
      CALL(strchr(zov_fileCreateTmpName(reinterpret_cast<uint32_t *>(&on.number), nullptr, nullptr, 0), '/'))}},
    {"`zov_fopen` with `r`", {CALL(zov_fopen("file", "r", 0)), CALL(zov_fopenEx("file", nullptr, 0, 0))}},
    {"`zov_fopen` with `w`, `a`, `r+`", {CALL(zov_fopen("file", "w", 0)), CALL(zov_fopen("file", "a", 0)), CALL(zov_fopen("file", "r+", 0))}},
    {"on a stream opened before: `zov_fgetc`, `zov_fungetc`, `zov_fgets`, `zov_fGetLine`, `zov_fseek`",
     {CALL(zov_fgetc(on.reader)), CALL(zov_fgets(on.bytes, 9, on.reader))}},
    {"on such a stream: `zov_fputc`, `zov_fputs`, `zov_fprintf`, `zov_vfprintf`",
     {CALL(zov_fputc('x', on.writer) + zov_fflush(on.writer)), CALL(zov_fputs(std::string(3000, 'x').c_str(), on.writer)),
      CALL(zov_fprintf(on.writer, "%3000d", 1))}},
    {"bytes that such a stream had taken before, at `zov_fflush` and `zov_fclose`",
     {CALL(zov_fflush(on.writer)), CALL(zov_fclose(on.writer), 0)}},
    {"a standard stream: `zov_fileOpen`, `zov_fopen_std`", {CALL(zov_fileOpen("stdout", O_WRONLY | O_CREAT, 0)), CALL(zov_fopen_std("stdin")),
      CALL(zov_fileWrite(zov_fileOpen("stderr", O_RDWR, 0), "\n", 1))}},
    {"`zov_stdout_open`, `zov_stderr_open`, `zov_log_open`, `zov_fileStackOpen`, `zov_getFileInfo`",
     {CALL(zov_stdout_open("new")), CALL(zov_stderr_open("new")), CALL(zov_log_open("new")),
      CALL(zov_fileStackOpen(&on.stack, "new")), CALL(zov_getFileInfo(&on.stack, "new", &on.node))}},
    {"`zov_log_create`", {CALL(zov_log_create("./", "new"))}},
    {"into a log opened before: `zov_log`, `zov_log_err`, `zov_log_chunk_end`, `zov_log_flush`",
     {CALL(zov_log("%d\n", 1)), CALL(zov_log_err("%d\n", 1)), CALL(zov_log_chunk_end(zov_log_chunk_init(), "%d\n", 1), 0)}},
    {"into a redirection opened before: `zov_printf`, `zov_printfErr`", {CALL(zov_printf("%3000d", 1)), CALL(zov_printfErr("%3000d", 1))}},
    {"text that such a one had taken before, at `zov_flush`, `zov_flushErr`, `zov_stdout_close`, `zov_stderr_close`",
     {CALL(zov_flush(), 0), CALL(zov_flushErr(), 0), CALL(zov_stdout_close(), 0), CALL(zov_stderr_close(), 0)}},
    {"of an INI file read before: `zov_iniGet`, `zov_iniString`, `zov_iniInt32`",
     {CALL(on.get("old.ini")), CALL(zov_iniInt32("old.ini", "s", "name", &on.number)), CALL(zov_iniGetW(L"old.ini", L"s", L"name", on.wide, 32))}},
    {"of another INI file: the same",
     {CALL(on.get("new.ini")), CALL(zov_iniInt32("new.ini", "s", "name", &on.number)), CALL(zov_iniStringW(L"new.ini", L"s", L"name", on.wide, 32))}},
    {"`zov_readIniFile` of one that has changed", {CALL(zovtest::writeFile("old.ini", "[s]\nname=2\n"), zov_readIniFile("old.ini"))}},
    {"`zov_iniSet`", {CALL(zov_iniSet("old.ini", "s", "name", "3")), CALL(zov_iniSetW(L"old.ini", L"s", L"name", L"3"))}},
    {"any call on a file in memory",
     {CALL(zovtest::putFile("/new", "text", ZOV_FILE_MEMORY)), CALL(zov_fileMoveEx("/file", ZOV_FILE_MEMORY, "/new", ZOV_FILE_MEMORY))}},
    {"the `zov_fl` functions of the layer beneath",
     {CALL(zov_flClose(on.descriptor), zov_flOpen("new", O_RDWR | O_CREAT, 0, &on.descriptor)), CALL(zov_flWrite(on.descriptor, "longer than it was", 18)),
      CALL(zov_flSeekWrite(on.descriptor, 99, "x", 1)), CALL(zov_flSetSize(on.descriptor, 2)), CALL(zov_flSync(on.descriptor)),
      CALL(zov_flRename("file", "new")), CALL(zov_flRemove("file")), CALL(zov_flValidate("file", nullptr)), CALL(zov_flPathOpen(".", "*"))}},
};
// clang-format on

// What becomes of calls under a mode.
std::string outcomes(const std::vector<std::string (*)(Ground &)> &calls, void (*mode)()) {
  std::string all;
  for (const auto call : calls) {
    std::string results[2], before[2], left[2];
    for (const int round : {0, 1}) {
      Ground ground(round == 0 ? [] {} : mode);
      before[round] = ground.left();
      results[round] = call(ground);
      left[round] = ground.left();
    }
    const bool isRefused = results[0] != results[1];
    EXPECT_TRUE(!isRefused || left[1] == before[1]) << "refused, and not without a trace";
    const std::string each = isRefused            ? "refused: " + results[1]
                             : left[0] == left[1] ? "allowed"
                                                  : "skipped";
    all += all.find(each) == all.npos ? (all.empty() ? "" : "; ") + each : "";
  }
  return all;
}

TEST(Modes, AreAsTheGuideSays) {
  zovtest::leavesThings = true;  // a lock that was asked for stays taken
  zov_background = 1;            // the console is not the log
  std::string table = "| call | read-only | diskless |\n|---|---|---|\n";
  for (const auto &row : kRows) {
    table += std::string("| ") + row.what + " | " + outcomes(row.calls, zov_rdonly) + " | " +
             outcomes(row.calls, zov_nodisk) + " |\n";
  }
  zovtest::expectTable("files.md", "Modes", table);
}

}  // namespace
