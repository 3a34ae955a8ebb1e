// SPDX-License-Identifier: Apache-2.0
//
// A user of the library in C++, of the oldest standard the header supports:
// proves that the header's names have C linkage there and that its handles
// and constants fit C++'s types. Exits with 0 when all is well.
#include <zov.h>

#include <cstdio>

namespace {

class Library {
 public:
  Library() : status(zov_init()) {}
  ~Library() {
    if (status == ZOV_OKAY) {
      zov_term();
    }
  }
  bool started() const { return status == ZOV_OKAY; }

 private:
  int32_t status;
};

bool eventIsSignalled() {
  const ZOV_SYNC event = zov_syncCreate_check(ZOV_SYNC_EVENT, ZOV_HERE);
  const bool atFirst = zov_syncWait(event, 0) == ZOV_OKAY;
  zov_syncStart(event);
  const bool afterReset = zov_syncWait(event, 1) == ZOV_OKAY;
  zov_syncDelete(event);
  return atFirst && !afterReset;
}

}  // namespace

int main() {
  const Library library;
  const bool fine = library.started() && zov_inited == 1 && eventIsSignalled();
  std::puts(fine ? "C++ consumer: well" : "C++ consumer: FAILED");
  return fine ? 0 : 1;
}
