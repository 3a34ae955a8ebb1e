// SPDX-License-Identifier: Apache-2.0
//
// INI files: the first lines of the input are the section, the name and the
// value, the rest is the file, which is in memory. Everything is compared with the
// model of the tests.
#include "config/zovini_model.h"
#include "support/fuzz.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
  static const int32_t status = zov_init();
  const std::string text(reinterpret_cast<const char *>(data), size);
  std::vector<std::string> lines = zovtest::linesOf(text);
  if (status != ZOV_OKAY || lines.size() < 3) {
    return 0;
  }
  const std::string file = text.substr(lines[0].size() + lines[1].size() + lines[2].size());
  for (std::string &line : lines) {
    line.pop_back();
  }
  const char *name = lines[1] == "-" ? nullptr : lines[1].c_str();
  const char *value = lines[2] == "-" ? nullptr : lines[2].c_str();
  zovtest::require(zovtest::iniAgrees("/fuzz.ini", ZOV_FILE_MEMORY, file, lines[0].c_str(), name,
                                      value, 1 + size % 40));
  return 0;
}
