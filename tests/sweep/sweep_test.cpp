// SPDX-License-Identifier: Apache-2.0
//
// The operations that are swept, family by family. tests/sweep/may_jump.py reads
// the first two columns and holds them against what zov.h says.
#include "sweep/sweep.h"

#include <fcntl.h>

#include "support/route_file.h"

namespace zovtest {

namespace {

const std::vector<int32_t> error = {ZOV_ERROR};
const std::vector<int32_t> none = {};

// The state of a file of several blocks.
std::string ofBlocks(const std::string &name) {
  return name + "=" + std::string(2500, 'x');
}

TEST(Sweep, Core) {
  const auto freeBlock = [](World &w) { zov_freeMem(w.made, ZOV_DEFAULT_TAG), w.made = nullptr; };
  const auto freePool = [](World &w) {
    ZOV_POOL pool = static_cast<ZOV_POOL>(w.made);
    zov_zFreePool(&pool);
    w.made = nullptr;
  };
  // clang-format off
  sweep("core", {
    {"zov_init", kUnstarted, nothing, [](World &) { return zov_init(); }, error, "", "",
     [](World &) { zov_inited > 0 ? zov_term() : void(); }},
    {"zov_createTagEx", 0, nothing,
     [](World &w) {
       w.tag = zov_createTagEx(nullptr, ZOV_TAG_THREADSAFE, ZOV_HERE);
       return got(w.tag != ZOV_NO_TAG);
     }, error, "", "", [](World &w) { zov_freeTagMemory(w.tag, 1), w.tag = 0; }},
    {"zov_getMem", kJumps, nothing,
     [](World &w) {
       w.made = zov_getMem(0, 0, ZOV_MEM_STRDUP, "text", ZOV_HERE);
       return got(w.made != nullptr, w.made != nullptr && strcmp(static_cast<char *>(w.made), "text") == 0);
     }, error, "", "", freeBlock},
    {"zov_extendMem zov_getMem", kJumps, nothing,
     [](World &w) {
       w.made = w.made != nullptr ? w.made : zov_getMem(0, 0, ZOV_MEM_STRDUP, "text", ZOV_HERE);
       void *longer = w.made == nullptr ? nullptr : zov_extendMem(w.made, 9000, 0, 0, 0, ZOV_HERE);
       w.made = longer != nullptr ? longer : w.made;
       return got(longer != nullptr, longer != nullptr && memcmp(longer, "text", 5) == 0);
     }, error, "", "", freeBlock},
    {"zov_allocPool zov_getMemFromPool", kJumps, nothing,
     [](World &w) {
       ZOV_POOL pool = zov_allocPool(0, 0, 1);
       w.made = pool;
       void *chunk = pool == nullptr ? nullptr : zov_getMemFromPool(9, pool, ZOV_MEM_ZERO, nullptr, ZOV_HERE);
       chunk != nullptr ? zov_putInPool(chunk, pool) : void();
       return got(chunk != nullptr);
     }, error, "", "", freePool},
    {"zov_syncCreate_check", 0, nothing,
     [](World &w) {
       w.handle = zov_syncCreate_check(ZOV_SYNC_MUTEX, ZOV_HERE);
       w.handle2 = zov_syncCreate_check(ZOV_SYNC_EVENT, ZOV_HERE);
       return got(w.handle != ZOV_NO_SYNC && w.handle2 != ZOV_NO_SYNC);
     }, error, "", "", [](World &w) { zov_syncDelete(w.handle), zov_syncDelete(w.handle2); }},
    {"zov_threadBeginEx", 0, nothing,
     [](World &) {
       std::atomic<bool> ran{false};
       ZOV_THREAD thread;
       const auto run = [](void *flag) { static_cast<std::atomic<bool> *>(flag)->store(true); return flag; };
       const int32_t status = zov_threadBeginEx(run, 1 << 16, &ran, &thread);
       while (status == ZOV_OKAY && !ran) {
         std::this_thread::yield();
       }
       return status;
     }, error, "", ""},
    {"zov_queueInit zov_queueCreate zov_queueWrite zov_queueRead", 0, nothing,
     [](World &w) {
       if (zov_queueInit(0) != ZOV_OKAY) {
         return ZOV_ERROR + 0;
       }
       ZOV_QUEUE queue = zov_queueCreate("swept");
       w.made = queue;
       uint64_t data = 0;
       if (queue == nullptr) {
         return ZOV_ERROR + 0;
       }
       for (uint64_t number = 1; number <= 3; ++number) {
         errno = 0;
         zov_queueWrite(queue, number, 0, 0, 0);
         if (zov_queueCount(queue) != 1) {
           return errno == ENOMEM ? ZOV_ERROR : kWrong;
         }
         if (zov_queueRead(queue, &data, nullptr, nullptr, 0) != ZOV_OKAY || data != number) {
           return kWrong;
         }
       }
       return ZOV_OKAY + 0;
     }, error, "", "",
     [](World &w) { zov_queueDelete(static_cast<ZOV_QUEUE>(w.made)), w.made = nullptr, zov_queueTerm(1); }},
    {"zov_randCreate", kJumps, nothing,
     [](World &w) {
       ZOV_RAND made = zov_randCreate(1);
       w.made = made;
       return got(made != nullptr);
     }, error, "", "", [](World &w) { zov_randDestroy(static_cast<ZOV_RAND>(w.made)), w.made = nullptr; }},
  });
  // clang-format on
}

TEST(Sweep, Strings) {
  ASSERT_EQ(setenv("QEL_TMPDIR", "/kept", 1), 0);
  // clang-format off
  sweep("strings", {
    {"zov_makeStrVA zov_makeStrV", kJumps, nothing,
     [](World &w) { w.text = zov_makeStrVA(ZOV_HERE, 0, "%d %500s", 7, "x"); return gotText(w, "7 " + std::string(499, ' ') + "x"); },
     error, "", "", putAwayText},
    {"zov_convertArgvToUTF8", kJumps, nothing,
     [](World &w) {
       static wchar_t one[] = L"\u00E9", two[] = L"two";
       wchar_t *const wide[] = {one, two};
       char **strings = nullptr;
       const int32_t status = zov_convertArgvToUTF8(2, wide, &strings);
       w.made = strings;
       return got(status == ZOV_OKAY, strings != nullptr && strcmp(strings[0], "\u00E9") == 0);
     }, error, "", "",
     [](World &w) {
       char **strings = static_cast<char **>(w.made);
       for (int at = 0; strings != nullptr && at < 2; ++at) {
         zov_freeMem(strings[at], 0);
       }
       zov_freeMem(strings, 0);
       w.made = nullptr;
     }},
    {"zov_convertToUTF8", kJumps, nothing,
     [](World &w) { w.text = zov_convertToUTF8(L"\u00E9t\u00E9", ZOV_UTF8_STRICT); return gotText(w, "\u00E9t\u00E9"); },
     error, "", "", putAwayText},
    {"zov_convertToWchar", kJumps, nothing,
     [](World &w) {
       w.wideText = zov_convertToWchar("\u00E9t\u00E9", ZOV_UTF8_STRICT);
       return got(w.wideText != nullptr, w.wideText == nullptr || wcscmp(w.wideText, L"\u00E9t\u00E9") == 0);
     }, error, "", "", putAwayText},
    {"zov_fullpath", kJumps, nothing, [](World &w) { w.text = zov_fullpath("c"); return gotText(w, (std::filesystem::current_path() / "c/").string()); }, error, "",
     "", putAwayText},
    {"zov_currdir", kJumps, nothing,
     [](World &w) { w.text = zov_currdir(); return got(w.text != nullptr, w.text != nullptr && w.text[0] == '/'); },
     error, "", "", putAwayText},
    {"zov_pathSplit", kJumps, nothing,
     [](World &w) {
       char *name = nullptr;
       zov_pathSplit("/dir/name", &w.text, &name);
       const int32_t status = got(w.text != nullptr && name != nullptr);
       zov_freeMem(name, 0);
       return status;
     }, error, "", "", putAwayText},
    {"zov_fileCreateTmpName", kJumps, nothing,
     [](World &w) {
       w.text = zov_fileCreateTmpName(&w.size, "swept", "end", ZOV_DEFAULT_TAG);
       return got(w.text != nullptr, w.text != nullptr && strstr(w.text, "/kept/swept") == w.text);
     }, error, "", "", putAwayText},
    {"zov_tmpdir", kJumps, nothing, [](World &w) { w.text = zov_tmpdir(ZOV_DEFAULT_TAG); return gotText(w, "/kept"); }, error, "", "",
     putAwayText},
    {"zov_findOStmpdir", kJumps | kLitters, [](World &w) { setenv("TMPDIR", w("."), 1); },
     [](World &w) { w.text = zov_findOStmpdir(); return got(w.text != nullptr); }, error, "", "",
     [](World &w) { putAwayText(w), unsetenv("TMPDIR"); }},
    {"zov_osTmpdir", kKeeps | kLitters, [](World &w) { setenv("TMPDIR", w("."), 1); },
     [](World &) { return got(zov_osTmpdir() != nullptr); }, error, "", "", [](World &) { unsetenv("TMPDIR"); }},
    {"zov_dirWritable", kLitters, nothing, [](World &w) { return got(zov_dirWritable(w(".")) == 1); }, error, "", ""},
    {"zov_getenvW", kJumps, nothing,
     [](World &w) { w.wideText = zov_getenvW(L"QEL_TMPDIR"); return got(w.wideText != nullptr); }, error, "", "",
     putAwayText},
    {"zov_setlocaleW", kJumps, nothing,
     [](World &w) { w.wideText = zov_setlocaleW(0, L"C"); return got(w.wideText != nullptr); }, error, "", "", putAwayText},
  });
  // clang-format on
}

TEST(Sweep, Disk) {
  const auto putA = [](World &w) { w.put("a", "one"); };
  const auto putBoth = [](World &w) { w.put("a", "one"), w.put("b", "and two"); };
  const auto putDir = [](World &w) { w.put("d", "/"), w.put("d/a", "one"), w.put("d/b", "two"); };
  const auto closeFile = [](World &w) {
    w.made != nullptr ? zov_fileClose(static_cast<ZOV_FILE>(w.made)) : void();
    w.made = nullptr;
  };
  const auto endWalk = [](World &w) {
    zov_pathClose(static_cast<ZOV_PATH_WALK>(w.made)), w.made = nullptr;
  };
  const std::string twoOfBlocks = ofBlocks("a") + " " + ofBlocks("b");
  // clang-format off
  sweep("disk", {
    {"zov_fileOpen zov_fileSeekWrite zov_fileSeekRead zov_fileSync zov_fileLock zov_fileUnlock zov_fileLength", kInPlace,
     putA,
     [](World &w) {
       ZOV_FILE file = zov_fileOpen(w("a"), O_RDWR, 0);
       w.made = file;
       char back[4] = "";
       if (file == nullptr || zov_fileLock(file) != ZOV_OKAY) {
         return ZOV_ERROR + 0;
       }
       const bool written = zov_fileSeekWrite(file, 3, "two", 3) == 3 && zov_fileSeekRead(file, 3, back, 3) == 3 &&
                            zov_fileSync(file) == ZOV_OKAY && zov_fileLength(file) == 6;
       zov_fileUnlock(file);
       return got(written, strcmp(back, "two") == 0);
     }, error, "a=one", "a=onetwo", closeFile},
    {"zov_fileOpen zov_fileWrite zov_fileSetSize zov_fileRead zov_fileSeek", kInPlace, [](World &w) { w.put("a", ""); },
     [](World &w) {
       ZOV_FILE file = zov_fileOpen(w("a"), O_RDWR, ZOV_FILE_NOSYNC);
       w.made = file;
       char back[4] = "";
       return got(file != nullptr && zov_fileWrite(file, "three", 5) == 5 && zov_fileSetSize(file, 3) == 0 &&
                  zov_fileSeek(file, 0, SEEK_SET) == 0 && zov_fileRead(file, back, 3) == 3 && strcmp(back, "thr") == 0);
     }, error, "a=", "a=thr", closeFile},
    {"zov_fileOpenW", kJumps, nothing,
     [](World &w) {
       w.made = zov_fileOpenW(w.wide("a"), O_RDWR | O_CREAT, 0);
       return got(w.made != nullptr);
     }, error, "", "a=", closeFile},
    {"zov_fileRemove", 0, putA, [](World &w) { return zov_fileRemove(w("a")); }, {-1}, "a=one", ""},
    {"zov_fileRemoveW", 0, putA, [](World &w) { return zov_fileRemoveW(w.wide("a")); }, {-1, ZOV_ERROR}, "a=one", ""},
    {"zov_fileRename", 0, putA, [](World &w) { return zov_fileRename(w("a"), w("b")); }, {-1}, "a=one", "b=one"},
    {"zov_fileRenameExW", 0, putA, [](World &w) { return zov_fileRenameExW(w.wide("a"), 0, w.wide("b"), 0); },
     {-1, ZOV_ERROR}, "a=one", "b=one"},
    {"zov_fileCopy", kInPlace, putA, [](World &w) { return zov_fileCopy(w("a"), w("b")); }, {ZOV_ERROR, -1}, "a=one", "a=one b=one"},
    {"zov_fileCopyW zov_fileCmpW zov_fileRenameW zov_fileMoveW zov_fileRemoveExW zov_fileCmpExW", kLitters, putA,
     [](World &w) {
       const wchar_t *const a = w.wide("a");
       const wchar_t *const b = w.wide("b");
       int32_t status = zov_fileCopyW(a, b);
       status = status != ZOV_OKAY ? status : zov_fileCmpW(a, b) | zov_fileCmpExW(a, 0, b, 0) | zov_fileMoveW(a, w.wide("c"));
       return status != ZOV_OKAY ? ZOV_ERROR : got((zov_fileRenameW(w.wide("c"), a) | zov_fileRemoveExW(b, 0)) == 0);
     }, error, "a=one", "a=one", [](World &w) { w.put("a", "one"), zov_fileRemove(w("b")), zov_fileRemove(w("c")); }},
    {"zov_fileCopyExW", kInPlace, putA, [](World &w) { return zov_fileCopyExW(w.wide("a"), 0, w.wide("b"), 0); },
     {ZOV_ERROR, -1}, "a=one", "a=one b=one"},
    {"zov_fileCmp", 0, [](World &w) { w.put("a", std::string(2500, 'x')), w.put("b", std::string(2500, 'x')); },
     [](World &w) { return zov_fileCmp(w("a"), w("b")); }, {ZOV_ERROR, ZOV_NOFILE, ZOV_NOFILE2, ZOV_NOMEMORY},
     twoOfBlocks, twoOfBlocks},
    {"zov_fileValidateW", 0, putA, [](World &w) { return got(zov_fileValidateW(w.wide("a"), nullptr) == 1); }, error,
     "a=one", "a=one"},
    {"zov_fileLengthStat zov_fileModTimeStat", 0, putA,
     [](World &w) {
       const int64_t length = zov_fileLengthStat(w("a"), 0);
       const int64_t time = zov_fileModTimeStat(w("a"), 0);
       return got(length != -1 && time != -1, length == 3);
     }, error, "a=one", "a=one"},
    {"zov_fileMove", 0, putBoth, [](World &w) { return zov_fileMove(w("a"), w("b")); }, error, "a=one b=and two", "b=one"},
    {"zov_fileMoveExW", 0, putBoth, [](World &w) { return zov_fileMoveExW(w.wide("a"), 0, w.wide("b"), 0); }, error,
     "a=one b=and two", "b=one"},
    {"zov_dirCreateAll", kJumps | kInPlace, nothing, [](World &w) { return zov_dirCreateAll(w("d/e/f")); },
     {ZOV_ERROR, ZOV_NOMEMORY}, "", "d/ d/e/ d/e/f/"},
    {"zov_dirCreateW", kJumps, nothing, [](World &w) { return zov_dirCreateW(w.wide("d")); }, error, "", "d/"},
    {"zov_dirRemoveW", kJumps, [](World &w) { w.put("d", "/"); }, [](World &w) { return zov_dirRemoveW(w.wide("d")); }, error, "d/", ""},
    {"zov_dirMove", kInPlace, putDir, [](World &w) { return zov_dirMove(w("d"), w("e")); }, {ZOV_ERROR, ZOV_NOMEMORY},
     "d/ d/a=one d/b=two", "e/ e/a=one e/b=two"},
    {"zov_pathOpen zov_pathOpenEx zov_pathNext", kJumps, putDir,
     [](World &w) {
       zov_pathClose(zov_pathOpen(w("d"), "*"));
       ZOV_PATH_WALK walk = zov_pathOpenEx(w("d"), 0, "*");
       w.made = walk;
       int32_t isDirectory = 0;
       int names = 0;
       errno = 0;
       while (walk != nullptr && zov_pathNext(walk, &isDirectory) != nullptr) {
         ++names;
       }
       return got(names == 4);
     }, error, "d/ d/a=one d/b=two", "d/ d/a=one d/b=two", endWalk},
    {"zov_flPathOpen zov_flPathNext", kJumps, putDir,
     [](World &w) {
       ZOV_DISK_WALK walk = zov_flPathOpen(w("d"), "a");
       w.made = walk;
       int32_t isDirectory = 0;
       return got(walk != nullptr && zov_flPathNext(walk, &isDirectory) != nullptr);
     }, error, "d/ d/a=one d/b=two", "d/ d/a=one d/b=two",
     [](World &w) { zov_flPathClose(static_cast<ZOV_DISK_WALK>(w.made)), w.made = nullptr; }},
    {"zov_pathOpenExW zov_pathOpenW zov_pathNextW", 0, putDir,
     [](World &w) {
       ZOV_PATH_WALK walk = w.made == nullptr ? zov_pathOpenW(w.wide("d"), L"a") : zov_pathOpenExW(w.wide("d"), 0, L"a");
       w.made = walk;
       int32_t isDirectory = 0;
       return got(walk != nullptr && zov_pathNextW(walk, &isDirectory) != nullptr);
     }, error, "d/ d/a=one d/b=two", "d/ d/a=one d/b=two", endWalk},
  });
  // clang-format on
}

const std::string manySegments(100 * 4096, 'd');

// A directory on disk with a file, and files on another file system.
TEST(Sweep, Across) {
  const auto putBoth = [](World &w) { w.put("a", "one"), w.put("o/b", "and two"); };
  const auto putDir = [](World &w) { w.put("d", "/"), w.put("d/a", "one"), w.put("d/b", "two"); };
  static const std::string twoOfBlocks = ofBlocks("a") + " " + ofBlocks("o/b");
  // clang-format off
  sweep("across", {
    {"zov_fileMove", 0, putBoth, [](World &w) { return zov_fileMove(w("a"), w("o/b")); }, error, "a=one o/b=and two", "o/b=one", nullptr,
     "a=one o/b=one"},
    {"zov_fileMoveEx", 0, [](World &w) { w.put("a", std::string(2500, 'x')); },
     [](World &w) { return zov_fileMoveEx(w("a"), 0, w("o/b"), ZOV_FILE_NOSYNC); }, error,
     ofBlocks("a"), ofBlocks("o/b"), nullptr, twoOfBlocks.c_str()},
    {"zov_dirMove", kByFile, putDir, [](World &w) { return zov_dirMove(w("d"), w("o/e/f")); },
     {ZOV_ERROR, ZOV_NOMEMORY}, "d/ d/a=one d/b=two", "o/e/ o/e/f/ o/e/f/a=one o/e/f/b=two"},
    {"zov_fileMoveEx", kKeeps, [](World &w) { w.put("a", "one"), w.put("/m/b", "and two"); },
     [](World &w) { return zov_fileMoveEx(w("a"), 0, "/m/b", kMem); }, error, "/m/b=and two a=one", "/m/b=one", nullptr,
     "/m/b=one a=one"},
    {"zov_fileMoveEx", kKeeps, [](World &w) { w.put("b", "and two"), w.put("/m/a", "one"); },
     [](World &w) { return zov_fileMoveEx("/m/a", kMem, w("b"), 0); }, error, "/m/a=one b=and two", "b=one", nullptr,
     "/m/a=one b=one"},
    {"zov_fileCopyEx", kKeeps | kInPlace, [](World &w) { w.put("a", "one"), w.put("/m/z", ""); },
     [](World &w) { return zov_fileCopyEx("/m/z", kMem, w("b"), 0); }, {ZOV_ERROR, -1}, "/m/z= a=one", "/m/z= a=one b="},
  });
  // clang-format on
}

// A directory in memory with a name less than its tree has to be split for.
const std::string fullNames = [] {
  std::string names;
  for (int number = 10; number < 80; ++number) {
    names += " /m/f" + std::to_string(number) + "=";
  }
  return names;
}();
const std::string longName = "/m/g" + std::string(60, 'n');

void putFull(World &w) {
  w.put("/m/a", "one");
  for (int number = 10; number < 80; ++number) {
    w.put(("/m/f" + std::to_string(number)).c_str(), "");
  }
}

TEST(Sweep, Memory) {
  const auto putA = [](World &w) { w.put("/m/a", "one"); };
  const auto putBoth = [](World &w) { w.put("/m/a", "one"), w.put("/m/b", "and two"); };
  const auto closeFile = [](World &w) {
    zov_mfClose(static_cast<ZOV_MFILE>(w.made)), w.made = nullptr;
  };
  // clang-format off
  sweep("memory", {
    {"zov_mfOpen zov_mfWrite zov_mfSeekRead zov_mfLock zov_mfUnlock zov_mfSize", kKeeps | kInPlace, putA,
     [](World &w) {
       ZOV_MFILE file = zov_mfOpen("/m/b", O_CREAT | O_TRUNC);
       w.made = file;
       char back[4] = "";
       if (file == nullptr || zov_mfLock(file) != ZOV_OKAY) {
         return ZOV_ERROR + 0;
       }
       const bool written = zov_mfWrite(file, "two", 3) == 3 && zov_mfSeekRead(file, 0, back, 3) == 3 && zov_mfSize(file) == 3;
       zov_mfUnlock(file);
       return got(written, strcmp(back, "two") == 0);
     }, error, "/m/a=one", "/m/a=one /m/b=two", closeFile},
    {"zov_fileOpen zov_fileSeekWrite zov_fileSetSize", kKeeps, [](World &w) { w.put("/m/a", ""); },
     [](World &w) {
       ZOV_FILE file = zov_fileOpen(w("/m/a"), O_RDWR, kMem);
       w.made = file;
       return got(file != nullptr && zov_fileSetSize(file, 40000) == 0 && zov_fileSetSize(file, 0) == 0);
     }, error, "/m/a=", "/m/a=",
     [](World &w) {
       w.made != nullptr ? zov_fileClose(static_cast<ZOV_FILE>(w.made)) : void();
       w.made = nullptr;
     }},
    {"zov_fileRenameEx", kKeeps, putA, [](World &) { return zov_fileRenameEx("/m/a", kMem, "/m/b", kMem); }, error, "/m/a=one",
     "/m/b=one"},
    {"zov_mfRename", kKeeps, putA,
     [](World &) { return zov_mfRename("/m/a", "a name of more than one piece, which is stored in several pieces"); }, error,
     "/m/a=one", "/m/a name of more than one piece, which is stored in several pieces=one"},
    {"zov_mfOpen", kKeeps, putFull,
     [](World &) {
       ZOV_MFILE file = zov_mfOpen(longName.c_str(), O_CREAT);
       zov_mfClose(file);
       return got(file != nullptr);
     }, error, "/m/a=one" + fullNames, "/m/a=one" + fullNames + " " + longName + "="},
    {"zov_fileMoveEx", kKeeps, [](World &w) { putFull(w), putFile("/n/a", "two", kMem); },
     [](World &) { return zov_fileMoveEx("/n/a", kMem, longName.c_str(), kMem); }, error, "/m/a=one" + fullNames,
     "/m/a=one" + fullNames + " " + longName + "=two"},
    {"zov_fileMoveEx", kKeeps | kInPlace, putFull, [](World &) { return zov_fileMoveEx("/m/a", kMem, "/m/n/a", kMem); },
     error, "/m/a=one" + fullNames, fullNames.substr(1) + " /m/n/"},
    {"zov_fileRemoveEx", kKeeps, putBoth, [](World &) { return zov_fileRemoveEx("/m/a", kMem); }, {ZOV_ERROR, -1},
     "/m/a=one /m/b=and two", "/m/b=and two"},
    {"zov_mfRemove", kKeeps, putA, [](World &) { return zov_mfRemove("/m/a"); }, error, "/m/a=one", ""},
    {"zov_fileMoveEx", kKeeps, putBoth, [](World &) { return zov_fileMoveEx("/m/a", kMem, "/m/b", kMem); }, error,
     "/m/a=one /m/b=and two", "/m/b=one"},
    {"zov_fileMoveEx", kKeeps, [](World &w) { w.put("/m/b", "and two"), putFile("/n/a", "one", kMem); },
     [](World &) { return zov_fileMoveEx("/n/a", kMem, "/m/b", kMem); }, error, "/m/b=and two", "/m/b=one"},
    {"zov_fileCopyEx", kKeeps | kInPlace, putA, [](World &) { return zov_fileCopyEx("/m/a", kMem, "/m/b", kMem); },
     {ZOV_ERROR, -1}, "/m/a=one", "/m/a=one /m/b=one"},
    {"zov_fileCmpEx zov_fileValidateEx zov_mfSizeStat zov_mfModTime", kKeeps, [](World &w) { w.put("/m/a", "one"), w.put("/m/b", "one"); },
     [](World &) {
       const int32_t status = zov_fileCmpEx("/m/a", kMem, "/m/b", kMem);
       return status == ZOV_OKAY ? got(zov_fileValidateEx("/m/a", kMem, nullptr) == 1 && zov_mfSizeStat("/m/a") == 3 &&
                                       zov_mfModTime("/m/a") != 0)
                                 : status;
     }, {ZOV_ERROR, ZOV_NOFILE, ZOV_NOFILE2, ZOV_NOMEMORY}, "/m/a=one /m/b=one", "/m/a=one /m/b=one"},
    {"zov_dirMoveEx", kKeeps | kInPlace, [](World &w) { w.put("/m/b", "two"), putFile("/n/a", "one", kMem); },
     [](World &) { return zov_dirMoveEx("/n", kMem, "/m", kMem); }, {ZOV_ERROR, ZOV_NOMEMORY}, "/m/b=two", "/m/a=one /m/b=two"},
    {"zov_mfPathOpen zov_mfPathNext", kKeeps, putBoth,
     [](World &w) {
       ZOV_MEM_WALK walk = zov_mfPathOpen("/m", "*");
       w.made = walk;
       int32_t isDirectory = 0;
       return got(walk != nullptr && zov_mfPathNext(walk, &isDirectory) != nullptr && zov_mfPathNext(walk, &isDirectory) != nullptr);
     }, error, "/m/a=one /m/b=and two", "/m/a=one /m/b=and two",
     [](World &w) { zov_mfPathClose(static_cast<ZOV_MEM_WALK>(w.made)), w.made = nullptr; }},
    // What is told to be written is there, whatever fails behind it.
    {"zov_segOpen zov_segSeekWrite zov_segSetSize zov_segRemove", kKeeps, nothing,
     [](World &) {
       ZOV_SEG file = zov_segOpen(zov_segNextId(), O_CREAT | O_TRUNC);
       if (file == nullptr) {
         return ZOV_ERROR + 0;
       }
       const uint32_t size = static_cast<uint32_t>(manySegments.size());
       const uint32_t written = zov_segSeekWrite(file, 0, manySegments.data(), size);
       const bool cut = zov_segSeekWrite(file, 50u * size, "end", 3) == 3 && zov_segSetSize(file, 80u * size) == ZOV_OKAY;
       std::string back(written, '-');
       zov_segSeekRead(file, 0, back.data(), written);
       const bool right = manySegments.compare(0, written, back) == 0;
       zov_segRemove(file);
       return !right ? kWrong : got(written == size && cut);
     }, error, "", ""},
    // A segment that cannot be opened is not made anew.
    {"zov_segOpen zov_segSeekRead", kKeeps,
     [](World &w) {
       w.handle = zov_segNextId();
       ZOV_SEG file = zov_segOpen(w.handle, O_CREAT);
       zov_segSeekWrite(file, 0, manySegments.data(), 20 * 4096);
       zov_segClose(file);
     },
     [](World &w) {
       ZOV_SEG file = zov_segOpen(w.handle, 0);
       std::string back(20 * 4096, '-');
       const bool all = file != nullptr && zov_segSeekRead(file, 0, back.data(), 20 * 4096) == 20 * 4096;
       file != nullptr ? zov_segClose(file) : void();
       return got(all, manySegments.compare(0, back.size(), back) == 0);
     }, error, "", ""},
    {"zov_shmNextId zov_shmOpenCtx zov_shmCreate zov_shmGetPtr zov_shmReleasePtr zov_shmLock zov_shmUnlock", 0, nothing,
     [](World &w) {
       w.handle = zov_shmNextId();
       ZOV_SHM_CTX context = w.handle == 0 ? nullptr : zov_shmOpenCtx(w.handle, O_CREAT, 64, nullptr);
       if (context == nullptr || zov_shmLock(context) != ZOV_OKAY) {
         return ZOV_ERROR + 0;
       }
       zov_shmUnlock(context);
       ZOV_SHM_REGION region = zov_shmCreate(context, 1, 0, 4096);
       void *place = region == nullptr ? nullptr : zov_shmGetPtr(region);
       place != nullptr ? zov_shmReleasePtr(region, place) : void();
       region != nullptr ? zov_shmClose(region) : void();
       return got(place != nullptr);
     }, error, "", "",
     [](World &w) { w.handle != 0 ? zov_shmRemoveCtx(reinterpret_cast<ZOV_SHM_CTX>(w.handle)) : void(); }},
  });
  // clang-format on
}

}  // namespace

}  // namespace zovtest
