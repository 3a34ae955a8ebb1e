// SPDX-License-Identifier: Apache-2.0
//
// The operations that are swept, family by family. may_jump_test.py reads the first
// two columns and holds them against what zov.h says.
#include "sweep/sweep.h"

#include <fcntl.h>
#include <time.h>

#include "support/route_file.h"

namespace zovtest {

namespace {

TEST(Sweep, Core) {
  // clang-format off
  sweep("core", {
    {"zov_init", kUnstarted, "", "", [](World &) { return zov_init(); }, {}, nullptr, nullptr,
     [](World &) { zov_inited > 0 ? zov_term() : void(); }},
    {"zov_createTagEx", 0, "", "",
     [](World &w) { return got((w.tag = zov_createTagEx(nullptr, ZOV_TAG_THREADSAFE, ZOV_HERE)) != ZOV_NO_TAG); }},
    {"zov_extendMem zov_getMem", kJumps, "", "",
     [](World &w) {
       w.text = static_cast<char *>(zov_getMem(0, 0, ZOV_MEM_STRDUP, "text", ZOV_HERE));
       void *longer = w.text == nullptr ? nullptr : zov_extendMem(w.text, 9000, 0, 0, 0, ZOV_HERE);
       return longer == nullptr ? got(false) : gotText(w, static_cast<char *>(longer), "text");
     }},
    {"zov_allocPool zov_getMemFromPool", kJumps, "", "",
     [](World &w) {
       w.pool = zov_allocPool(0, 0, 1);
       void *chunk = w.pool == nullptr ? nullptr : zov_getMemFromPool(9, w.pool, ZOV_MEM_ZERO, nullptr, ZOV_HERE);
       chunk != nullptr ? zov_putInPool(chunk, w.pool) : void();
       return got(chunk != nullptr);
     }},
    {"zov_threadBeginEx", 0, "", "",
     [](World &) {
       std::atomic<bool> ran{false};
       ZOV_THREAD thread;
       const auto run = [](void *flag) { static_cast<std::atomic<bool> *>(flag)->store(true); return flag; };
       const int32_t status = zov_threadBeginEx(run, 1 << 16, &ran, &thread);
       while (status == ZOV_OKAY && !ran) {
         std::this_thread::yield();
       }
       return status;
     }},
    {"zov_queueInit zov_queueCreate zov_queueWrite zov_queueRead zov_queueDelete", 0, "", "",
     [](World &w) {
       ZOV_QUEUE queue = zov_queueInit(0) == ZOV_OKAY ? zov_queueCreate("swept") : nullptr;
       w.other = queue;
       uint64_t data = 0;
       queue != nullptr ? zov_queueWrite(queue, 7, 0, 0, 0) : void();
       return got(queue != nullptr, queue == nullptr || (zov_queueRead(queue, &data, nullptr, nullptr, 0) == ZOV_OKAY && data == 7));
     }, {}, nullptr, nullptr, [](World &w) { zov_queueDelete(static_cast<ZOV_QUEUE>(w.other)), zov_queueTerm(1); }},
    {"zov_randCreate", kJumps, "", "", [](World &w) { return got((w.other = zov_randCreate(1)) != nullptr); }, {}, nullptr,
     nullptr, [](World &w) { zov_randDestroy(static_cast<ZOV_RAND>(w.other)); }},
  });
  // clang-format on
}

TEST(Sweep, Strings) {
  ASSERT_EQ(setenv("QEL_TMPDIR", "/kept", 1), 0);
  static const std::string padded = "7 " + std::string(499, ' ') + "x";
  static const std::string current = std::filesystem::current_path().string();
  static const std::string inCurrent = current + "/c/";
  const auto probeHere = [](World &w) { setenv("TMPDIR", w("."), 1); };
  const auto probeNoMore = [](World &) { unsetenv("TMPDIR"); };
  // clang-format off
  sweep("strings", {
    {"zov_makeStrVA zov_makeStrV", kJumps, "", "",
     [](World &w) { return gotText(w, zov_makeStrVA(ZOV_HERE, 0, "%d %500s", 7, "x"), padded.c_str()); }},
    {"zov_convertArgvToUTF8", kJumps, "", "",
     [](World &w) {
       static wchar_t one[] = L"\u00E9", two[] = L"two";
       wchar_t *const wide[] = {one, two};
       char **strings = nullptr;
       if (zov_convertArgvToUTF8(2, wide, &strings) != ZOV_OKAY) {
         return got(false);
       }
       char *const first = strings[0];
       zov_freeMem(strings[1], 0), zov_freeMem(strings, 0);
       return gotText(w, first, "\u00E9");
     }},
    {"zov_convertToUTF8", kJumps, "", "",
     [](World &w) { return gotText(w, zov_convertToUTF8(L"\u00E9t\u00E9", ZOV_UTF8_STRICT), "\u00E9t\u00E9"); }},
    {"zov_convertToWchar", kJumps, "", "",
     [](World &w) {
       w.wideText = zov_convertToWchar("\u00E9t\u00E9", ZOV_UTF8_STRICT);
       return got(w.wideText != nullptr, w.wideText == nullptr || wcscmp(w.wideText, L"\u00E9t\u00E9") == 0);
     }},
    {"zov_fullpath", kJumps, "", "", [](World &w) { return gotText(w, zov_fullpath("c"), inCurrent.c_str()); }},
    {"zov_currdir", kJumps, "", "",
     [](World &w) { return gotText(w, zov_currdir(), current.c_str()); }},
    {"zov_pathSplit", kJumps, "", "",
     [](World &w) {
       char *name = nullptr;
       zov_pathSplit("/dir/name", &w.text, &name);
       const int32_t status = got(w.text != nullptr && name != nullptr);
       zov_freeMem(name, 0);
       return status;
     }},
    {"zov_fileCreateTmpName", kJumps, "", "",
     [](World &w) {
       w.text = zov_fileCreateTmpName(&w.size, "swept", "end", ZOV_DEFAULT_TAG);
       return got(w.text != nullptr, w.text != nullptr && strstr(w.text, "/kept/swept") == w.text);
     }},
    {"zov_tmpdir", kJumps, "", "", [](World &w) { return gotText(w, zov_tmpdir(ZOV_DEFAULT_TAG), "/kept"); }},
    {"zov_findOStmpdir", kJumps | kLitters, "", "", [](World &w) { return got((w.text = zov_findOStmpdir()) != nullptr); },
     {}, nullptr, probeHere, probeNoMore},
    {"zov_osTmpdir", kKeeps | kLitters, "", "", [](World &) { return got(zov_osTmpdir() != nullptr); }, {}, nullptr, probeHere,
     probeNoMore},
    {"zov_dirWritable", kLitters, "", "", [](World &w) { return got(zov_dirWritable(w(".")) == 1); }},
    {"zov_getenvW", kJumps, "", "", [](World &w) { return got((w.wideText = zov_getenvW(L"QEL_TMPDIR")) != nullptr); }},
    {"zov_setlocaleW", kJumps, "", "", [](World &w) { return got((w.wideText = zov_setlocaleW(0, L"C")) != nullptr); }},
  });
  // clang-format on
}

const char kDir[] = "d/ d/a=one d/b=two";
const std::string kBlocks(2500, 'x');  // a file of several blocks
const std::vector<int32_t> copyFails = {ZOV_ERROR, -1};
const std::vector<int32_t> dirFails = {ZOV_ERROR, ZOV_NOMEMORY};
const std::vector<int32_t> cmpFails = {ZOV_ERROR, ZOV_NOFILE, ZOV_NOFILE2, ZOV_NOMEMORY};

TEST(Sweep, Disk) {
  const std::string twoOfBlocks = "a=" + kBlocks + " b=" + kBlocks;
  // clang-format off
  sweep("disk", {
    {"zov_fileOpen zov_fileSeekWrite zov_fileSeekRead zov_fileSetSize zov_fileSync zov_fileLock zov_fileUnlock zov_fileLength",
     kInPlace, "a=one", "a=onetwo",
     [](World &w) {
       ZOV_FILE file = w.file = zov_fileOpen(w("a"), O_RDWR, 0);
       char back[4] = "";
       if (file == nullptr || zov_fileLock(file) != ZOV_OKAY) {
         return got(false);
       }
       const bool written = zov_fileSeekWrite(file, 3, "twos", 4) == 4 && zov_fileSetSize(file, 6) == ZOV_OKAY &&
                            zov_fileSync(file) == ZOV_OKAY && zov_fileSeekRead(file, 3, back, 3) == 3 && zov_fileLength(file) == 6;
       zov_fileUnlock(file);
       return got(written, strcmp(back, "two") == 0);
     }},
    {"zov_fileOpenW", kJumps, "", "a=",
     [](World &w) { return got((w.file = zov_fileOpenW(w.wide("a"), O_RDWR | O_CREAT, 0)) != nullptr); }},
    {"zov_fileRemove", 0, "a=one", "", [](World &w) { return zov_fileRemove(w("a")); }, {-1}},
    {"zov_fileRemoveW", 0, "a=one", "", [](World &w) { return zov_fileRemoveW(w.wide("a")); }, copyFails},
    {"zov_fileRename", 0, "a=one", "b=one", [](World &w) { return zov_fileRename(w("a"), w("b")); }, {-1}},
    {"zov_fileRenameExW", 0, "a=one", "b=one", [](World &w) { return zov_fileRenameExW(w.wide("a"), 0, w.wide("b"), 0); },
     copyFails},
    {"zov_fileCopyExW", kInPlace, "a=one", "a=one b=one",
     [](World &w) { return zov_fileCopyExW(w.wide("a"), 0, w.wide("b"), 0); }, copyFails},
    {"zov_fileCmp", 0, twoOfBlocks, twoOfBlocks, [](World &w) { return zov_fileCmp(w("a"), w("b")); }, cmpFails},
    {"zov_fileValidateW", 0, "a=one", "a=one", [](World &w) { return got(zov_fileValidateW(w.wide("a"), nullptr) == 1); }},
    {"zov_fileMoveExW", 0, "a=one b=other", "b=one", [](World &w) { return zov_fileMoveExW(w.wide("a"), 0, w.wide("b"), 0); }},
    {"zov_dirCreateAll", kJumps | kInPlace, "", "d/ d/e/ d/e/f/", [](World &w) { return zov_dirCreateAll(w("d/e/f")); }, dirFails},
    {"zov_dirCreateW", kJumps, "", "d/", [](World &w) { return zov_dirCreateW(w.wide("d")); }},
    {"zov_dirRemoveW", kJumps, "d/", "", [](World &w) { return zov_dirRemoveW(w.wide("d")); }},
    {"zov_dirMove", kInPlace, kDir, "e/ e/a=one e/b=two", [](World &w) { return zov_dirMove(w("d"), w("e")); }, dirFails},
    {"zov_pathOpen zov_pathOpenEx zov_pathNext", kJumps, kDir, kDir,
     [](World &w) {
       zov_pathClose(zov_pathOpen(w("d"), "*"));
       w.walk = zov_pathOpenEx(w("d"), 0, "*");
       int32_t isDirectory = 0;
       int names = 0;
       while (w.walk != nullptr && zov_pathNext(w.walk, &isDirectory) != nullptr) {
         ++names;
       }
       return got(names == 4);
     }},
    {"zov_flPathOpen zov_flPathNext", kJumps, kDir, kDir,
     [](World &w) {
       ZOV_DISK_WALK walk = zov_flPathOpen(w("d"), "a");
       w.other = walk;
       int32_t isDirectory = 0;
       return got(walk != nullptr && zov_flPathNext(walk, &isDirectory) != nullptr);
     }, {}, nullptr, nullptr, [](World &w) { zov_flPathClose(static_cast<ZOV_DISK_WALK>(w.other)); }},
    {"zov_pathOpenW zov_pathNextW", 0, kDir, kDir,
     [](World &w) {
       w.walk = zov_pathOpenW(w.wide("d"), L"a");
       int32_t isDirectory = 0;
       return got(w.walk != nullptr && zov_pathNextW(w.walk, &isDirectory) != nullptr);
     }},
  });
  // clang-format on
}

// A directory on disk with a file, and files on another file system.
TEST(Sweep, Across) {
  static const std::string moved = "o/b=" + kBlocks;
  static const std::string both = "a=" + kBlocks + " " + moved;
  // Every file is whole in one place or in both.
  const char byFile[] =
      "(?=.*/a=one)(?=.*/b=two)(d/ ?)?(d/a=one ?)?(d/b=two ?)?(o/e/ ?)?(o/e/f/ ?)?(o/e/f/a=one "
      "?)?(o/e/f/b=two)?";
  // clang-format off
  sweep("across", {
    {"zov_fileMove", 0, "a=one o/b=other", "o/b=one", [](World &w) { return zov_fileMove(w("a"), w("o/b")); }, {},
     "a=one o/b=one"},
    {"zov_fileMoveEx", 0, "a=" + kBlocks, moved, [](World &w) { return zov_fileMoveEx(w("a"), 0, w("o/b"), ZOV_FILE_NOSYNC); },
     {}, both.c_str()},
    {"zov_dirMove", 0, kDir, "o/e/ o/e/f/ o/e/f/a=one o/e/f/b=two", [](World &w) { return zov_dirMove(w("d"), w("o/e/f")); },
     dirFails, byFile},
    {"zov_fileMoveEx", kKeeps, "/m/b=other a=one", "/m/b=one", [](World &w) { return zov_fileMoveEx(w("a"), 0, "/m/b", kMem); },
     {}, "/m/b=one a=one"},
    {"zov_fileMoveEx", kKeeps, "/m/a=one b=other", "b=one", [](World &w) { return zov_fileMoveEx("/m/a", kMem, w("b"), 0); }, {},
     "/m/a=one b=one"},
    {"zov_fileCopyEx", kKeeps | kInPlace, "/m/z= a=one", "/m/z= a=one b=",
     [](World &w) { return zov_fileCopyEx("/m/z", kMem, w("b"), 0); }, copyFails},
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
const std::string manySegments(100 * 4096, 'd');
constexpr uint32_t kSegmentsThere = 20 * 4096;

TEST(Sweep, Memory) {
  const std::string full = "/m/a=one" + fullNames;
  const auto putOther = [](World &) { putFile("/n/a", "one", kMem); };
  // clang-format off
  sweep("memory", {
    {"zov_fileOpen zov_fileSeekWrite zov_fileSetSize", kKeeps, "/m/a=", "/m/a=",
     [](World &w) {
       w.file = zov_fileOpen("/m/a", O_RDWR, kMem);
       return got(w.file != nullptr && zov_fileSetSize(w.file, 40000) == 0 && zov_fileSetSize(w.file, 0) == 0);
     }},
    {"zov_mfRename", kKeeps, "/m/a=one", "/m/a name of more than one piece, which is stored in several pieces=one",
     [](World &) { return zov_mfRename("/m/a", "a name of more than one piece, which is stored in several pieces"); }},
    {"zov_mfOpen", kKeeps, full, full + " " + longName + "=",
     [](World &) {
       ZOV_MFILE file = zov_mfOpen(longName.c_str(), O_CREAT);
       zov_mfClose(file);
       return got(file != nullptr);
     }},
    {"zov_fileMoveEx", kKeeps, full, full + " " + longName + "=one",
     [](World &) { return zov_fileMoveEx("/n/a", kMem, longName.c_str(), kMem); }, {}, nullptr, putOther},
    {"zov_fileMoveEx", kKeeps | kInPlace, full, fullNames.substr(1) + " /m/n/",
     [](World &) { return zov_fileMoveEx("/m/a", kMem, "/m/n/a", kMem); }},
    {"zov_fileRemoveEx", kKeeps, "/m/a=one /m/b=other", "/m/b=other", [](World &) { return zov_fileRemoveEx("/m/a", kMem); },
     copyFails},
    {"zov_fileMoveEx", kKeeps, "/m/a=one /m/b=other", "/m/b=one",
     [](World &) { return zov_fileMoveEx("/m/a", kMem, "/m/b", kMem); }},
    {"zov_fileMoveEx", kKeeps, "/m/b=other", "/m/b=one", [](World &) { return zov_fileMoveEx("/n/a", kMem, "/m/b", kMem); }, {},
     nullptr, putOther},
    {"zov_fileCopyEx", kKeeps | kInPlace, "/m/a=one", "/m/a=one /m/b=one",
     [](World &) { return zov_fileCopyEx("/m/a", kMem, "/m/b", kMem); }, copyFails},
    {"zov_fileCmpEx zov_fileValidateEx zov_mfSizeStat zov_mfModTime", kKeeps, "/m/a=one /m/b=one", "/m/a=one /m/b=one",
     [](World &) {
       const int32_t status = zov_fileCmpEx("/m/a", kMem, "/m/b", kMem);
       return status == ZOV_OKAY ? got(zov_fileValidateEx("/m/a", kMem, nullptr) == 1 && zov_mfSizeStat("/m/a") == 3 &&
                                       zov_mfModTime("/m/a") != 0)
                                 : status;
     }, cmpFails},
    {"zov_dirMoveEx", kKeeps | kInPlace, "/m/b=two", "/m/a=one /m/b=two",
     [](World &) { return zov_dirMoveEx("/n", kMem, "/m", kMem); }, dirFails, nullptr, putOther},
    // A segment that cannot be opened is not made anew, and what is told to be written
    // is there, whatever fails behind it.
    {"zov_segOpen zov_segSeekRead zov_segSeekWrite zov_segSetSize zov_segGetPtr", kKeeps, "", "",
     [](World &w) {
       ZOV_SEG file = zov_segOpen(w.id, 0);
       if (file == nullptr) {
         return got(false);
       }
       const uint32_t size = static_cast<uint32_t>(manySegments.size());
       std::string back(size, '-');
       const uint32_t there = zov_segSeekRead(file, 0, back.data(), kSegmentsThere);
       const uint32_t written = zov_segSeekWrite(file, kSegmentsThere, manySegments.data(), size - kSegmentsThere);
       const bool cut = zov_segSeekWrite(file, 50u * size, "end", 3) == 3 && zov_segSetSize(file, 80u * size) == ZOV_OKAY;
       const uint32_t kept = written == ZOV_IO_FAILED ? 0 : written;
       zov_segSeekRead(file, kSegmentsThere, back.data() + kSegmentsThere, kept);
       const bool right = there != kSegmentsThere || back.find_first_not_of('d') >= kSegmentsThere + kept;
       void *page = nullptr;
       zov_segLock(file);
       const bool pinned = zov_segGetPtr(file, 0, &page) == ZOV_OKAY;
       pinned ? zov_segReleasePtr(file, 0, page) : void();
       zov_segUnlock(file);
       zov_segClose(file);
       return right ? got(there + kept == size && cut && pinned) : kWrong;
     }, {}, nullptr,
     [](World &w) {
       w.id = zov_segNextId();
       ZOV_SEG file = zov_segOpen(w.id, O_CREAT);
       zov_segSeekWrite(file, 0, manySegments.data(), kSegmentsThere);
       zov_segClose(file);
     }},
  });
  // clang-format on
}

}  // namespace

}  // namespace zovtest
