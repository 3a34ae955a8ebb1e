// SPDX-License-Identifier: Apache-2.0
//
// What taking a path apart and making it absolute promise.
#include "support/fuzz.h"
#include "support/route_file.h"

using zovtest::taken;

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
  static const int32_t status = zov_init();
  const std::string path = std::string(reinterpret_cast<const char *>(data), size).c_str();
  char *directory = nullptr;
  char *name = nullptr;
  zov_pathSplit(path.c_str(), &directory, &name);
  const bool isSplit = (directory == nullptr || zov_pathIsDir(directory) == 1) &&
                       (name == nullptr || strchr(name, '/') == nullptr);
  const std::string both = taken(directory) + taken(name);
  const std::string full = taken(zov_fullpath(path.c_str()));
  const bool isHere = path.empty() || path == "." || path == "./";
  const bool isFull = zov_pathIsFullyQualified(full.c_str()) == 1 && full.ends_with('/') &&
                      (isHere || full.ends_with(path) || full.ends_with(path + "/")) &&
                      taken(zov_fullpath(full.c_str())) == full;
  zovtest::require(status == ZOV_OKAY && isSplit && both == path && isFull);
  return 0;
}
