// SPDX-License-Identifier: Apache-2.0
//
// Segmented files: where segments begin and end, removal while in use, what a
// lack of memory leaves behind, and random operations through several handles
// against a plain array of bytes.
#include <time.h>

#include "support/faults.h"
#include "support/temp_dir.h"

namespace {

constexpr uint32_t kBase = 4096;

int32_t setSize(ZOV_SEG handle, uint64_t size) {
  EXPECT_EQ(zov_segLock(handle), ZOV_OKAY);
  const int32_t status = zov_segSetSize(handle, size);
  zov_segUnlock(handle);
  return status;
}

class Segments : public zovtest::Started {
 protected:
  // From the header as others see it, by the context's id.
  uint32_t numSegments() {
    void *root = nullptr;
    EXPECT_NE(zov_shmOpenCtx(id, 0, 24, &root), nullptr);
    return static_cast<uint32_t *>(root)[2];
  }

  bool segmentExists(uint32_t number) {
    return zov_shmOpen(reinterpret_cast<ZOV_SHM_CTX>(id), number, 0, 0) != nullptr;
  }

  uint64_t id = zov_segNextId();
  ZOV_SEG file = zov_segOpen(id, O_CREAT);
};

TEST_F(Segments, OffsetsFallIntoTheirSegments) {
  EXPECT_EQ(zov_segSegSize(file), kBase);
  const uint32_t rows[][3] = {
      {0, 0, 0},   {4, 1, 3},     {4, 0, 4},     {16, 1, 6},    {16, 0, 7},    {64, 1, 9},
      {64, 0, 10}, {1024, 1, 15}, {1024, 0, 16}, {4096, 1, 18}, {4096, 0, 19}, {2 * 4096, 0, 20},
  };
  for (const auto &[block, behind, segment] : rows) {
    const uint64_t offset = uint64_t{block} * kBase - behind;
    SCOPED_TRACE(offset);
    ASSERT_EQ(setSize(file, 0), ZOV_OKAY);
    ASSERT_EQ(zov_segSeekWrite(file, offset, "x", 1), 1u);
    EXPECT_EQ(numSegments(), segment + 1);
    EXPECT_TRUE(segmentExists(segment));
    EXPECT_TRUE(segment < 2 || !segmentExists(segment - 1)) << "a hole takes no memory";
    EXPECT_EQ(zov_segSize(file), offset + 1);
    ASSERT_EQ(setSize(file, 0), ZOV_OKAY);
    ASSERT_EQ(setSize(file, offset + 1), ZOV_OKAY);
    EXPECT_EQ(numSegments(), segment + 1);
  }
}

// Far out the tables take little memory, and a cut costs the segments that exist.
TEST_F(Segments, ReachesFarAndNotBeyondTheLimit) {
  constexpr uint64_t kLimit = uint64_t{1} << 47;
  const int64_t blocks = zovtest::liveBlocks();
  for (uint64_t offset : {kLimit, UINT64_MAX - 1, UINT64_MAX}) {
    errno = 0;
    EXPECT_EQ(zov_segSeekWrite(file, offset, "xy", 2), 0u);
    EXPECT_EQ(errno, EFBIG);
    EXPECT_EQ(setSize(file, offset), ZOV_ERROR);
  }
  void *page = this;
  zov_segLock(file);
  EXPECT_EQ(zov_segGetPtr(file, UINT32_MAX, &page), ZOV_ERROR);
  EXPECT_EQ(page, nullptr);
  zov_segUnlock(file);
  EXPECT_EQ(zov_segSize(file) + zov_segModTime(id) + numSegments(), 0u);
  EXPECT_EQ(zovtest::liveBlocks(), blocks);

  const uint64_t resident = zovtest::residentBytes();
  for (uint64_t offset : {kLimit / 4, kLimit / 3, kLimit / 2, kLimit - 1}) {
    EXPECT_EQ(zov_segSeekWrite(file, offset, "xy", 2), offset == kLimit - 1 ? 1u : 2u);
    char text[3] = "";
    EXPECT_EQ(zov_segSeekRead(file, offset, text, 3), std::min<uint64_t>(kLimit - offset, 2));
    EXPECT_EQ(text[0], 'x');
  }
  EXPECT_LT(zovtest::residentBytes(), resident + (72u << 20));
  EXPECT_EQ(setSize(file, kLimit / 3 - 5), ZOV_OKAY);
  EXPECT_EQ(setSize(file, 5000), ZOV_OKAY);
  EXPECT_EQ(numSegments(), 2u);
  EXPECT_FALSE(segmentExists(1)) << "the cut is in a hole";
  EXPECT_EQ(setSize(file, 256 << 20), ZOV_OKAY);
  zov_segClose(zov_segOpen(id, O_TRUNC));
  EXPECT_LT(zovtest::residentBytes(), resident + (72u << 20))
      << "nothing was cleared that was empty";
}

bool isNone(uint64_t id) {
  return zov_segOpen(id, O_RDWR) == nullptr && zov_segModTime(id) == 0xFFFFFFFFu &&
         zov_segSizeStat(id) == UINT64_MAX;
}

// Several handles on one file and the bytes that it must hold. Handles come and
// go, so that segments are cut off while others have them open; and some remove the
// file, which the next open finds by its id all the same, as long as others have it.
class Model {
 public:
  explicit Model(zovtest::Random &random) : random_(random) {
    EXPECT_TRUE(isNone(id_) && isNone(12345));
    for (ZOV_SEG &handle : handles_) {
      handle = zov_segOpen(id_, O_CREAT);
    }
    EXPECT_EQ(zov_segModTime(id_), 0u);
  }

  ~Model() {
    for (ZOV_SEG handle : handles_) {
      zov_segRemove(handle);
    }
    EXPECT_EQ(zov_segOpen(id_, O_CREAT), nullptr);
    EXPECT_TRUE(isNone(id_));
  }

  void step() {
    ZOV_SEG &handle = handles_[random_() % std::size(handles_)];
    const uint32_t choice = random_() % 8;
    if (choice < 3) {
      write(handle);
    } else if (choice < 6) {
      read(handle, offset(), length());
    } else if (choice == 6) {
      bytes_.resize(random_() % 4 == 0 ? 0 : offset());
      ASSERT_EQ(setSize(handle, bytes_.size()), ZOV_OKAY);
    } else {
      random_() % 2 == 0 ? zov_segClose(handle) : static_cast<void>(zov_segRemove(handle));
      const bool truncate = random_() % 8 == 0;
      handle = zov_segOpen(id_, truncate ? O_TRUNC : 0);
      bytes_.resize(truncate ? 0 : bytes_.size());
    }
    ASSERT_EQ(zov_segSizeStat(id_), bytes_.size());
  }

  void readAll() {
    for (ZOV_SEG handle : handles_) {
      read(handle, 0, static_cast<uint32_t>(bytes_.size()) + 1);
    }
  }

 private:
  // Within the first four groups of segments, near and far.
  uint64_t offset() { return random_() % (uint64_t{1} << (8 + random_() % 13)); }
  uint32_t length() { return static_cast<uint32_t>(random_() % (1u << (random_() % 17))); }

  void write(ZOV_SEG handle) {
    const uint64_t start = offset();
    std::string data(length(), static_cast<char>('a' + random_() % 26));
    ASSERT_EQ(zov_segSeekWrite(handle, start, data.data(), static_cast<uint32_t>(data.size())),
              data.size());
    if (!data.empty()) {
      bytes_.resize(std::max(bytes_.size(), start + data.size()));
      bytes_.replace(start, data.size(), data);
      EXPECT_GE(zov_segModTime(id_), begun_);
    }
  }

  void read(ZOV_SEG handle, uint64_t start, uint32_t length) {
    std::string data(length, '?');
    const uint64_t expected =
        start >= bytes_.size() ? 0 : std::min<uint64_t>(length, bytes_.size() - start);
    ASSERT_EQ(zov_segSeekRead(handle, start, data.data(), length), expected);
    ASSERT_TRUE(expected == 0 || bytes_.compare(start, expected, data, 0, expected) == 0)
        << "from " << start << " for " << expected;
  }

  const uint64_t id_ = zov_segNextId();
  const uint64_t begun_ = static_cast<uint64_t>(time(nullptr));
  zovtest::Random &random_;
  ZOV_SEG handles_[4];
  std::string bytes_;
};

TEST_F(Segments, RandomOperationsAgreeWithAModel) {
  zovtest::Random random;
  const int64_t before = zovtest::liveBlocks();
  for (int round = 0; round < 300; ++round) {
    Model model(random);
    for (int step = 0; step < 150; ++step) {
      ASSERT_NO_FATAL_FAILURE(model.step()) << "at step " << step;
    }
    ASSERT_NO_FATAL_FAILURE(model.readAll());
  }
  EXPECT_EQ(zovtest::liveBlocks(), before);
}

}  // namespace
