// SPDX-License-Identifier: Apache-2.0
//
// One test body for both routes: files on disk and files in memory.
#ifndef TESTS_SUPPORT_ON_ROUTE_H
#define TESTS_SUPPORT_ON_ROUTE_H

#include "support/route_file.h"
#include "support/temp_dir.h"

namespace zovtest {

// The files of the test's directory are on the route of the parameter.
class OnRoute : public StartedInDir, public testing::WithParamInterface<uint16_t> {
 protected:
  void put(const std::string &name, const std::string &bytes) const {
    ASSERT_TRUE(putFile(at(name), bytes, flags)) << name;
  }
  std::string get(const std::string &name) const { return getFile(at(name), flags); }

  uint16_t flags = GetParam();
};

inline const auto bothRoutes = testing::Values(uint16_t{0}, ZOV_FILE_MEMORY);
inline std::string routeName(const testing::TestParamInfo<uint16_t> &route) {
  return route.param == 0 ? "Disk" : "Memory";
}

}  // namespace zovtest

#endif
