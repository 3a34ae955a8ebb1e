// SPDX-License-Identifier: Apache-2.0
//
// Looks at every page of a view.
#include "store/internal.h"

namespace minidb {

namespace {

struct Check {
  const View *view;
  Progress progress;
  Bytes pages;  // one for each level, and one for chains
  uint64_t used;
  uint64_t records;
};

// Keys that may stand below a page: from `low` on, up to before `high`, which may be
// absent.
struct Bounds {
  Text low;
  Text high;
};

bool wrong(uint64_t number, const char *what) {
  return fail("page %llu is damaged: %s", static_cast<unsigned long long>(number), what);
}

// Pages of a transaction's own may stand in the cache alone.
bool readOwn(const View &view, uint64_t number, Bytes page) {
  PageFile *file = (number & kScratchBit) != 0 ? view.scratch : view.file;
  Frame *frame = pinPage(view.store->cache, *file, number, nullptr);
  if (frame != nullptr) {
    memcpy(page, frame->bytes, kPageBytes);
    unpin(frame);
  }
  return frame != nullptr;
}

bool readChecked(Check &check, uint64_t number, Kind kind, uint32_t level, Bytes page) {
  const View &view = *check.view;
  const bool own = view.scratch != nullptr && number >= view.end;
  ++check.used;
  if (number < kFirstPage || (number >= view.end && !own)) {
    return wrong(number, "there is no such page");
  }
  if (!(own ? readOwn(view, number, page)
            : readPage(view.store->cache, *view.file, number, page))) {
    return false;
  }
  return (kindOf(page) == kind && levelOf(page) == level &&
          (own || commitOf(page) <= view.number)) ||
         wrong(number, "it is of another kind, level or commit");
}

bool checkChain(Check &check, ConstBytes cell) {
  Bytes page = check.pages + kMaxDepth * kPageBytes;
  uint64_t number = chainOf(cell);
  for (uint32_t left = valueBytes(cell); left > 0;) {
    const uint32_t length = left < kChainBytes ? left : kChainBytes;
    if (!readChecked(check, number, Kind::kChain, 0, page)) {
      return false;
    }
    left -= length;
    if (lowestOf(page) != length || (nextOf(page) == 0) != (left == 0)) {
      return wrong(number, "a value has another length");
    }
    number = nextOf(page);
  }
  return true;
}

// The key of the first inner cell does not count.
bool checkKeys(uint64_t number, ConstBytes page, Bounds bounds) {
  Text last = {nullptr, 0};
  for (uint32_t index = kindOf(page) == Kind::kInner ? 1 : 0; index < countOf(page); ++index) {
    const Text key = cellKey(page, index);
    if ((last.bytes != nullptr && compareTexts(last, key) >= 0) ||
        (bounds.low.bytes != nullptr && compareTexts(bounds.low, key) > 0) ||
        (bounds.high.bytes != nullptr && compareTexts(key, bounds.high) >= 0)) {
      return wrong(number, "its keys are out of order");
    }
    last = key;
  }
  return true;
}

bool checkLeaf(Check &check, ConstBytes page) {
  for (uint32_t index = 0; index < countOf(page); ++index) {
    ConstBytes cell = cellOf(page, index);
    if (isChained(cell) && !checkChain(check, cell)) {
      return false;
    }
  }
  check.records += countOf(page);
  return check.progress.step == nullptr ||
         check.progress.step(check.progress.context, check.records) ||
         fail("the check was stopped");
}

// Goes down at most kMaxDepth levels.
bool checkNode(Check &check, uint64_t number, uint32_t level, Bounds bounds, uint64_t records) {
  Bytes page = check.pages + level * kPageBytes;
  const Kind kind = level == 0 ? Kind::kLeaf : Kind::kInner;
  if (!readChecked(check, number, kind, level, page) || !checkKeys(number, page, bounds)) {
    return false;
  }
  if (sumRecords(page) != records) {
    return wrong(number, "it counts other records than the page above");
  }
  if (level == 0) {
    return checkLeaf(check, page);
  }
  for (uint32_t index = 0; index < countOf(page); ++index) {
    const Bounds below = {index == 0 ? bounds.low : cellKey(page, index),
                          index + 1 == countOf(page) ? bounds.high : cellKey(page, index + 1)};
    if (!checkNode(check, childOf(page, index), level - 1, below, recordsOf(page, index))) {
      return false;
    }
  }
  return true;
}

}  // namespace

Status checkView(const View &view, Progress progress) {
  Check check = {&view, progress, nullptr, 0, 0};
  check.pages = static_cast<Bytes>(
      zov_getMem((kMaxDepth + 1) * kPageBytes, view.store->tag, ZOV_MEM_PLAIN, nullptr, ZOV_HERE));
  if (check.pages == nullptr) {
    return failed(Status::kFailed, "there is not enough memory for a check");
  }
  bool right = view.depth == 0 || checkNode(check, view.root, view.depth - 1, {}, view.records);
  if (right && (check.used != view.live || check.records != view.records)) {
    right = fail(
        "%llu pages and %llu records are in use, but %llu and %llu were counted",
        static_cast<unsigned long long>(check.used), static_cast<unsigned long long>(check.records),
        static_cast<unsigned long long>(view.live), static_cast<unsigned long long>(view.records));
  }
  zov_freeMem(check.pages, view.store->tag);
  return right ? Status::kOkay : Status::kFailed;
}

}  // namespace minidb
