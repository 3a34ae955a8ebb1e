// SPDX-License-Identifier: Apache-2.0
//
// A driver for LALR(1) tables in the layout of the classic yacc. It keeps states
// and values on two stacks and asks the caller for tokens and for the meaning of
// rules:
//
//   states   0 | 4 | 17 | 9 |          the newest is the state the parser is in
//   values   - | v | v  | v |          the value of the symbol that entered each:
//                             next     the lexer's after a shift, else the rule's
//
// The tables share cells: a cell found by base + token, or base + state, holds a
// state, which counts only when the symbol looked for enters it. check has, for
// each state, the token (or minus the non-terminal) that enters it.
//
// All state lives in the call, so parses are independent. The stacks belong to the
// caller's tag, which may jump, or to a tag that lives as long as the call.
#include <assert.h>
#include <string.h>

#include "core/zov_make.h"
#include "zov.h"

namespace zov {
namespace {

// At or below it an entry of the base table allows no shift.
constexpr int32_t kNoShift = -1000;

// The default rule that stands for a look into the exception table.
constexpr int32_t kSeeExceptions = 65534;

constexpr int32_t kSyntaxError = 0;

// First in a pair of the exception table: the section of a state begins.
constexpr int32_t kSection = -1;

constexpr int32_t kEndOfInput = 0;
constexpr int32_t kNoToken = -1;

// The recovery counter after an error: so many shifts end recovery.
constexpr int32_t kRecovering = 3;

constexpr int32_t kFirstCapacity = 100;
constexpr uint32_t kGrowth = 50;

// 1. states <= next <= last; the entry at next exists, and can be read.
// 2. nextValue stands in values where next does in states. It is kept, as capacity
//    and last are, to spare each step the arithmetic.
// 3. token is kNoToken or at least 0.
// 4. 0 <= recovery <= kRecovering.
struct Parser {
  const ZOV_PARSE_CONTEXT &context;
  const ZOV_PARSE_TABLES &tables;
  ZOV_TAG tag;
  uint32_t capacity = kFirstCapacity;
  int16_t *states = nullptr;
  int16_t *next = nullptr;
  int16_t *last = nullptr;  // the last entry there is room for
  char *values = nullptr;
  char *nextValue = nullptr;
  char *lexed = nullptr;     // the lexer's last value
  char *result = nullptr;    // of the last reduction
  int32_t state = 0;         // the newest of states
  int32_t token = kNoToken;  // the look-ahead
  int32_t recovery = 0;
  int32_t status = 0;
  bool isAbandoned = false;  // no state was left that takes the error token
};

// A size that overflows becomes one that the tag refuses.
uint64_t bytesOfValues(uint64_t valueSize, uint64_t count) {
  return valueSize > UINT64_MAX / count ? UINT64_MAX : valueSize * count;
}

char *makeValues(uint64_t valueSize, uint64_t count, ZOV_TAG tag) {
  return makeZeroArray<char>(bytesOfValues(valueSize, count), tag, ZOV_HERE);
}

// Makes empty stacks and the two values beside them.
inline bool makeStacks(Parser &parser) {
  const uint64_t valueSize = parser.context.valueSize;
  int16_t *states = makeZeroArray<int16_t>(kFirstCapacity, parser.tag, ZOV_HERE);
  char *values = states == nullptr ? nullptr : makeValues(valueSize, kFirstCapacity, parser.tag);
  char *two = values == nullptr ? nullptr : makeValues(valueSize, 2, parser.tag);
  if (two == nullptr) {
    return false;
  }
  parser.states = parser.next = states;
  parser.last = parser.states + kFirstCapacity - 1;
  parser.values = parser.nextValue = values;
  parser.lexed = two;
  parser.result = parser.lexed + valueSize;
  return true;
}

// Grows stacks that are full.
inline bool growStacks(Parser &parser) {
  assert(parser.next == parser.last && parser.last - parser.states + 1 == parser.capacity);
  const uint64_t valueSize = parser.context.valueSize;
  const uint64_t depth = static_cast<uint64_t>(parser.next - parser.states);
  const uint64_t capacity = uint64_t{parser.capacity} + kGrowth;
  int16_t *states = parser.states;  // copies, so that the record stays in registers
  char *values = parser.values;
  if (!growArray(states, capacity, kGrowth, parser.tag, ZOV_HERE) ||
      !growArray(values, bytesOfValues(valueSize, capacity), bytesOfValues(valueSize, kGrowth),
                 parser.tag, ZOV_HERE)) {
    return false;
  }
  parser.capacity += kGrowth;
  parser.states = states;
  parser.values = values;
  parser.next = parser.states + depth;
  parser.last = parser.states + capacity - 1;
  parser.nextValue = parser.values + depth * valueSize;
  return true;
}

// The steps below are made once for each common size of a value, which the compiler
// then knows, and once, with 0, for all others.
template <uint64_t kSize>
inline uint64_t sizeOfValue(const Parser &parser) {
  return kSize != 0 ? kSize : parser.context.valueSize;
}

inline bool stop(Parser &parser, int32_t status) {
  parser.status = status;
  return false;
}

// Enters a state. Tells, as all steps do, whether the parse goes on.
template <uint64_t kSize>
inline bool enter(Parser &parser, int32_t state, const char *value) {
  assert(parser.states <= parser.next && parser.next <= parser.last);
  if (parser.next == parser.last && !growStacks(parser)) [[unlikely]] {
    return stop(parser, ZOV_NOMEMORY);
  }
  const uint64_t size = sizeOfValue<kSize>(parser);
  assert(parser.nextValue ==
         parser.values + static_cast<uint64_t>(parser.next - parser.states) * size);
  parser.state = state;
  *parser.next++ = static_cast<int16_t>(state);
  memcpy(parser.nextValue, value, size);
  parser.nextValue += size;
  return true;
}

// The state in a cell of the action table if it is one that the symbol enters,
// else -1.
inline int32_t stateInCell(const ZOV_PARSE_TABLES &tables, int32_t cell, int32_t symbol) {
  if (cell < 0 || cell >= tables.tableLength) {
    return -1;
  }
  const int32_t state = tables.action[cell];
  return tables.check[state] == symbol ? state : -1;
}

inline void fetchToken(Parser &parser) {
  if (parser.token == kNoToken) {
    const int32_t token = parser.context.lexer(parser.context.userContext, parser.lexed);
    parser.token = token < 0 ? kEndOfInput : token;
  }
}

// The state that the look-ahead leads to, or -1.
inline int32_t stateToShift(Parser &parser) {
  const int32_t base = parser.tables.pact[parser.state];
  if (base <= kNoShift) {
    return -1;
  }
  fetchToken(parser);
  return stateInCell(parser.tables, base + parser.token, parser.token);
}

template <uint64_t kSize>
inline bool shift(Parser &parser, int32_t state) {
  assert(parser.recovery >= 0 && parser.recovery <= kRecovering);
  parser.token = kNoToken;
  parser.recovery -= parser.recovery > 0 ? 1 : 0;
  return enter<kSize>(parser, state, parser.lexed);
}

// The rule for the look-ahead in a state that has several; negative to accept.
inline int32_t exceptionRule(const ZOV_PARSE_TABLES &tables, int32_t state, int32_t token) {
  const int16_t *pair = tables.exceptions;
  while (pair[0] != kSection || pair[1] != state) {
    pair += 2;
  }
  do {
    pair += 2;
  } while (pair[0] >= 0 && pair[0] != token);
  return pair[1];
}

// Pops the right-hand side of a rule, runs its action and enters the state that its
// left side leads to. The popped values stay in place until then; the first of them
// is the result unless the action stores another.
template <uint64_t kSize>
inline bool reduce(Parser &parser, int32_t rule) {
  const ZOV_PARSE_TABLES &tables = parser.tables;
  const uint64_t size = sizeOfValue<kSize>(parser);
  const int32_t length = tables.ruleLength[rule];
  const int32_t nonTerminal = tables.ruleLeft[rule];
  assert(parser.next - parser.states > length);
  char *lastValue = parser.nextValue - size;
  parser.next -= length;
  parser.nextValue -= static_cast<uint64_t>(length) * size;
  memcpy(parser.result, parser.nextValue, size);
  const int32_t base = tables.pgo[nonTerminal];
  const int32_t state = stateInCell(tables, base + parser.next[-1] + 1, -nonTerminal);
  const int32_t status =
      parser.context.action(parser.context.userContext, lastValue, rule, parser.result);
  if (status != 0) {
    return stop(parser, status);
  }
  // Any reduction ends recovery, unlike yacc's three shifts; zov_yyparse() documents
  // the consequences.
  parser.recovery = 0;
  return enter<kSize>(parser, state < 0 ? tables.action[base] : state, parser.result);
}

// Drops states until one takes the error token, and shifts it there.
template <uint64_t kSize>
inline bool shiftError(Parser &parser) {
  const ZOV_PARSE_TABLES &tables = parser.tables;
  parser.recovery = kRecovering;
  while (parser.next > parser.states) {
    const int32_t base = tables.pact[parser.next[-1]];
    const int32_t state =
        base > kNoShift ? stateInCell(tables, base + tables.errorToken, tables.errorToken) : -1;
    if (state >= 0) {
      return enter<kSize>(parser, state, parser.lexed);
    }
    --parser.next;
    parser.nextValue -= sizeOfValue<kSize>(parser);
  }
  parser.isAbandoned = true;
  return stop(parser, kRecovering);
}

// The first error of several drops states, those that follow drop tokens.
template <uint64_t kSize>
inline bool recover(Parser &parser) {
  if (parser.recovery < kRecovering) {
    return shiftError<kSize>(parser);
  }
  fetchToken(parser);
  if (parser.token == kEndOfInput) {
    return stop(parser, kRecovering);
  }
  parser.token = kNoToken;
  return true;
}

template <uint64_t kSize>
inline bool step(Parser &parser) {
  const int32_t state = stateToShift(parser);
  if (state >= 0) {
    return shift<kSize>(parser, state);
  }
  int32_t rule = parser.tables.defaultRule[parser.state];
  if (rule == kSeeExceptions) {
    fetchToken(parser);
    rule = exceptionRule(parser.tables, parser.state, parser.token);
    if (rule < 0) {
      return stop(parser, parser.recovery);
    }
  }
  return rule == kSyntaxError ? recover<kSize>(parser) : reduce<kSize>(parser, rule);
}

struct Outcome {
  int32_t status;
  bool isAbandoned;
};

template <uint64_t kSize>
Outcome parseTokens(const ZOV_PARSE_CONTEXT &context, ZOV_TAG tag) {
  Parser parser{context, *context.tables, tag};
  if (!makeStacks(parser)) {
    return {ZOV_NOMEMORY, false};
  }
  bool running = enter<kSize>(parser, 0, parser.result);
  while (running) {
    running = step<kSize>(parser);
  }
  return {parser.status, parser.isAbandoned};
}

Outcome _yyparse(const ZOV_PARSE_CONTEXT &context, ZOV_TAG tag) {
  switch (context.valueSize) {
    case 4:
      return parseTokens<4>(context, tag);
    case 8:
      return parseTokens<8>(context, tag);
    case 16:
      return parseTokens<16>(context, tag);
    default:
      return parseTokens<0>(context, tag);
  }
}

}  // namespace
}  // namespace zov

extern "C" int32_t zov_yyparse(const ZOV_PARSE_CONTEXT *context) {
  const bool ownTag = context->tag == ZOV_DEFAULT_TAG;
  const ZOV_TAG tag = ownTag ? zov_createTagEx(nullptr, 0, ZOV_HERE) : context->tag;
  const zov::Outcome outcome = zov::_yyparse(*context, tag);
  if (ownTag) {
    zov_freeTagMemory(tag, 1);
  }
  if (outcome.isAbandoned && context->error != nullptr) {
    context->error(context->userContext);
  }
  return outcome.status;
}
