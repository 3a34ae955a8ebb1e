// SPDX-License-Identifier: Apache-2.0
#include "engine/engine.h"

#include <errno.h>
#include <sys/stat.h>

namespace minidb {

char *makeRoom(Buffer &buffer, ZOV_TAG tag, uint32_t more) {
  const uint32_t wanted = buffer.length + more + 1;
  if (wanted > buffer.capacity) {
    const uint32_t capacity = wanted + wanted / 2;
    buffer.bytes = static_cast<char *>(zov_extendMem(buffer.bytes, capacity, tag, 0, 0, ZOV_HERE));
    buffer.capacity = capacity;
  }
  return buffer.bytes + buffer.length;
}

void append(Buffer &buffer, ZOV_TAG tag, Text text) {
  char *end = makeRoom(buffer, tag, text.length);
  if (text.length > 0) {
    memcpy(end, text.bytes, text.length);
  }
  end[text.length] = '\0';
  buffer.length += text.length;
}

bool readLine(ZOV_STREAM stream, Buffer &buffer, ZOV_TAG tag, uint32_t limit) {
  errno = 0;
  int32_t byte = zov_fgetc(stream);
  const bool isEnd = byte < 0 && errno == 0;
  for (; byte >= 0 && byte != '\n'; byte = zov_fgetc(stream)) {
    if (buffer.length >= limit) {
      return fail(Status::kRefused, "it is too long");
    }
    if (buffer.length + 1 >= buffer.capacity) {
      makeRoom(buffer, tag, 1);
    }
    buffer.bytes[buffer.length++] = static_cast<char>(byte);
  }
  if (byte < 0 && errno != 0) {
    return fail("it cannot be read: %s", strerror(errno));
  }
  return !isEnd || fail(Status::kMissing, "there is no further line");
}

bool matchesPattern(Text text, Text pattern) {
  const char *at = text.bytes;
  const char *const end = at + text.length;
  const char *part = pattern.bytes;
  const char *const last = part + pattern.length;
  const char *star = nullptr;   // what is behind the latest `*`,
  const char *tried = nullptr;  // and where it was tried
  while (at < end || part < last) {
    const char next = part < last ? *part : '*';
    const bool isEscape = next == '\\' && last - part > 1;
    if (at < end && next != '*' && (next == '?' || *at == part[isEscape ? 1 : 0])) {
      do {
        ++at;
      } while (next == '?' && at < end && (static_cast<unsigned char>(*at) & 0xc0) == 0x80);
      part += isEscape ? 2 : 1;
      continue;
    }
    if (part < last && next == '*') {
      star = ++part;
      tried = at;
    } else if (star == nullptr || tried == end) {
      return false;
    } else {
      ++tried;
      part = star;
    }
    if (star < last && strchr("*?\\", *star) == nullptr) {
      tried = static_cast<const char *>(memchr(tried, *star, static_cast<size_t>(end - tried)));
    }
    if (tried == nullptr) {
      return false;
    }
    at = tried;
  }
  return true;
}

bool failedAt(const char *action, const char *path) {
  return fail("cannot %s \"%.500s\": %s", action, path, strerror(errno));
}

bool report() {
  zov_log_err("minidb: %s\n", problem());
  return false;
}

uint32_t kindOf(const char *path) {
  struct stat status;
  if (stat(path, &status) == 0) {
    return status.st_mode & S_IFMT;
  }
  return errno == ENOENT ? 0 : S_IFMT;
}

int32_t writeToDescriptor(void *descriptor, const void *data, uint32_t length) {
  const char *at = static_cast<const char *>(data);
  while (length > 0) {
    const uint32_t sent = zov_flWrite(*static_cast<const uint64_t *>(descriptor), at, length);
    if (sent == ZOV_IO_FAILED && errno != EINTR) {
      return errno;
    }
    at += sent == ZOV_IO_FAILED ? 0 : sent;
    length -= sent == ZOV_IO_FAILED ? 0 : sent;
  }
  return 0;
}

}  // namespace minidb
