// SPDX-License-Identifier: Apache-2.0
//
// Main program of every benchmark. It adds to what Google Benchmark reports of
// a run how this code was built, by what compiler, for which processor and
// with which seed, and warns when the build is one whose times mean nothing.
// All of Google Benchmark's options work, --benchmark_filter=REGEX and
// --benchmark_list_tests above all; --seed=N sets the seed.
#include <benchmark/benchmark.h>
#include <linux/magic.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/utsname.h>
#include <sys/vfs.h>

#include <string>

#include "bench_idle.h"
#include "bench_seed.h"
#include "zov.h"

#if defined(__clang__)
#define ZOV_COMPILER __VERSION__
#else
#define ZOV_COMPILER "GCC " __VERSION__
#endif

namespace {

constexpr char kSeedOption[] = "--seed=";
constexpr char kModelField[] = "model name";

uint64_t seed = 620;

// Takes the seed's option off the command line, as benchmark::Initialize()
// does with its own. A value that is not a number is left there, so that it
// is then reported as an unknown option.
void takeSeed(int &argc, char **argv) {
  const size_t optionBytes = sizeof kSeedOption - 1;
  int kept = 1;
  for (int index = 1; index < argc; ++index) {
    char *end = nullptr;
    if (strncmp(argv[index], kSeedOption, optionBytes) == 0) {
      const uint64_t value = strtoull(argv[index] + optionBytes, &end, 0);
      if (end != argv[index] + optionBytes && *end == '\0') {
        seed = value;
        continue;
      }
    }
    argv[kept++] = argv[index];
  }
  argc = kept;
  argv[argc] = nullptr;
}

std::string processorModel() {
  std::string model = "unknown processor";
  FILE *file = fopen("/proc/cpuinfo", "r");
  char line[256];
  while (file != nullptr && fgets(line, sizeof line, file) != nullptr) {
    const char *colon = strchr(line, ':');
    if (colon != nullptr && strncmp(line, kModelField, sizeof kModelField - 1) == 0) {
      const char *value = colon + 1 + strspn(colon + 1, " ");
      model.assign(value, strcspn(value, "\n"));
      break;
    }
  }
  if (file != nullptr) {
    fclose(file);
  }
  return model;
}

std::string machine() {
  utsname name;
  if (uname(&name) != 0) {
    return processorModel();
  }
  return processorModel() + ", " + name.machine + ", " + name.sysname + " " + name.release;
}

// What benchmarks of files on disk stand on.
std::string fileSystem() {
  struct statfs status;
  if (statfs("/tmp", &status) != 0) {
    return "unknown";
  }
  switch (status.f_type) {
    case EXT4_SUPER_MAGIC:
      return "ext4";
    case TMPFS_MAGIC:
      return "tmpfs";
    case XFS_SUPER_MAGIC:
      return "XFS";
    case BTRFS_SUPER_MAGIC:
      return "Btrfs";
    case OVERLAYFS_SUPER_MAGIC:
      return "overlay";
    default:
      return "type " + std::to_string(status.f_type);
  }
}

std::string libraryVersion() {
  uint16_t major = 0;
  uint16_t minor = 0;
  uint16_t build = 0;
  zov_version(&major, &minor, &build);
  return std::to_string(major) + "." + std::to_string(minor) + "." + std::to_string(build);
}

void warnOfBuild() {
#if !defined(__OPTIMIZE__)
  fprintf(stderr, "***WARNING*** Built without optimisation: the times mean nothing.\n");
#endif
#if !defined(NDEBUG)
  fprintf(stderr, "***WARNING*** Built with assertions: the times include them.\n");
#endif
  if (ZOV_BUILD_SANITIZERS[0] != '\0') {
    fprintf(stderr, "***WARNING*** Built with sanitizers: the times include their checks.\n");
  }
}

}  // namespace

uint64_t benchSeed() {
  return seed;
}

int main(int argc, char **argv) {
  takeSeed(argc, argv);
  benchmark::Initialize(&argc, argv);
  if (benchmark::ReportUnrecognizedArguments(argc, argv)) {
    return EXIT_FAILURE;
  }
  warnOfBuild();
  startIdleThread();
  benchmark::AddCustomContext("library", "libzov " + libraryVersion());
  benchmark::AddCustomContext("build", ZOV_BUILD_NAME);
  benchmark::AddCustomContext("compiler", ZOV_COMPILER);
  benchmark::AddCustomContext("machine", machine());
  benchmark::AddCustomContext("temporary files", fileSystem());
  benchmark::AddCustomContext("seed", std::to_string(seed));
  benchmark::RunSpecifiedBenchmarks();
  benchmark::Shutdown();
  return EXIT_SUCCESS;
}
