// SPDX-License-Identifier: Apache-2.0
//
// The guides in docs/, of which tests compare tables with what the calls do.
// For test programs that know ZOV_SOURCE_DIR.
#ifndef TESTS_SUPPORT_GUIDE_H
#define TESTS_SUPPORT_GUIDE_H

#include "support/temp_dir.h"

namespace zovtest {

// Expects a table in a section of a guide, line for line.
inline void expectTable(const char *page, const std::string &heading, const std::string &table) {
  const std::string guide = readFile(ZOV_SOURCE_DIR "/docs/" + std::string(page));
  const size_t begin = std::min(guide.find("\n## " + heading + "\n"), guide.size());
  const std::string section = guide.substr(begin, guide.find("\n## ", begin + 1) - begin);
  EXPECT_NE(section.find("\n\n" + table + "\n"), section.npos) << "should be:\n" << table;
}

}  // namespace zovtest

#endif
