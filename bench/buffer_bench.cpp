// SPDX-License-Identifier: Apache-2.0
//
// Typed 32-bit integers and strings of 16 characters, put into a buffer and got
// out of one, beside XDR in memory. XDR is big-endian on the wire, so the buffers
// reverse too; their channel is a copy to or from memory. Either reads what the
// library wrote, and XDR writes the same bytes.
#include <benchmark/benchmark.h>

#include <string>

#if defined(ZOV_HAVE_TIRPC)
#include <rpc/rpc.h>
#endif

#include "bench_wire.h"
#include "zov.h"

namespace {

class Buffers {
 public:
  Buffers() {
    zov_init();
    zov_outputBuffCreate(writeWire, nullptr, 1, &output);
    zov_inputBuffCreate(readWire, nullptr, nullptr, 1, &input);
  }
  ~Buffers() { zov_term(); }

  bool putInteger(int32_t item) { return zov_outputBuffPutInt32(output, item) == 0; }
  bool getInteger(int32_t item) {
    int32_t got;
    return zov_inputBuffGetInt32(input, &got) == 0 && got == item;
  }
  bool putString(int32_t) { return zov_outputBuffPutStringWithLength(output, wireString) == 0; }
  bool getString(int32_t) {
    char got[sizeof wireString];
    return zov_inputBuffGetStringWithLength(input, got, sizeof got) == 0 &&
           memcmp(got, wireString, sizeof got) == 0;
  }

  ZOV_OUTPUTBUFF output = nullptr;
  ZOV_INPUTBUFF input = nullptr;
};

// Reports a row's items, each of which says whether it is right.
template <typename Code>
void runItems(benchmark::State &state, int32_t items, Code code) {
  bool right = true;
  for (auto _ : state) {
    for (int32_t item = 0; item < items; ++item) {
      right = code(item) && right;
    }
    benchmark::ClobberMemory();
  }
  if (!right) {
    state.SkipWithError("another item");
  }
  state.SetItemsProcessed(state.iterations() * items);
}

using Code = bool (Buffers::*)(int32_t item);

// Puts all items, and has the wire hold them from its start.
template <Code kPut>
void fillWire(int32_t items) {
  Buffers buffers;
  for (int32_t item = 0; item < items; ++item) {
    (buffers.*kPut)(item);
  }
  zov_outputBuffFlush(buffers.output);
}

template <Code kPut, Code kCode, int32_t kItems>
void Run(benchmark::State &state) {
  fillWire<kPut>(kItems);
  Buffers buffers;
  runItems(state, kItems, [&](int32_t item) { return (buffers.*kCode)(item); });
}

BENCHMARK(Run<&Buffers::putInteger, &Buffers::putInteger, kIntegers>)->Name("put-int32/zov");
BENCHMARK(Run<&Buffers::putInteger, &Buffers::getInteger, kIntegers>)->Name("get-int32/zov");
BENCHMARK(Run<&Buffers::putString, &Buffers::putString, kStrings>)->Name("put-string/zov");
BENCHMARK(Run<&Buffers::putString, &Buffers::getString, kStrings>)->Name("get-string/zov");

#if defined(ZOV_HAVE_TIRPC)
bool putInteger(XDR *xdr, int32_t item) {
  return xdr_int(xdr, &item) != 0;
}

bool getInteger(XDR *xdr, int32_t item) {
  int32_t got;
  return xdr_int(xdr, &got) != 0 && got == item;
}

bool putString(XDR *xdr, int32_t) {
  char *place = wireString;
  return xdr_string(xdr, &place, sizeof wireString) != 0;
}

bool getString(XDR *xdr, int32_t) {
  char got[sizeof wireString];
  char *place = got;
  return xdr_string(xdr, &place, sizeof got) != 0 && memcmp(got, wireString, sizeof got) == 0;
}

template <Code kPut, xdr_op kOperation, bool (*kCode)(XDR *xdr, int32_t item), int32_t kItems>
void RunXdr(benchmark::State &state) {
  fillWire<kPut>(kItems);
  const std::string filled(wire, kWireBytes);
  XDR xdr;
  xdrmem_create(&xdr, wire, sizeof wire, kOperation);
  runItems(state, kItems, [&](int32_t item) {
    if (item == 0) {
      xdr_setpos(&xdr, 0);
    }
    return kCode(&xdr, item);
  });
  if (filled.compare(0, kWireBytes, wire, kWireBytes) != 0) {
    state.SkipWithError("other bytes");
  }
}

BENCHMARK(RunXdr<&Buffers::putInteger, XDR_ENCODE, putInteger, kIntegers>)->Name("put-int32/xdr");
BENCHMARK(RunXdr<&Buffers::putInteger, XDR_DECODE, getInteger, kIntegers>)->Name("get-int32/xdr");
BENCHMARK(RunXdr<&Buffers::putString, XDR_ENCODE, putString, kStrings>)->Name("put-string/xdr");
BENCHMARK(RunXdr<&Buffers::putString, XDR_DECODE, getString, kStrings>)->Name("get-string/xdr");
#endif

}  // namespace
