// SPDX-License-Identifier: Apache-2.0
//
// INI files beside GLib's key files, on a file of 1000 sections with ten
// parameters each and on one of a section with 10,000:
//
//   Parse     the file of many sections, into empty memory
//   ParseAgain  the same, into the memory of the last reading
//   GetFirst  the first of 10,000 parameters, copied to the caller
//   GetLast   the last one
//   GetSection  a parameter of the last of 1000 sections
//   Set       a value in the file of many sections: the peer loads the file,
//             sets and saves it
//   SetUnsynced  the same without waiting for the disk
#include <benchmark/benchmark.h>
#include <stdlib.h>
#include <unistd.h>

#include <string>

#if defined(ZOV_HAVE_GLIB)
#include <glib.h>
#endif

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
  explicit ZovIni(const std::string &path) : path_(path) { zov_readIniFile(path.c_str()); }
  void forget() { zov_iniCleanup(); }
  void read() { zov_readIniFile(path_.c_str()); }
  void get(const char *section, const char *name) {
    char out[64];
    zov_iniGet(path_.c_str(), section, name, out, sizeof out);
    benchmark::DoNotOptimize(out);
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
  void get(const char *section, const char *name) {
    char *value = g_key_file_get_value(file_, section, name, nullptr);
    benchmark::DoNotOptimize(value);
    g_free(value);
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
void GetFirst(benchmark::State &state) {
  Ini ini(longPath);
  for (auto _ : state) {
    ini.get("section0", "parameter0");
  }
}

template <typename Ini>
void GetLast(benchmark::State &state) {
  Ini ini(longPath);
  for (auto _ : state) {
    ini.get("section0", "parameter9999");
  }
}

template <typename Ini>
void GetSection(benchmark::State &state) {
  Ini ini(manyPath);
  for (auto _ : state) {
    ini.get("section999", "parameter9");
  }
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

#define ZOV_BENCH(scenario, peer, name) \
  BENCHMARK_TEMPLATE(scenario, peer)->Name(name)->UseRealTime()->Setup(start)->Teardown(stop)
#if defined(ZOV_HAVE_GLIB)
#define ZOV_COMPARE(scenario, operation)         \
  ZOV_BENCH(scenario, ZovIni, operation "/zov"); \
  ZOV_BENCH(scenario, GlibIni, operation "/glib")
#else
#define ZOV_COMPARE(scenario, operation) ZOV_BENCH(scenario, ZovIni, operation "/zov")
#endif

ZOV_COMPARE(Parse, "ini-parse");
ZOV_COMPARE(ParseAgain, "ini-parse-again");
ZOV_COMPARE(GetFirst, "ini-get-first");
ZOV_COMPARE(GetLast, "ini-get-last");
ZOV_COMPARE(GetSection, "ini-get-section");
ZOV_COMPARE(Set, "ini-set-synced");
ZOV_COMPARE(SetUnsynced, "ini-set");

}  // namespace
