// SPDX-License-Identifier: Apache-2.0
//
// A driver for LALR(1) tables in the layout of the classic yacc. It pushes down
// states and values on two stacks of its own and asks the caller for tokens and
// for the meaning of rules:
//
//   states   0 | 4 | 17 | 9 |            top is the newest entry of both
//   values   ? | v | v  | v |
//   current  what the next push copies:  the lexer's value after a shift, the
//                                        result after a reduction
//
// The tables share cells: a cell found by base + token, or base + state, holds a
// state, and belongs to whoever asked only when that state is entered by what was
// asked for. check has, for each state, the token (or minus the non-terminal) by
// which it is entered.
//
// All state lives in the call, so parses are independent. The stacks belong to the
// caller's tag, which may jump, or to a tag that lives as long as the call.
#include <string.h>

#include "zov.h"

namespace {

// At or below it an entry of the base table allows no shift.
constexpr int32_t kNoShift = -1000;

// The default rule that stands for a look into the exception table.
constexpr int32_t kSeeExceptions = 65534;

constexpr int32_t kSyntaxError = 0;

// In a pair of the exception table: opens the section of a state.
constexpr int32_t kSection = -1;

constexpr int32_t kEndOfInput = 0;
constexpr int32_t kNoToken = -1;

// The recovery counter after an error, the number of shifts that end recovery.
constexpr int32_t kRecovering = 3;

constexpr int32_t kFirstCapacity = 100;
constexpr int32_t kGrowth = 50;

// What a step leaves to be done.
enum class Next {
  kPush,   // the state and the current value go onto the stacks
  kRetry,  // the same state again, with another token
  kStop    // the parse is over, its status set
};

// 1. -1 <= top, and top < capacity - 1 once a push is done: the value behind the
//    top can be read too.
// 2. token is kNoToken or at least 0.
// 3. 0 <= recovery <= kRecovering.
struct Parser {
  const ZOV_PARSE_CONTEXT *context;
  const ZOV_PARSE_TABLES *tables;
  uint64_t valueSize;
  ZOV_TAG tag;
  int16_t *states;
  char *values;
  char *lexed;    // the lexer's last value
  char *result;   // of the last reduction
  char *current;  // lexed or result
  int32_t capacity;
  int32_t top;
  int32_t state;
  int32_t token;  // the look-ahead
  int32_t recovery;
  int32_t status;
  bool abandoned;  // no state was left that takes the error token
};

// Values of the common sizes are copied without a call.
inline void copyValue(const Parser &parser, char *destination, const char *source) {
  if (parser.valueSize == 8) {
    memcpy(destination, source, 8);
  } else if (parser.valueSize == 16) {
    memcpy(destination, source, 16);
  } else if (parser.valueSize == 4) {
    memcpy(destination, source, 4);
  } else {
    memcpy(destination, source, parser.valueSize);
  }
}

inline char *valueAt(const Parser &parser, int32_t index) {
  return parser.values + static_cast<uint64_t>(index) * parser.valueSize;
}

// An impossible size is left to the tag to refuse, in its own way.
uint64_t bytesOfValues(uint64_t valueSize, uint64_t count) {
  return valueSize > UINT64_MAX / count ? UINT64_MAX : valueSize * count;
}

void *getZeroed(const Parser &parser, uint64_t size) {
  return zov_getMem(size, parser.tag, ZOV_MEM_ZERO, nullptr, ZOV_HERE);
}

bool makeStacks(Parser &parser) {
  parser.states = static_cast<int16_t *>(getZeroed(parser, kFirstCapacity * sizeof(int16_t)));
  if (parser.states == nullptr) {
    return false;
  }
  parser.values =
      static_cast<char *>(getZeroed(parser, bytesOfValues(parser.valueSize, kFirstCapacity)));
  if (parser.values == nullptr) {
    return false;
  }
  parser.lexed = static_cast<char *>(getZeroed(parser, bytesOfValues(parser.valueSize, 2)));
  if (parser.lexed == nullptr) {
    return false;
  }
  parser.result = parser.lexed + parser.valueSize;
  parser.current = parser.result;
  return true;
}

[[gnu::cold, gnu::noinline]] bool growStacks(Parser &parser) {
  const uint64_t capacity = static_cast<uint64_t>(parser.capacity) + kGrowth;
  void *states = zov_extendMem(parser.states, capacity * sizeof(int16_t), parser.tag, 1,
                               kGrowth * sizeof(int16_t), ZOV_HERE);
  if (states == nullptr) {
    return false;
  }
  parser.states = static_cast<int16_t *>(states);
  void *values = zov_extendMem(parser.values, bytesOfValues(parser.valueSize, capacity), parser.tag,
                               1, bytesOfValues(parser.valueSize, kGrowth), ZOV_HERE);
  if (values == nullptr) {
    return false;
  }
  parser.values = static_cast<char *>(values);
  parser.capacity += kGrowth;
  return true;
}

inline bool push(Parser &parser) {
  ++parser.top;
  if (parser.top == parser.capacity - 1 && !growStacks(parser)) [[unlikely]] {
    return false;
  }
  parser.states[parser.top] = static_cast<int16_t>(parser.state);
  copyValue(parser, valueAt(parser, parser.top), parser.current);
  return true;
}

// The state in a cell of the action table that holds one entered by the symbol,
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
    const int32_t token = parser.context->lexer(parser.context->userContext, parser.lexed);
    parser.token = token < 0 ? kEndOfInput : token;
  }
}

inline void enterState(Parser &parser, int32_t state, char *value) {
  parser.state = state;
  parser.current = value;
}

// Shifts the look-ahead, if the state has a place for it.
inline bool shift(Parser &parser) {
  const int32_t base = parser.tables->pact[parser.state];
  if (base <= kNoShift) {
    return false;
  }
  fetchToken(parser);
  const int32_t state = stateInCell(*parser.tables, base + parser.token, parser.token);
  if (state < 0) {
    return false;
  }
  enterState(parser, state, parser.lexed);
  parser.token = kNoToken;
  if (parser.recovery > 0) {
    --parser.recovery;
  }
  return true;
}

// The rule for the look-ahead in a state that has several; negative to accept.
int32_t exceptionRule(const Parser &parser) {
  const int16_t *pair = parser.tables->exceptions;
  while (pair[0] != kSection || pair[1] != parser.state) {
    pair += 2;
  }
  do {
    pair += 2;
  } while (pair[0] >= 0 && pair[0] != parser.token);
  return pair[1];
}

// The state that follows a non-terminal in the state on top.
inline int32_t stateAfter(const Parser &parser, int32_t nonTerminal) {
  const ZOV_PARSE_TABLES &tables = *parser.tables;
  const int32_t base = tables.pgo[nonTerminal];
  const int32_t state = stateInCell(tables, base + parser.states[parser.top] + 1, -nonTerminal);
  return state < 0 ? tables.action[base] : state;
}

// Pops the right-hand side of a rule and runs its action. The popped values stay
// where they are until the next push; the first of them is the result unless the
// action stores another.
inline Next reduce(Parser &parser, int32_t rule) {
  char *lastValue = valueAt(parser, parser.top);
  parser.top -= parser.tables->ruleLength[rule];
  copyValue(parser, parser.result, valueAt(parser, parser.top + 1));
  enterState(parser, stateAfter(parser, parser.tables->ruleLeft[rule]), parser.result);
  parser.status =
      parser.context->action(parser.context->userContext, lastValue, rule, parser.result);
  if (parser.status != 0) {
    return Next::kStop;
  }
  parser.recovery = 0;  // a reduction ends recovery, by design
  return Next::kPush;
}

// Drops states until one takes the error token, and shifts it there.
Next shiftError(Parser &parser) {
  const ZOV_PARSE_TABLES &tables = *parser.tables;
  parser.recovery = kRecovering;
  for (; parser.top >= 0; --parser.top) {
    const int32_t base = tables.pact[parser.states[parser.top]];
    const int32_t state =
        base > kNoShift ? stateInCell(tables, base + tables.errorToken, tables.errorToken) : -1;
    if (state >= 0) {
      enterState(parser, state, parser.lexed);
      return Next::kPush;
    }
  }
  parser.abandoned = true;
  parser.status = kRecovering;
  return Next::kStop;
}

[[gnu::noinline]] Next recover(Parser &parser) {
  if (parser.recovery < kRecovering) {
    return shiftError(parser);
  }
  fetchToken(parser);
  if (parser.token == kEndOfInput) {
    parser.status = kRecovering;
    return Next::kStop;
  }
  parser.token = kNoToken;
  return Next::kRetry;
}

inline Next step(Parser &parser) {
  if (shift(parser)) {
    return Next::kPush;
  }
  int32_t rule = parser.tables->defaultRule[parser.state];
  if (rule == kSeeExceptions) {
    fetchToken(parser);
    rule = exceptionRule(parser);
    if (rule < 0) {
      parser.status = parser.recovery;
      return Next::kStop;
    }
  }
  return rule == kSyntaxError ? recover(parser) : reduce(parser, rule);
}

int32_t _yyparse(Parser &parser) {
  if (!makeStacks(parser)) {
    return ZOV_NOMEMORY;
  }
  Next next = Next::kPush;
  while (next != Next::kStop) {
    if (next == Next::kPush && !push(parser)) {
      return ZOV_NOMEMORY;
    }
    next = step(parser);
  }
  return parser.status;
}

}  // namespace

extern "C" int32_t zov_yyparse(const ZOV_PARSE_CONTEXT *context) {
  const bool ownTag = context->tag == ZOV_DEFAULT_TAG;
  Parser parser{};
  parser.context = context;
  parser.tables = context->tables;
  parser.valueSize = context->valueSize;
  parser.tag = ownTag ? zov_createTagEx(nullptr, 0, ZOV_HERE) : context->tag;
  parser.capacity = kFirstCapacity;
  parser.top = -1;
  parser.token = kNoToken;
  const int32_t status = _yyparse(parser);
  if (ownTag) {
    zov_freeTagMemory(parser.tag, 1);
  }
  if (parser.abandoned && context->error != nullptr) {
    context->error(context->userContext);
  }
  return status;
}
