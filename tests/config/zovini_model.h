// SPDX-License-Identifier: Apache-2.0
//
// A model of INI files that works on whole lines, and a comparison of gets and
// sets of the library with it.
#ifndef TESTS_CONFIG_ZOVINI_MODEL_H
#define TESTS_CONFIG_ZOVINI_MODEL_H

#include <ctype.h>
#include <string.h>

#include <algorithm>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "support/route_file.h"
#include "zov.h"

namespace zovtest {

constexpr char kIniWhite[] = " \t\n\v\f\r";

inline bool isSame(const std::string &left, const std::string &right) {
  return std::ranges::equal(left, right, {}, tolower, tolower);
}

inline std::vector<std::string> linesOf(const std::string &text) {
  std::vector<std::string> lines;
  for (size_t at = 0; at < text.size(); at += lines.back().size()) {
    const size_t end = text.find('\n', at);
    lines.push_back(text.substr(at, end == std::string::npos ? end : end + 1 - at));
  }
  return lines;
}

template <typename Pairs>
auto *firstNamed(Pairs &pairs, const std::string &name) {
  for (auto &pair : pairs) {
    if (isSame(pair.first, name)) {
      return &pair;
    }
  }
  return static_cast<decltype(&pairs[0])>(nullptr);
}

class IniModel {
 public:
  explicit IniModel(const std::string &text) {
    for (const std::string &line : linesOf(text)) {
      const std::string cut = line.substr(0, line.find_first_of(";\r\n"));
      take(cut.substr(0, cut.find_last_not_of(kIniWhite) + 1));
    }
  }

  // What a get with so much room returns and stores.
  std::pair<int32_t, std::string> get(const char *section, const char *name, size_t size) const {
    std::string all;
    if (section == nullptr) {
      all = namesOf(sections_);
    } else {
      const auto *found = firstNamed(sections_, section);
      const auto *param =
          found == nullptr || name == nullptr ? nullptr : firstNamed(found->second, name);
      if (found == nullptr || (name != nullptr && param == nullptr)) {
        return {ZOV_ERROR, std::string(1, '\0')};
      }
      all = name == nullptr ? namesOf(found->second) : param->second + '\0';
    }
    return all.size() + 1 >= size ? std::pair{ZOV_INI_TRUNCATED, all.substr(0, size - 1)}
                                  : std::pair{int32_t{ZOV_OKAY}, all + '\0'};
  }

 private:
  using Params = std::vector<std::pair<std::string, std::string>>;

  template <typename Pairs>
  static std::string namesOf(const Pairs &pairs) {
    std::string all;
    for (const auto &pair : pairs) {
      all += pair.first + '\0';
    }
    return all;
  }

  void take(const std::string &line) {
    const size_t equal = line.find('=');
    if (!line.empty() && line[0] == '[') {
      sections_.push_back({line.substr(1, line.find(']') - 1).substr(0, 127), {}});
    } else if (!sections_.empty() && equal != std::string::npos) {
      const std::string left = line.substr(0, equal);
      const std::string name = left.substr(0, left.find_last_not_of(' ') + 1);
      const size_t value = line.find_first_not_of(' ', equal + 1);
      if (name.size() > 1) {
        sections_.back().second.push_back(
            {name.substr(0, 127), value == std::string::npos ? "" : line.substr(value)});
      }
    }
  }

  std::vector<std::pair<std::string, Params>> sections_;
};

// The file after a set; null name or value delete.
inline std::string modelSet(const std::string &text, const std::string &section, const char *name,
                            const char *value) {
  const auto isWhite = [](const std::string &line) {
    return strchr(kIniWhite, line[0]) && line[0];
  };
  const auto isNamed = [&](const std::string &line) {
    return !isWhite(line) && isSame(line.substr(0, line.find('=')), name);
  };
  std::vector<std::string> lines = linesOf(text);
  const std::string header = "[" + section + "]";
  const auto isHeader = [&](const std::string &line) {
    return isSame(line.substr(0, line.find(']') + 1), header);
  };
  const size_t begin = static_cast<size_t>(std::ranges::find_if(lines, isHeader) - lines.begin());
  const std::string pair =
      name == nullptr || value == nullptr ? "" : std::string(name) + "=" + value + "\n";
  if (begin == lines.size()) {
    return pair.empty() ? text : text + "\n[" + section + "]\n" + pair;
  }
  size_t end = begin + 1;
  while (end < lines.size() && lines[end][0] != '[') {
    ++end;
  }
  size_t at = name == nullptr ? end : begin + 1;
  std::string result;
  std::for_each_n(lines.begin(), name == nullptr ? begin : at, [&](auto &line) { result += line; });
  std::string held;
  for (; at < end && (pair.empty() || !isNamed(lines[at])); ++at) {
    if (isWhite(lines[at])) {
      held += pair.empty() ? "" : "\n";
    } else if (!isNamed(lines[at])) {
      result += std::exchange(held, "") + lines[at];
    }
  }
  if (at < end) {
    result += held + pair;
    ++at;
  } else if (!pair.empty()) {
    result += at < lines.size() ? pair + held : (result.back() == '\n' ? "" : "\n") + pair;
  }
  for (; at < lines.size(); ++at) {
    result += lines[at];
  }
  return result;
}

// Files with a mark are rewritten without it, which is not modelled.
inline bool mayHaveMark(const std::string &text) {
  return !text.empty() && static_cast<unsigned char>(text[0]) >= 0xEF;
}

// Compares a get with the model; the buffer is of exactly the size.
inline bool getAgrees(const IniModel &model, const std::string &path, uint16_t flags,
                      const char *section, const char *name, size_t size) {
  const std::unique_ptr<char[]> out(new char[size]);
  const auto [status, bytes] = model.get(section, name, size);
  return zov_iniGetEx(path.c_str(), section, name, out.get(), static_cast<uint32_t>(size), flags) ==
             status &&
         bytes.compare(0, bytes.npos, out.get(), bytes.size()) == 0;
}

// Reads a file of the text, sets, and compares what is known before and after
// and what the file holds.
inline bool iniAgrees(const std::string &path, uint16_t flags, const std::string &text,
                      const std::string &section, const char *name, const char *value,
                      size_t size) {
  if (!putFile(path, text, flags) || zov_readIniFileEx(path.c_str(), flags) != ZOV_OKAY) {
    return false;
  }
  const std::string after = modelSet(text, section, name, value);
  if (mayHaveMark(text) || mayHaveMark(after)) {
    return true;
  }
  const auto getsAgree = [&](const std::string &now) {
    const IniModel model(now);
    return getAgrees(model, path, flags, nullptr, nullptr, size) &&
           getAgrees(model, path, flags, section.c_str(), nullptr, size) &&
           getAgrees(model, path, flags, section.c_str(), name == nullptr ? "xx" : name, size);
  };
  return getsAgree(text) &&
         zov_iniSetEx(path.c_str(), section.c_str(), name, value, flags) == ZOV_OKAY &&
         getFile(path, flags) == after && getsAgree(after);
}

}  // namespace zovtest

#endif
