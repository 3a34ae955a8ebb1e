// SPDX-License-Identifier: Apache-2.0
//
// Loading a text file with worker threads. The calling thread reads lines into
// batches and hands them out through one message queue; the workers make
// entries of the lines and hand the batches back through another; the calling
// thread appends the entries in the order of the file:
//
//   reader -> work queue -> workers -> done queue -> writer (the reader again)
//
// A batch belongs to one side at a time, so nothing needs a lock. There are as
// many batches as may be under way, and they go round.
#include "engine/line_reader.h"
#include "engine/report.h"
#include "engine/text_io.h"

namespace minidb {

namespace {

constexpr uint32_t kWorkers = 2;
constexpr uint32_t kBatches = 8;
constexpr uint32_t kBatchBytes = 64 * 1024;

// Words of a message in the work queue; the value of one is its batch.
constexpr uint32_t kEncode = 1;

// Lines on their way to be entries.
struct Batch {
  Buffer lines;  // each with a NUL behind it
  EntryList entries;
  uint64_t records;
  bool failed;
};

// A load under way.
struct Load {
  Store *store;
  char separator;
  ZOV_TAG tag;
  ZOV_QUEUE work;
  ZOV_QUEUE done;
  uint32_t workers;  // those that run
  Batch batches[kBatches];
  uint32_t next;      // batch number to be filled next, from 0 on without end
  uint32_t appended;  // batch number to be appended next
  bool arrived[kBatches];
  uint64_t records;
};

bool encodeLine(Batch &batch, const char *line, char separator) {
  const char *end = strchr(line, separator);
  const size_t keyBytes = end == nullptr ? strlen(line) : static_cast<size_t>(end - line);
  const char *value = end == nullptr ? line + keyBytes : end + 1;
  const size_t valueBytes = strlen(value);
  ++batch.records;
  return addEntry(batch.entries, {Kind::kPut,
                                  {line, static_cast<uint32_t>(keyBytes)},
                                  {value, static_cast<uint32_t>(valueBytes)}});
}

void encodeBatch(Batch &batch, char separator) {
  clearList(batch.entries);
  batch.records = 0;
  batch.failed = false;
  for (uint32_t at = 0; at < batch.lines.length && !batch.failed;) {
    const char *line = batch.lines.bytes + at;
    batch.failed = !encodeLine(batch, line, separator);
    at += static_cast<uint32_t>(strlen(line)) + 1;
  }
}

// A worker: serves the work queue until it is closed.
void *serve(void *argument) {
  Load &load = *static_cast<Load *>(argument);
  uint64_t number = 0;
  uint32_t code = 0;
  ZOV_QUEUE done = load.done;
  while (zov_queueRead(load.work, &number, &code, nullptr, ZOV_WAIT_FOREVER) == ZOV_OKAY) {
    encodeBatch(load.batches[number], load.separator);
    zov_queueWrite(done, number, code, 0, 0);
  }
  // The last word of a worker: the load may be gone as soon as it is read.
  zov_queueWrite(done, kBatches, 0, 0, 0);
  return nullptr;
}

bool startWorkers(Load &load) {
  while (load.workers < kWorkers && zov_threadBegin(serve, 0, &load) == ZOV_OKAY) {
    ++load.workers;
  }
  return load.workers > 0;
}

// Waits for a batch to come back, or for a worker to leave.
void awaitOne(Load &load) {
  uint64_t number = 0;
  if (zov_queueRead(load.done, &number, nullptr, nullptr, ZOV_WAIT_FOREVER) != ZOV_OKAY) {
    return;
  }
  if (number < kBatches) {
    load.arrived[number] = true;
  } else {
    --load.workers;
  }
}

void stopWorkers(Load &load) {
  zov_queueClose(load.work);
  while (load.workers > 0) {
    awaitOne(load);
  }
}

// Appends the oldest batch under way, waiting for it.
bool appendOldest(Load &load) {
  const uint32_t index = load.appended % kBatches;
  while (!load.arrived[index]) {
    awaitOne(load);
  }
  load.arrived[index] = false;
  ++load.appended;
  Batch &batch = load.batches[index];
  if (batch.failed || !appendEntries(*load.store, batch.entries)) {
    return false;
  }
  for (uint64_t record = 0; record < batch.records; ++record) {
    showProgress("load", ++load.records);
  }
  return true;
}

bool dispatch(Load &load) {
  const uint32_t index = load.next % kBatches;
  zov_queueWrite(load.work, index, kEncode, 0, 0);
  ++load.next;
  return load.next - load.appended < kBatches || appendOldest(load);
}

// Reads the file to its end and sends every batch on its way.
bool dispatchLines(Load &load, LineReader &reader) {
  load.batches[0].lines.length = 0;
  while (const char *line = readLine(reader)) {
    if (*line == '\0') {
      continue;
    }
    Batch *batch = &load.batches[load.next % kBatches];
    if (!appendBytes(batch->lines, load.tag, line, static_cast<uint32_t>(strlen(line)) + 1)) {
      return false;
    }
    if (batch->lines.length >= kBatchBytes) {
      if (!dispatch(load)) {
        return false;
      }
      load.batches[load.next % kBatches].lines.length = 0;
    }
  }
  return true;
}

bool loadLines(Load &load, const char *path) {
  LineReader reader;
  if (!openReader(reader, path)) {
    return false;
  }
  bool loaded = dispatchLines(load, reader);
  if (loaded && zov_errno() != 0) {
    loaded = cannot("read", path);
  }
  closeReader(reader);
  loaded = loaded && dispatch(load);
  while (loaded && load.appended < load.next) {
    loaded = appendOldest(load);
  }
  return loaded;
}

bool startLoad(Load &load) {
  load.tag = zov_createTagEx(nullptr, ZOV_TAG_THREADSAFE, ZOV_HERE);
  for (Batch &batch : load.batches) {
    if (!openList(batch.entries, load.tag)) {
      return false;
    }
  }
  load.work = zov_queueCreate("minidb lines");
  load.done = zov_queueCreate("minidb entries");
  return load.work != nullptr && load.done != nullptr && startWorkers(load);
}

void endLoad(Load &load) {
  stopWorkers(load);
  zov_queueDelete(load.work);
  zov_queueDelete(load.done);
  for (Batch &batch : load.batches) {
    closeList(batch.entries);
  }
  zov_freeTagMemory(load.tag, 1);
}

}  // namespace

bool loadText(Store &store, const char *path, char separator) {
  Load load = {};
  load.store = &store;
  load.separator = separator;
  bool loaded = false;
  if (startLoad(load)) {
    loaded = loadLines(load, path);
  } else {
    zov_log_err("minidb: no worker can be started.\n");
  }
  endLoad(load);
  return loaded;
}

}  // namespace minidb
