// SPDX-License-Identifier: Apache-2.0
//
// Typed 32-bit integers and strings of 16 characters, put into a buffer and got
// out of one, beside XDR in memory. XDR is big-endian on the wire, so the buffers
// reverse too; their channel is a copy to or from memory.
#include <benchmark/benchmark.h>
#include <rpc/rpc.h>

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

  ZOV_OUTPUTBUFF output = nullptr;
  ZOV_INPUTBUFF input = nullptr;
};

void fillWireWithStrings() {
  XDR xdr;
  xdrmem_create(&xdr, wire, sizeof wire, XDR_ENCODE);
  char *source = wireString;
  for (int32_t item = 0; item < kStrings; ++item) {
    xdr_string(&xdr, &source, sizeof wireString);
  }
}

template <typename Code>
void runItems(benchmark::State &state, int32_t items, Code code) {
  for (auto _ : state) {
    for (int32_t item = 0; item < items; ++item) {
      code(item);
    }
    benchmark::ClobberMemory();
  }
  state.SetItemsProcessed(state.iterations() * items);
}

template <typename Code>
void runXdr(benchmark::State &state, xdr_op operation, int32_t items, Code code) {
  XDR xdr;
  xdrmem_create(&xdr, wire, sizeof wire, operation);
  for (auto _ : state) {
    xdr_setpos(&xdr, 0);
    for (int32_t item = 0; item < items; ++item) {
      code(&xdr, item);
    }
    benchmark::ClobberMemory();
  }
  state.SetItemsProcessed(state.iterations() * items);
}

void codeInteger(XDR *xdr, int32_t item) {
  benchmark::DoNotOptimize(xdr_int(xdr, &item));
  benchmark::DoNotOptimize(item);
}

void codeString(XDR *xdr, char *place) {
  benchmark::DoNotOptimize(xdr_string(xdr, &place, sizeof wireString));
}

void BM_PutInt32(benchmark::State &state) {
  Buffers buffers;
  runItems(state, kIntegers, [&](int32_t item) { zov_outputBuffPutInt32(buffers.output, item); });
}
BENCHMARK(BM_PutInt32)->Name("put-int32/zov");

void BM_PutInt32Xdr(benchmark::State &state) {
  runXdr(state, XDR_ENCODE, kIntegers, codeInteger);
}
BENCHMARK(BM_PutInt32Xdr)->Name("put-int32/xdr");

void BM_GetInt32(benchmark::State &state) {
  Buffers buffers;
  runItems(state, kIntegers, [&](int32_t item) {
    zov_inputBuffGetInt32(buffers.input, &item);
    benchmark::DoNotOptimize(item);
  });
}
BENCHMARK(BM_GetInt32)->Name("get-int32/zov");

void BM_GetInt32Xdr(benchmark::State &state) {
  runXdr(state, XDR_DECODE, kIntegers, codeInteger);
}
BENCHMARK(BM_GetInt32Xdr)->Name("get-int32/xdr");

void BM_PutString(benchmark::State &state) {
  Buffers buffers;
  runItems(state, kStrings,
           [&](int32_t) { zov_outputBuffPutStringWithLength(buffers.output, wireString); });
}
BENCHMARK(BM_PutString)->Name("put-string/zov");

void BM_PutStringXdr(benchmark::State &state) {
  runXdr(state, XDR_ENCODE, kStrings, [](XDR *xdr, int32_t) { codeString(xdr, wireString); });
}
BENCHMARK(BM_PutStringXdr)->Name("put-string/xdr");

void BM_GetString(benchmark::State &state) {
  Buffers buffers;
  fillWireWithStrings();
  char place[sizeof wireString];
  runItems(state, kStrings, [&](int32_t) {
    zov_inputBuffGetStringWithLength(buffers.input, place, sizeof place);
    benchmark::DoNotOptimize(place);
  });
}
BENCHMARK(BM_GetString)->Name("get-string/zov");

void BM_GetStringXdr(benchmark::State &state) {
  fillWireWithStrings();
  char place[sizeof wireString];
  runXdr(state, XDR_DECODE, kStrings, [&](XDR *xdr, int32_t) { codeString(xdr, place); });
}
BENCHMARK(BM_GetStringXdr)->Name("get-string/xdr");

}  // namespace
