// SPDX-License-Identifier: Apache-2.0
//
// Files in memory beside a map: they are written, cut, renamed, removed and read by
// paths that the input puts together, and at the end a walk shows the root's.
#include <map>

#include "support/fuzz.h"
#include "support/route_file.h"

namespace {

using std::string;
using zovtest::getFile;
using zovtest::require;
using Files = std::map<string, string>;  // by path, as it is without detours

string takeName(FuzzedDataProvider &input) {
  const string names[] = {"f", "g h", ".i", string(30, 'n'), string(90, 'o')};
  return input.PickValueInArray(names);
}

// A path and where it leads. No file has a directory's name.
std::pair<string, string> takePath(FuzzedDataProvider &input) {
  const string steps[] = {"a", "A", "b", ".", "..", ""};
  std::vector<string> above = {""};
  string path;
  for (uint32_t count = input.ConsumeIntegralInRange(0u, 4u); count > 0; --count) {
    const string step = input.PickValueInArray(steps);
    path += (input.ConsumeBool() ? "/" : "\\") + step;
    if (step == "..") {
      above.resize(std::max<size_t>(1, above.size() - 1));
    } else if (step != "." && !step.empty()) {
      above.push_back(above.back() + "/" + (step == "A" ? "a" : step));
    }
  }
  const string name = takeName(input);
  return {path + "/" + name, above.back() + "/" + name};
}

void change(FuzzedDataProvider &input, const string &path, string &bytes) {
  const bool empties = input.ConsumeBool();
  const uint32_t offset = input.ConsumeIntegralInRange(0u, 40000u);
  const string text(input.ConsumeIntegralInRange(1u, 9000u), input.ConsumeIntegral<char>());
  const uint32_t length = static_cast<uint32_t>(text.size());
  ZOV_MFILE file = zov_mfOpen(path.c_str(), O_CREAT | (empties ? O_TRUNC : 0));
  bytes.resize(empties ? 0 : bytes.size());
  if (input.ConsumeBool()) {
    bytes.resize(offset);
    require(zov_mfSetSize(file, offset) == ZOV_OKAY);
  } else {
    bytes.resize(std::max<size_t>(bytes.size(), offset + length));
    bytes.replace(offset, length, text);
    require(zov_mfSeekWrite(file, offset, text.data(), length) == length);
  }
  zov_mfClose(file);
}

void rename(const string &path, const string &key, const string &name, Files &files) {
  const string newKey = key.substr(0, key.rfind('/') + 1) + name;
  const bool isFree = files.contains(key) && !files.contains(newKey);
  require(isFree == (zov_mfRename(path.c_str(), name.c_str()) == ZOV_OKAY));
  if (isFree) {
    files[newKey] = files[key];
    files.erase(key);
  }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
  FuzzedDataProvider input(data, size);
  Files files;
  zov_init();
  zov_nodisk();  // paths begin at the root
  while (input.remaining_bytes() > 0) {
    const auto [path, key] = takePath(input);
    const uint32_t choice = input.ConsumeIntegralInRange(0u, 4u);
    if (choice == 0) {
      require((zov_mfRemove(path.c_str()) == ZOV_OKAY) == (files.erase(key) == 1));
    } else if (choice == 1) {
      rename(path, key, takeName(input), files);
    } else if (choice == 2) {
      require(getFile(path, ZOV_FILE_MEMORY) == (files.contains(key) ? files[key] : "(none)"));
    } else {
      change(input, path, files[key]);
    }
  }
  std::erase_if(files, [](const auto &file) {
    require(getFile(file.first, ZOV_FILE_MEMORY) == file.second);
    return file.first.rfind('/') != 0;
  });
  for (const string &name : zovtest::namesIn("/", ZOV_FILE_MEMORY)) {
    require(name.back() == '/' || files.erase("/" + name) == 1);
  }
  require(files.empty());
  zov_term();
  return 0;
}
