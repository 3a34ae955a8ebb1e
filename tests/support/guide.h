// SPDX-License-Identifier: Apache-2.0
//
// The guides in docs/, of which tests compare tables with what the calls do.
// For test programs that know ZOV_SOURCE_DIR.
#ifndef TESTS_SUPPORT_GUIDE_H
#define TESTS_SUPPORT_GUIDE_H

#include "support/temp_dir.h"

namespace zovtest {

// A section of a guide, from its heading to the next.
inline std::string guideSection(const std::string &page, const std::string &heading) {
  const std::string guide = readFile(ZOV_SOURCE_DIR "/docs/" + page);
  const size_t begin = guide.find("\n## " + heading + "\n");
  return begin == guide.npos ? "" : guide.substr(begin, guide.find("\n## ", begin + 1) - begin);
}

// Expects a table in a section, line for line.
inline void expectTable(const std::string &section, const std::string &table) {
  EXPECT_NE(section.find("\n\n" + table + "\n"), section.npos) << "should be:\n" << table;
}

}  // namespace zovtest

#endif
