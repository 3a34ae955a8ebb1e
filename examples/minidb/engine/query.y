/* SPDX-License-Identifier: Apache-2.0
 *
 * One statement of minidb's query language. A verb is a token by what may follow it.
 * A mistake goes on to the semicolon.
 */
%token PLAIN UNARY BINARY SEARCH
%token FROM TO LIMIT
%token TEXT
%token BROKEN

%%

line:
    ';'
  | statement ';'
  | error ';'
  ;

statement:
    PLAIN
  | UNARY TEXT
  | BINARY TEXT TEXT
  | SEARCH pattern first last most
  ;

pattern: %empty | TEXT ;

first: %empty | FROM TEXT ;

last: %empty | TO TEXT ;

most: %empty | LIMIT TEXT ;
