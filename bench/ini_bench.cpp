// SPDX-License-Identifier: Apache-2.0
//
// INI files beside GLib's key files, on a file of 1000 sections with ten
// parameters each and on one of a section with 10,000:
//
//   Parse     the file of many sections, into empty memory
//   ParseAgain  the same, into the memory of the last reading
//   GetFirst  the first of 10,000 parameters, copied to the caller
//   GetLast   the last one
//   GetShared   the same on several threads; the peer is not for several, and so
//             stands under a mutex
//   GetSection  a parameter of the last of 1000 sections
//   Set       a value in the file of many sections: the peer loads the file,
//             sets and saves it
//   SetUnsynced  the same without waiting for the disk
#include <benchmark/benchmark.h>
#include <stdlib.h>
#include <unistd.h>

#include <string.h>

#include <mutex>
#include <string>

#if defined(ZOV_HAVE_GLIB)
#include <glib.h>
#endif

#include "bench_rows.h"
#include "zov.h"

namespace {

std::string directory;
std::string manyPath;  // 1000 sections
std::string longPath;  // one long section

void writeText(const std::string &path, const std::string &text) {
  FILE *file = fopen(path.c_str(), "w");
  if (file == nullptr || fwrite(text.data(), 1, text.size(), file) != text.size()) {
    abort();
  }
  fclose(file);
}

std::string section(int number, int params) {
  std::string text = "[section" + std::to_string(number) + "]\n";
  for (int param = 0; param < params; ++param) {
    text += "parameter" + std::to_string(param) + " = value " + std::to_string(param) + "\n";
  }
  return text;
}

void start(const benchmark::State &) {
  zov_init();
  const char *place = getenv("TMPDIR");
  directory = std::string(place == nullptr ? "/tmp" : place) + "/zovbench.XXXXXX";
  if (mkdtemp(directory.data()) == nullptr) {
    abort();
  }
  manyPath = directory + "/many.ini";
  longPath = directory + "/long.ini";
  std::string text;
  for (int number = 0; number < 1000; ++number) {
    text += section(number, 10);
  }
  writeText(manyPath, text);
  writeText(longPath, section(0, 10000));
}

void stop(const benchmark::State &) {
  unlink(manyPath.c_str());
  unlink(longPath.c_str());
  rmdir(directory.c_str());
  zov_term();
}

class ZovIni {
 public:
  static constexpr char kName[] = "zov";
  explicit ZovIni(const std::string &path) : path_(path) { zov_readIniFile(path.c_str()); }
  void forget() { zov_iniCleanup(); }
  void read() { zov_readIniFile(path_.c_str()); }
  bool get(const char *section, const char *name, const char *expected) {
    char out[64];
    return zov_iniGet(path_.c_str(), section, name, out, sizeof out) == ZOV_OKAY &&
           strcmp(out, expected) == 0;
  }
  void set(const char *section, const char *name, const char *value, bool sync) {
    zov_iniSetEx(path_.c_str(), section, name, value, sync ? 0 : ZOV_FILE_NOSYNC);
  }

 private:
  std::string path_;
};

#if defined(ZOV_HAVE_GLIB)
class GlibIni {
 public:
  static constexpr char kName[] = "glib";
  explicit GlibIni(const std::string &path) : path_(path), file_(g_key_file_new()) { read(); }
  ~GlibIni() { g_key_file_free(file_); }
  GlibIni(const GlibIni &) = delete;
  GlibIni &operator=(const GlibIni &) = delete;
  void forget() {
    g_key_file_free(file_);
    file_ = g_key_file_new();
  }
  void read() {
    g_key_file_load_from_file(file_, path_.c_str(), G_KEY_FILE_KEEP_COMMENTS, nullptr);
  }
  bool get(const char *section, const char *name, const char *expected) {
    char *value = g_key_file_get_value(file_, section, name, nullptr);
    const bool isRight = value != nullptr && strcmp(value, expected) == 0;
    g_free(value);
    return isRight;
  }
  void set(const char *section, const char *name, const char *value, bool sync) {
    read();
    g_key_file_set_value(file_, section, name, value);
    gsize length = 0;
    char *text = g_key_file_to_data(file_, &length, nullptr);
    const auto flags = sync ? G_FILE_SET_CONTENTS_CONSISTENT | G_FILE_SET_CONTENTS_ONLY_EXISTING
                            : G_FILE_SET_CONTENTS_NONE;
    g_file_set_contents_full(path_.c_str(), text, static_cast<gssize>(length),
                             static_cast<GFileSetContentsFlags>(flags), 0666, nullptr);
    g_free(text);
  }

 private:
  std::string path_;
  GKeyFile *file_;
};

class LockedGlibIni : public GlibIni {
 public:
  using GlibIni::GlibIni;
  bool get(const char *section, const char *name, const char *expected) {
    const std::lock_guard lock(mutex_);
    return GlibIni::get(section, name, expected);
  }

 private:
  std::mutex mutex_;
};
#endif

template <typename Ini>
void Parse(benchmark::State &state) {
  Ini ini(manyPath);
  for (auto _ : state) {
    ini.forget();
    ini.read();
  }
}

template <typename Ini>
void ParseAgain(benchmark::State &state) {
  Ini ini(manyPath);
  for (auto _ : state) {
    ini.read();
  }
}

template <typename Ini>
void getValues(benchmark::State &state, Ini &ini, const char *section, const char *name,
               const char *expected) {
  for (auto _ : state) {
    if (!ini.get(section, name, expected)) {
      state.SkipWithError("another value");
      break;
    }
  }
}

template <typename Ini>
void GetFirst(benchmark::State &state) {
  Ini ini(longPath);
  getValues(state, ini, "section0", "parameter0", "value 0");
}

template <typename Ini>
void GetLast(benchmark::State &state) {
  Ini ini(longPath);
  getValues(state, ini, "section0", "parameter9999", "value 9999");
}

template <typename Ini>
void GetSection(benchmark::State &state) {
  Ini ini(manyPath);
  getValues(state, ini, "section999", "parameter9", "value 9");
}

// The file of one section, for several threads.
template <typename Ini>
struct Shared : Ini {
  Shared() : Ini(longPath) {}
};

template <typename Ini>
void GetShared(benchmark::State &state) {
  getValues(state, *common<Shared<Ini>>, "section0", "parameter9999", "value 9999");
}

template <typename Ini>
void setValues(benchmark::State &state, bool sync) {
  Ini ini(manyPath);
  uint32_t round = 0;
  for (auto _ : state) {
    ini.set("section500", "parameter5", std::to_string(++round).c_str(), sync);
  }
}

template <typename Ini>
void Set(benchmark::State &state) {
  setValues<Ini>(state, true);
}

template <typename Ini>
void SetUnsynced(benchmark::State &state) {
  setValues<Ini>(state, false);
}

void wallTime(benchmark::internal::Benchmark *row) {
  row->UseRealTime()->Setup(start)->Teardown(stop);
}

template <typename Ini, typename SharedIni>
bool addIni() {
  addRows(SharedIni::kName, {{"ini-get-shared", GetShared<SharedIni>, onThreads}},
          withCommon<Shared<SharedIni>, start, stop>);
  return addRows(Ini::kName,
                 {{"ini-parse", Parse<Ini>},
                  {"ini-parse-again", ParseAgain<Ini>},
                  {"ini-get-first", GetFirst<Ini>},
                  {"ini-get-last", GetLast<Ini>},
                  {"ini-get-section", GetSection<Ini>},
                  {"ini-set-synced", Set<Ini>},
                  {"ini-set", SetUnsynced<Ini>}},
                 wallTime);
}

const bool added = [] {
  addIni<ZovIni, ZovIni>();
#if defined(ZOV_HAVE_GLIB)
  addIni<GlibIni, LockedGlibIni>();
#endif
  return true;
}();

}  // namespace
