// SPDX-License-Identifier: Apache-2.0
//
// The tree of a directory, read back page by page. The pages are checked as
// bytes at their offsets; random operations are checked against a sorted map
// after every step, with nodes of the usual size and with nodes so small that
// every split, merge and rebalancing happens often and the tree grows deep.
#include <strings.h>

#include <map>
#include <optional>
#include <set>

#include "support/replace.h"
#include "support/test.h"

namespace {
uint32_t pageBytes = 4096;
}

REPLACE(int32_t, zov_shmInit, (uint32_t * pageSize), {
  const int32_t status = __real_zov_shmInit(pageSize);
  *pageSize = pageBytes;
  return status;
})

namespace {

struct Lower {
  bool operator()(const std::string &left, const std::string &right) const {
    return strcasecmp(left.c_str(), right.c_str()) < 0;
  }
};

// The root directory's pages, which stay where they are and, under its lock, as they are.
class Pages {
 public:
  Pages() : file_(zov_segOpen(zov_segRootId(), 0)) { zov_segLock(file_); }
  ~Pages() {
    zov_segUnlock(file_);
    zov_segClose(file_);
  }

  template <typename Integer>
  Integer at(uint32_t page, uint32_t offset) {
    Integer value;
    memcpy(&value, bytes(page) + offset, sizeof value);
    return value;
  }

  const char *bytes(uint32_t page) {
    void *address = nullptr;
    EXPECT_EQ(zov_segGetPtr(file_, page, &address), ZOV_OKAY);
    zov_segReleasePtr(file_, page, address);
    return static_cast<const char *>(address);
  }

 private:
  ZOV_SEG file_;
};

// Reads a whole tree and checks that it is one.
class Checker {
 public:
  Checker() {
    nodes_.insert(0);
    visit(1, 0);
    for (uint32_t node = pages.at<uint32_t>(0, 0); node != 0; node = pages.at<uint32_t>(node, 0)) {
      EXPECT_TRUE(nodes_.insert(node).second) << "node " << node << " is free and in use";
    }
    for (uint64_t link = linkAt(0, 8); link != 0; link = linkAt(nodeOf(link), 32 * indexOf(link))) {
      addExtra(link);
    }
    // Nothing is lost: all that was handed out is in use or on a list.
    EXPECT_EQ(nodes_.size() + extraNodes_.size(), pages.at<uint32_t>(0, 4));
    EXPECT_EQ(extras_.size(), extraNodes_.size() * (pageBytes / 32));
    nodes_.merge(extraNodes_);
    EXPECT_TRUE(extraNodes_.empty()) << "a node of both kinds";
  }

  Pages pages;
  std::vector<std::string> names;
  std::vector<uint64_t> ids;

 private:
  static uint32_t nodeOf(uint64_t link) { return static_cast<uint32_t>(link); }
  static uint32_t indexOf(uint64_t link) { return static_cast<uint32_t>(link >> 32); }
  uint64_t linkAt(uint32_t page, uint32_t offset) { return pages.at<uint64_t>(page, offset); }

  void addExtra(uint64_t link) {
    ASSERT_LT(indexOf(link), pageBytes / 32);
    ASSERT_TRUE(extras_.insert(link).second) << "an extra entry is used twice";
    extraNodes_.insert(nodeOf(link));
  }

  std::string nameAt(uint32_t node, uint32_t offset) {
    const uint16_t length = pages.at<uint16_t>(node, offset + 8);
    std::string name(pages.bytes(node) + offset + 20, std::min<size_t>(length, 22));
    uint64_t link = linkAt(node, offset + 12);
    while (link != 0) {
      addExtra(link);
      const size_t part = std::min<size_t>(length - name.size(), 24);
      EXPECT_GT(part, 0u);
      name.append(pages.bytes(nodeOf(link)) + 32 * indexOf(link) + 8, part);
      link = linkAt(nodeOf(link), 32 * indexOf(link));
    }
    EXPECT_EQ(name.size(), length);
    return name;
  }

  void visit(uint32_t node, uint32_t depth) {
    ASSERT_TRUE(nodes_.insert(node).second) << "node " << node << " is reached twice";
    const uint32_t capacity = (pageBytes - 12) / 56;
    const uint16_t count = pages.at<uint16_t>(node, 0);
    ASSERT_LT(count, capacity);
    ASSERT_TRUE(node == 1 || count >= (capacity - 1) / 2) << count << " entries at " << depth;
    for (uint32_t slot = 0; slot <= count; ++slot) {
      const uint32_t child = count == 0 ? 0 : pages.at<uint32_t>(node, 8 + 56 * slot);
      if (child != 0) {
        visit(child, depth + 1);
      } else if (leafDepth_.has_value()) {
        ASSERT_EQ(*leafDepth_, depth) << "leaves at different depths";
      } else {
        leafDepth_ = depth;
      }
      if (slot < count) {
        addName(node, 16 + 56 * slot);
      }
    }
  }

  void addName(uint32_t node, uint32_t offset) {
    names.push_back(nameAt(node, offset));
    ids.push_back(pages.at<uint64_t>(node, offset));
    EXPECT_EQ(pages.at<uint16_t>(node, offset + 10), 0u) << "the type of a file";
    EXPECT_EQ(std::string(pages.bytes(node) + offset + 42, 6), std::string(6, '\0'));
    if (names.size() > 1) {
      ASSERT_TRUE(Lower()(names[names.size() - 2], names.back())) << names.back();
    }
  }

  std::set<uint32_t> nodes_;
  std::set<uint64_t> extras_;
  std::set<uint32_t> extraNodes_;
  std::optional<uint32_t> leafDepth_;
};

struct PageSize : testing::WithParamInterface<uint32_t> {
  PageSize() { pageBytes = GetParam(); }
};
class Tree : public PageSize, public zovtest::Started {
 protected:
  Tree() { EXPECT_EQ(zov_mfValidate("/", nullptr), 1); }  // the first use formats it
};
INSTANTIATE_TEST_SUITE_P(PageSize, Tree, testing::Values(256, 4096));

void create(const std::string &name) {
  ZOV_MFILE file = zov_mfOpen(("/" + name).c_str(), O_CREAT);
  ASSERT_NE(file, nullptr) << name;
  zov_mfClose(file);
}

// A directory and what it must hold, driven through the calls by path.
class Model {
 public:
  void step(uint32_t growth) {
    const uint32_t choice = random_() % 16;
    if (names_.empty() || choice < growth) {
      const std::string name = newName();
      create(name);
      names_.emplace(name, 0);
    } else if (choice < 12) {
      const std::string name = anyName();
      ASSERT_EQ(zov_mfRemove(("/" + name).c_str()), ZOV_OKAY) << name;
      names_.erase(name);
    } else if (choice == 12) {
      rename(anyName());
    } else if (choice == 13) {
      const std::string name = newName();
      ASSERT_EQ(zov_mfValidate(("/" + name).c_str(), nullptr), names_.count(name));
    } else {
      walk();
    }
  }

  void check() {
    const Checker checker;
    ASSERT_EQ(checker.names.size(), names_.size());
    size_t index = 0;
    for (auto &[name, id] : names_) {
      ASSERT_EQ(checker.names[index], name);
      ASSERT_TRUE(id == 0 || checker.ids[index] == id) << "a rename keeps the id";
      id = checker.ids[index];
      ++index;
    }
  }

 private:
  // Lengths about those at which another extra entry is needed, and few enough
  // letters that names meet again in another case.
  std::string newName() {
    static const size_t lengths[] = {2, 3, 3, 3, 4, 21, 22, 23, 45, 46, 47, 100};
    std::string name(lengths[random_() % std::size(lengths)], '_');
    name[0] = "abcABC\xE4[_"[random_() % 9];
    for (int letter = 0; letter < 3; ++letter) {
      name[random_() % name.size()] = "aAbBcCyYzZ@[`{"[random_() % 14];
    }
    return name;
  }

  std::string anyName() {
    return std::next(names_.begin(), static_cast<std::ptrdiff_t>(random_() % names_.size()))->first;
  }

  void rename(const std::string &from) {
    const std::string to = newName();
    const bool free = names_.count(to) == 0;
    ASSERT_EQ(zov_mfRename(("/" + from).c_str(), ("/elsewhere/" + to).c_str()),
              free ? ZOV_OKAY : ZOV_ERROR);
    if (free) {
      const uint64_t id = names_[from];
      names_.erase(from);
      names_[to] = id;
    }
  }

  // One step of a walk that goes on while the directory changes.
  void walk() {
    if (walk_ == nullptr) {
      walk_ = zov_mfPathOpen("/", "*");
      lastName_.clear();
    }
    int32_t isDirectory = 1;
    const char *name = zov_mfPathNext(walk_, &isDirectory);
    const auto expected = names_.upper_bound(lastName_);
    if (expected == names_.end()) {
      ASSERT_EQ(name, nullptr);
      ASSERT_EQ(zov_mfPathNext(walk_, &isDirectory), nullptr);
      zov_mfPathClose(walk_);
      walk_ = nullptr;
    } else {
      ASSERT_NE(name, nullptr) << expected->first;
      ASSERT_EQ(name, expected->first);
      ASSERT_EQ(isDirectory, 0);
      lastName_ = name;
    }
  }

  zovtest::Random random_;
  std::map<std::string, uint64_t, Lower> names_;
  ZOV_MEM_WALK walk_ = nullptr;
  std::string lastName_;
};

// The directory grows, shrinks to nothing, and grows again.
TEST_P(Tree, RandomOperationsAgreeWithAModel) {
  Model model;
  const bool small = GetParam() == 256;
  const int period = zovtest::rounds(small ? 700 : 3000);
  for (int step = 0; step < 2 * period; ++step) {
    const uint32_t growth = step % period < period / 2 ? 9 : 3;
    ASSERT_NO_FATAL_FAILURE(model.step(growth)) << "at step " << step;
    if (small || step % 16 == 0) {
      ASSERT_NO_FATAL_FAILURE(model.check()) << "at step " << step;
    }
  }
}

}  // namespace
