// SPDX-License-Identifier: Apache-2.0
//
// UTF-8 conversion of text in several scripts and lengths, in both directions,
// beside libc's, GLib's where it is installed, a plain loop over a text of known
// length, and memcpy(); and wildcard matching beside fnmatch() and those of GLib and
// APR. The bytes per second are bytes of UTF-8. The lengths are that of a name, and
// of a text that does not fit in the nearer caches nor in a processor's branch history.
#include <benchmark/benchmark.h>
#include <fnmatch.h>
#include <locale.h>
#include <stdlib.h>
#include <string.h>
#include <wchar.h>

#include <random>
#include <string>

#include "bench_seed.h"
#include "zov.h"

#if defined(ZOV_HAVE_APR)
#include <apr_fnmatch.h>
#endif
#if defined(ZOV_HAVE_GLIB)
#include <glib.h>
#endif
#if defined(ZOV_HAVE_ICU)
#include <unicode/utf8.h>
#endif

namespace {

// A script: words of one to `longestWord` letters from `first` on, of which
// `foreignPercent` come from another range instead, with a space between them.
struct Script {
  const char *name;
  uint32_t first;
  uint32_t letters;
  uint32_t longestWord;
  uint32_t foreignFirst;
  uint32_t foreignLetters;
  uint32_t foreignPercent;
  uint32_t space;
};

constexpr Script kScripts[] = {
    {"ascii", 'a', 26, 9, 'A', 26, 5, ' '},         {"latin", 'a', 26, 9, 0xE0, 32, 7, ' '},
    {"cyrillic", 0x430, 32, 11, 0x430, 32, 0, ' '}, {"han", 0x4E00, 0x5000, 20, 'a', 26, 2, 0x3002},
    {"hangul", 0xAC00, 11172, 5, 'a', 26, 0, ' '},  {"emoji", 'a', 26, 9, 0x1F600, 64, 15, ' '},
};

struct Text {
  std::wstring chars;
  std::string bytes;
};

Text makeText(const Script &script, size_t lengthChars) {
  std::mt19937_64 engine(benchSeed());
  const auto below = [&](uint32_t limit) { return static_cast<uint32_t>(engine() % limit); };
  Text text;
  while (text.chars.size() < lengthChars) {
    for (uint32_t count = 1 + below(script.longestWord); count > 0; --count) {
      const bool foreign = below(100) < script.foreignPercent;
      text.chars +=
          static_cast<wchar_t>(foreign ? script.foreignFirst + below(script.foreignLetters)
                                       : script.first + below(script.letters));
    }
    text.chars += static_cast<wchar_t>(script.space);
  }
  text.chars.resize(lengthChars);
  for (const wchar_t each : text.chars) {
    char code[4];
    uint32_t length = 0;
    zov_utf8_codes(static_cast<uint32_t>(each), code, &length);
    text.bytes.append(code, length);
  }
  return text;
}

constexpr size_t kLengths[] = {24, 1 << 20};

// What a conversion leaves in its row.
enum class Into : uint8_t { kChars, kBytes, kNothing };

// What every row has: its text and room for either result.
struct Row {
  Row(benchmark::State &benchState, const Script &script, size_t lengthChars)
      : state(benchState),
        text(makeText(script, lengthChars)),
        chars(text.chars.size() + 1, L'\0'),
        bytes(text.bytes.size() + 1, '\0') {
    setlocale(LC_ALL, "C.UTF-8");
  }

  template <typename Convert>
  void run(Convert convert) {
    for (auto _ : state) {
      benchmark::DoNotOptimize(convert());
      benchmark::ClobberMemory();
    }
    state.SetBytesProcessed(state.iterations() * static_cast<int64_t>(text.bytes.size()));
  }

  void check(Into into) const {
    if ((into == Into::kChars && text.chars != chars.c_str()) ||
        (into == Into::kBytes && text.bytes != bytes.c_str())) {
      state.SkipWithError("another text");
    }
  }

  uint32_t sizeChars() const { return static_cast<uint32_t>(chars.size()); }
  uint32_t sizeBytes() const { return static_cast<uint32_t>(bytes.size()); }

  benchmark::State &state;
  const Text text;
  std::wstring chars;
  std::string bytes;
};

void Decode(Row &row) {
  const uint32_t length = static_cast<uint32_t>(row.text.bytes.size());
  row.run([&] {
    return zov_utf8_to_wchar_len(row.chars.data(), row.sizeChars(), row.text.bytes.data(), length,
                                 ZOV_UTF8_STRICT);
  });
}

void DecodeTerminated(Row &row) {
  row.run([&] {
    return zov_utf8_to_wchar(row.chars.data(), row.text.bytes.c_str(), row.sizeChars(),
                             ZOV_UTF8_STRICT);
  });
}

void DecodeMeasuring(Row &row) {
  row.run([&] { return zov_utf8_to_wchar(nullptr, row.text.bytes.c_str(), 0, ZOV_UTF8_STRICT); });
}

void DecodeLibc(Row &row) {
  row.run([&] { return mbstowcs(row.chars.data(), row.text.bytes.c_str(), row.sizeChars()); });
}

bool isTail(uint8_t byte) {
  return (byte & 0xC0) == 0x80;
}

// The usual loop, a branch for each length, with every check that strict
// UTF-8 wants. Null where the text is invalid.
[[gnu::noinline]] wchar_t *plainDecode(wchar_t *out, const uint8_t *in, const uint8_t *end) {
  while (in < end) {
    const uint32_t lead = *in;
    uint32_t value;
    if (lead < 0x80) {
      value = lead;
      in += 1;
    } else if (lead < 0xE0) {
      if (lead < 0xC2 || end - in < 2 || !isTail(in[1])) {
        return nullptr;
      }
      value = (lead & 0x1F) << 6 | (in[1] & 0x3Fu);
      in += 2;
    } else if (lead < 0xF0) {
      if (end - in < 3 || !isTail(in[1]) || !isTail(in[2])) {
        return nullptr;
      }
      value = (lead & 0x0F) << 12 | (in[1] & 0x3Fu) << 6 | (in[2] & 0x3Fu);
      if (value < 0x800 || (value & 0xF800) == 0xD800) {
        return nullptr;
      }
      in += 3;
    } else {
      if (end - in < 4 || !isTail(in[1]) || !isTail(in[2]) || !isTail(in[3])) {
        return nullptr;
      }
      value = (lead & 0x07) << 18 | (in[1] & 0x3Fu) << 12 | (in[2] & 0x3Fu) << 6 | (in[3] & 0x3Fu);
      if (value < 0x10000 || value > 0x10FFFF || lead > 0xF4) {
        return nullptr;
      }
      in += 4;
    }
    *out++ = static_cast<wchar_t>(value);
  }
  *out = 0;
  return out;
}

void DecodePlainLoop(Row &row) {
  const uint8_t *in = reinterpret_cast<const uint8_t *>(row.text.bytes.data());
  row.run([&] { return plainDecode(row.chars.data(), in, in + row.text.bytes.size()); });
}

void Encode(Row &row) {
  const uint32_t length = static_cast<uint32_t>(row.text.chars.size());
  row.run([&] {
    return zov_wchar_to_utf8_len(row.bytes.data(), row.sizeBytes(), row.text.chars.data(), length,
                                 ZOV_UTF8_STRICT);
  });
}

void EncodeTerminated(Row &row) {
  row.run([&] {
    return zov_wchar_to_utf8(row.bytes.data(), row.text.chars.c_str(), row.sizeBytes(),
                             ZOV_UTF8_STRICT);
  });
}

void EncodeMeasuring(Row &row) {
  row.run([&] { return zov_wchar_to_utf8(nullptr, row.text.chars.c_str(), 0, ZOV_UTF8_STRICT); });
}

void EncodeLibc(Row &row) {
  row.run([&] { return wcstombs(row.bytes.data(), row.text.chars.c_str(), row.sizeBytes()); });
}

// The usual loop; null where a character is invalid.
[[gnu::noinline]] char *plainEncode(char *out, const wchar_t *in, const wchar_t *end) {
  for (; in < end; ++in) {
    const uint32_t value = static_cast<uint32_t>(*in);
    if (value < 0x80) {
      *out++ = static_cast<char>(value);
    } else if (value < 0x800) {
      *out++ = static_cast<char>(0xC0 | value >> 6);
      *out++ = static_cast<char>(0x80 | (value & 0x3F));
    } else if (value < 0x10000) {
      if ((value & 0xF800) == 0xD800) {
        return nullptr;
      }
      *out++ = static_cast<char>(0xE0 | value >> 12);
      *out++ = static_cast<char>(0x80 | (value >> 6 & 0x3F));
      *out++ = static_cast<char>(0x80 | (value & 0x3F));
    } else {
      if (value > 0x10FFFF) {
        return nullptr;
      }
      *out++ = static_cast<char>(0xF0 | value >> 18);
      *out++ = static_cast<char>(0x80 | (value >> 12 & 0x3F));
      *out++ = static_cast<char>(0x80 | (value >> 6 & 0x3F));
      *out++ = static_cast<char>(0x80 | (value & 0x3F));
    }
  }
  *out = 0;
  return out;
}

void EncodePlainLoop(Row &row) {
  const wchar_t *in = row.text.chars.data();
  row.run([&] { return plainEncode(row.bytes.data(), in, in + row.text.chars.size()); });
}

// The wide string copied: as many bytes as a decoder stores and an encoder
// reads.
void CopyOfWideString(Row &row) {
  row.run(
      [&] { return wmemcpy(row.chars.data(), row.text.chars.c_str(), row.text.chars.size() + 1); });
}

void EncodeAllocating(Row &row) {
  zov_init();
  row.run([&] {
    char *converted = zov_convertToUTF8(row.text.chars.c_str(), ZOV_UTF8_STRICT);
    zov_freeMem(converted, ZOV_DEFAULT_TAG);
    return converted;
  });
  zov_term();
}

#if defined(ZOV_HAVE_GLIB)
void DecodeGlib(Row &row) {
  const glong length = static_cast<glong>(row.text.bytes.size());
  row.run([&] {
    gunichar *converted = g_utf8_to_ucs4(row.text.bytes.c_str(), length, nullptr, nullptr, nullptr);
    g_free(converted);
    return converted;
  });
}

void EncodeGlib(Row &row) {
  const gunichar *in = reinterpret_cast<const gunichar *>(row.text.chars.c_str());
  const glong length = static_cast<glong>(row.text.chars.size());
  row.run([&] {
    char *converted = g_ucs4_to_utf8(in, length, nullptr, nullptr, nullptr);
    g_free(converted);
    return converted;
  });
}
#endif

#if defined(ZOV_HAVE_ICU)
// The macros convert as they please.
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wconversion"
#pragma GCC diagnostic ignored "-Wsign-conversion"
#pragma GCC diagnostic ignored "-Wold-style-cast"

void DecodeIcu(Row &row) {
  const char *in = row.text.bytes.data();
  const int32_t length = static_cast<int32_t>(row.text.bytes.size());
  row.run([&] {
    wchar_t *out = row.chars.data();
    for (int32_t at = 0; at < length;) {
      UChar32 value;
      U8_NEXT(in, at, length, value);
      if (value < 0) {
        return static_cast<wchar_t *>(nullptr);
      }
      *out++ = static_cast<wchar_t>(value);
    }
    return out;
  });
}

void EncodeIcu(Row &row) {
  const int32_t room = static_cast<int32_t>(row.bytes.size());
  row.run([&] {
    uint8_t *out = reinterpret_cast<uint8_t *>(row.bytes.data());
    int32_t at = 0;
    UBool isError = false;
    for (const wchar_t value : row.text.chars) {
      U8_APPEND(out, at, room, static_cast<UChar32>(value), isError);
    }
    return isError ? nullptr : out + at;
  });
}
#pragma GCC diagnostic pop
#endif

constexpr struct {
  const char *name;
  void (*convert)(Row &row);
  Into into;
} kConversions[] = {
    {"decode/zov", Decode, Into::kChars},
    {"decode-terminated/zov", DecodeTerminated, Into::kChars},
    {"decode-measure/zov", DecodeMeasuring, Into::kNothing},
    {"decode/libc", DecodeLibc, Into::kChars},
    {"decode/plain-loop", DecodePlainLoop, Into::kChars},
    {"encode/zov", Encode, Into::kBytes},
    {"encode-terminated/zov", EncodeTerminated, Into::kBytes},
    {"encode-measure/zov", EncodeMeasuring, Into::kNothing},
    {"encode/libc", EncodeLibc, Into::kBytes},
    {"encode/plain-loop", EncodePlainLoop, Into::kBytes},
    {"decode/wmemcpy", CopyOfWideString, Into::kChars},
    {"encode-allocate/zov", EncodeAllocating, Into::kNothing},
#if defined(ZOV_HAVE_GLIB)
    {"decode-allocate/glib", DecodeGlib, Into::kNothing},
    {"encode-allocate/glib", EncodeGlib, Into::kNothing},
#endif
#if defined(ZOV_HAVE_ICU)
    {"decode/icu", DecodeIcu, Into::kChars},
    {"encode/icu", EncodeIcu, Into::kBytes},
#endif
};

const bool added = [] {
  for (const auto &conversion : kConversions) {
    for (const size_t length : kLengths) {
      for (const Script &script : kScripts) {
        const std::string name =
            std::string(conversion.name) + '/' + script.name + '-' + std::to_string(length);
        benchmark::RegisterBenchmark(name.c_str(), [=, &script](benchmark::State &state) {
          Row row(state, script, length);
          conversion.convert(row);
          row.check(conversion.into);
        });
      }
    }
  }
  return true;
}();

constexpr const char *kNames[] = {"employee_records.dat", "employee_records.idx", "a.ini",
                                  "readme.txt", "archive.2024.tar.gz"};
constexpr const char *kPatterns[] = {"*.ini", "employee_*.?dx", "*.tar.*", "*"};

// Each name against each pattern; as many match as by the library.
template <typename Matches>
void matchAll(benchmark::State &state, Matches matches) {
  const auto countOf = [](auto isMatch) {
    int count = 0;
    for (const char *name : kNames) {
      for (size_t pattern = 0; pattern < std::size(kPatterns); ++pattern) {
        count += isMatch(name, pattern);
      }
    }
    return count;
  };
  const int expected = countOf(
      [](const char *name, size_t pattern) { return zov_match(name, kPatterns[pattern]) != 0; });
  for (auto _ : state) {
    if (countOf(matches) != expected) {
      state.SkipWithError("other matches");
      break;
    }
  }
  state.SetItemsProcessed(state.iterations() *
                          static_cast<int64_t>(std::size(kNames) * std::size(kPatterns)));
}

void Match(benchmark::State &state) {
  matchAll(state, [](const char *name, size_t pattern) {
    return zov_match(name, kPatterns[pattern]) != 0;
  });
}
BENCHMARK(Match)->Name("match/zov");

// In the locale without multibyte characters, whatever ran before.
void MatchLibc(benchmark::State &state) {
  setlocale(LC_ALL, "C");
  matchAll(state, [](const char *name, size_t pattern) {
    return fnmatch(kPatterns[pattern], name, FNM_CASEFOLD) == 0;
  });
}
BENCHMARK(MatchLibc)->Name("match/libc");

#if defined(ZOV_HAVE_APR)
void MatchApr(benchmark::State &state) {
  matchAll(state, [](const char *name, size_t pattern) {
    return apr_fnmatch(kPatterns[pattern], name, APR_FNM_CASE_BLIND) == APR_SUCCESS;
  });
}
BENCHMARK(MatchApr)->Name("match/apr");
#endif

#if defined(ZOV_HAVE_GLIB)
// Patterns made beforehand, and capitals told from small letters: the names have none.
void MatchGlib(benchmark::State &state) {
  GPatternSpec *patterns[std::size(kPatterns)];
  for (size_t pattern = 0; pattern < std::size(kPatterns); ++pattern) {
    patterns[pattern] = g_pattern_spec_new(kPatterns[pattern]);
  }
  matchAll(state, [&](const char *name, size_t pattern) {
    return g_pattern_spec_match_string(patterns[pattern], name) != 0;
  });
  for (GPatternSpec *each : patterns) {
    g_pattern_spec_free(each);
  }
}
BENCHMARK(MatchGlib)->Name("match/glib");
#endif

}  // namespace
