// SPDX-License-Identifier: Apache-2.0
//
// Queries: statements of the language in query.y.
#ifndef MINIDB_QUERY_H
#define MINIDB_QUERY_H

#include "engine/lexer.h"
#include "engine/session.h"

namespace minidb {

// Runs the statements of a text one by one; the last one may lack its semicolon.
// A statement that is wrong or fails is reported to the session's output, with
// line, column and token if it is not of the language, and the next one runs.
// `position` is that of the text's first character. False when one failed.
bool runQuery(Session &session, Text text, Position position);

}  // namespace minidb

#endif
