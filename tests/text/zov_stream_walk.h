// SPDX-License-Identifier: Apache-2.0
//
// A walk of random operations on one text stream and on a model of it. Driven
// by bytes, which a test draws and a fuzzer finds.
#ifndef TESTS_TEXT_ZOV_STREAM_WALK_H
#define TESTS_TEXT_ZOV_STREAM_WALK_H

#include <errno.h>
#include <sys/mman.h>
#include <unistd.h>

#include <algorithm>
#include <functional>
#include <string>
#include <utility>
#include <vector>

#include "support/route_file.h"
#include "zov.h"

namespace zovtest {

// A file of the system's memory, with a path on disk.
struct ScratchFile {
  ~ScratchFile() { close(descriptor); }
  int descriptor = memfd_create("scratch", 0);
  std::string path = "/proc/self/fd/" + std::to_string(descriptor);
};

// A stream that moves one byte at a time. block holds what was read or written
// from base on. What a file holds that is only written, `actual`, tells how much
// of a failing transfer it took.
struct StreamModel {
  std::string file;
  bool readable, wide;
  uint64_t base = 0, position = 0, length = file.size();
  size_t at = 0, valid = 0, written = 0;  // at: where the file itself stands
  std::string block = "";
  std::vector<int32_t> pushed = {};

  bool send(const std::string *actual = nullptr) {
    if (written == 0) {
      return true;
    }
    const size_t count = position - base <= 1024 ? position - base : written;
    const size_t went = actual == nullptr ? count : std::min(count, actual->size() - at);
    block.resize(std::max(block.size(), count));
    file.replace(at, went, block, 0, went);
    at += went;
    if (went < count) {
      written = (went > 0 ? std::max(written, count) : written) - went;
      block.erase(0, went);
      base += went;
      length = std::max(length, base + written);
      return false;
    }
    hold("");
    return true;
  }
  void hold(const std::string &read) {
    base = position;
    block = read;
    valid = read.size();
    written = 0;
  }
  bool move(const std::string *actual = nullptr) {
    if (!send(actual)) {
      return false;
    }
    hold(readable && (length == 0 || position < length) ? file.substr(at, 1024) : "");
    at += valid;
    return true;
  }
  int32_t getByte() {
    if (position - base >= valid) {
      move();
    }
    return valid == 0 ? -1 : static_cast<uint8_t>(block[position++ - base]);
  }
  bool isBefore(uint64_t offset) const { return offset > INT64_MAX; }
  bool putByte(char byte, const std::string *actual) {
    const bool isFar = isBefore(base) || position - base >= 1024;
    if (isBefore(position) || (isFar && !move(actual))) {
      return false;
    }
    written = std::max(written, ++position - base);
    block.resize(std::max(block.size(), position - base));
    block[position - base - 1] = byte;
    length = std::max(length, position);
    return true;
  }
  int32_t getUnit() {
    const int32_t low = getByte();
    const int32_t high = low < 0 ? -1 : getByte();
    return high < 0 ? -1 : low + 256 * high;
  }
  int32_t getCodePoint() {
    const int32_t unit = getUnit();
    if (unit < 0 || unit / 0x400 != 0x36) {
      return unit >= 0 && unit / 0x400 == 0x37 ? '.' : unit;
    }
    const int32_t low = getUnit();
    return low < 0 ? -1 : 0x10000 + unit % 0x400 * 0x400 + low % 0x400;
  }
  int32_t get() {
    if (pushed.empty()) {
      int32_t code = wide ? getCodePoint() : getByte();
      const int32_t leads[] = {0, 0xC0, 0xE0, 0xF0};
      const int32_t more = wide ? (code > 0x7F) + (code > 0x7FF) + (code > 0xFFFF) : 0;
      for (int32_t i = 0; i < more; ++i, code /= 64) {
        pushed.push_back(0x80 + code % 64);
      }
      return leads[more] + code;
    }
    const int32_t value = pushed.back();
    pushed.pop_back();
    return value;
  }
  std::string line(size_t most) {
    std::string text;
    for (int32_t value = 0; text.size() < most && value != '\n'; text += static_cast<char>(value)) {
      value = get();
      if (value < 0) {
        break;
      }
    }
    return text;
  }
};

class StreamWalk {
 public:
  // What is written to a file that is not read goes through `around`, which may
  // make the calls beneath fail.
  using Around = std::function<void(const std::function<void()> &)>;
  StreamWalk(const uint8_t *bytes, size_t count, uint32_t flags_ = 0, const Around &around_ = {})
      : dice(bytes), left(count), flags(flags_), around(around_) {}

  // Walks until the bytes are used up. Names the first operation whose outcome
  // the model does not share, null when there was none.
  const char *run() {
    open();
    while (left > 0 && failed == nullptr) {
      step();
    }
    zov_fclose(stream);
    zov_freeMem(buffer, ZOV_DEFAULT_TAG);
    model.send();
    check("zov_fclose", getFile(path, flags) == model.file);
    check("removal", flags == 0 || zov_fileRemoveEx(path.c_str(), flags) == ZOV_OKAY);
    return failed;
  }

 private:
  uint32_t below(uint32_t limit) {
    uint32_t value = 0;
    for (int i = 0; i < 3 && left > 0; ++i, --left) {
      value = value * 256 + *dice++;
    }
    return value % limit;
  }
  void check(const char *what, bool agrees) { failed = agrees || failed ? failed : what; }
  void checkLine(const char *what, const char *line, const std::string &expected) {
    check(what, line == nullptr ? expected.empty()
                                : std::string(line, expected.size() + 1) == expected + '\0');
  }

  void open() {
    const char *modes[] = {"r", "r", "r+", "w+", "w", "a"};
    const uint32_t choice = around ? 4 + below(2) : below(6);
    const bool wide = choice == 0;
    std::string bytes = wide ? "\xFF\xFE" : ".";
    bytes.append(choice < 4 ? 0 : below(4000), 'o');
    for (uint32_t count = choice < 4 ? below(4000) : 0; count > 0; --count) {
      bytes += below(2) == 0 ? "\n\0a\xD8\xDC\xC3"[below(6)] : static_cast<char>(below(256));
    }
    check("set-up", putFile(path, bytes, flags));
    stream = zov_fopenEx(path.c_str(), modes[choice], wide ? 0 : ZOV_ENC_BYTES, flags);
    writes = choice > 1;
    model = {choice == 3 || choice == 4 ? "" : bytes, choice < 4, wide};
    model.at = choice == 5 ? bytes.size() : 0;
    model.base = model.position = model.at;
    model.getByte();
    model.position = wide ? 2 : model.base;
  }

  void seek() {
    const uint32_t origin = below(3);
    const uint64_t from[] = {model.wide ? 2u : 0u, model.position, model.length};
    const int32_t offset = static_cast<int32_t>(below(below(2) == 0 ? 30 : 2500)) - 15;
    check("zov_fseek", zov_fseek(stream, offset, static_cast<int32_t>(origin)) == ZOV_OKAY);
    model.position = from[origin] + static_cast<uint64_t>(int64_t{offset});
  }

  void write() {
    const char byte = static_cast<char>(below(256));
    const std::string text(byte % 4 == 0 ? 1 : below(byte % 3 == 0 ? 2500 : 50), byte);
    const int32_t length = static_cast<int32_t>(text.size());
    const auto print = [&] {
      return length == 1               ? zov_fputc(byte, stream)
             : byte % 2 == 0 || around ? zov_fputs(text.c_str(), stream)
                                       : zov_fprintf(stream, "%s", text.c_str());
    };
    put("writing", length == 1 ? 0 : -1, length, print, [&](const std::string *actual) {
      return std::all_of(text.begin(), text.end(),
                         [&](char c) { return model.putByte(c, actual); });
    });
  }

  // Compares a call, which gives `done` or `refused`, with what the model takes.
  template <typename Call, typename Take>
  void put(const char *what, int32_t refused, int32_t done, Call call, Take take) {
    int32_t result = 0;
    errno = 0;
    around ? around([&] { result = call(); }) : void(result = call());
    const bool lost = errno != 0;
    const std::string actual = around ? getFile(path, flags) : "";
    const bool taken = take(around ? &actual : nullptr);
    check(what, result == (taken ? done : refused) && lost != taken);
    check(what, !around || actual == model.file);
  }

  void step() {
    const int32_t value = static_cast<int32_t>(below(256));
    switch (around ? 5 + below(4) : below(writes ? 8 : 5)) {
      case 0:
      case 8:
        return seek();
      case 1:
        checkLine("zov_fgets", zov_fgets(piece, value + 2, stream),
                  model.line(static_cast<size_t>(value) + 1));
        return checkLine("zov_fGetLine", zov_fGetLine(stream, &buffer, &bufferBytes),
                         model.line(SIZE_MAX));
      case 2:
        check("zov_fungetc", zov_fungetc(value, stream) == (model.pushed.size() < 20 ? value : -1));
        return model.pushed.resize(std::min<size_t>(model.pushed.size() + 1, 20), value);
      case 5:
        put(
            "zov_fflush", 0, 0, [&] { return zov_fflush(stream); },
            [&](const std::string *actual) { return model.send(actual); });
        return check("zov_fflush", getFile(path, flags) == model.file);
      case 6:
      case 7:
        return write();
      default:
        return check("zov_fgetc", zov_fgetc(stream) == model.get());
    }
  }

  const uint8_t *dice;
  size_t left;
  const uint32_t flags;
  const Around around;
  const ScratchFile file;
  const std::string path = flags == 0 ? file.path : "/walk" + std::to_string(file.descriptor);
  ZOV_STREAM stream = nullptr;
  StreamModel model = {};
  bool writes = false;
  char piece[257];
  char *buffer = nullptr;
  uint32_t bufferBytes = 0;
  const char *failed = nullptr;
};

}  // namespace zovtest

#endif
