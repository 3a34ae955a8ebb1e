/* SPDX-License-Identifier: Apache-2.0
 *
 * One statement of minidb's query language. A mistake goes on to the semicolon.
 * The value of a rule is that of its first symbol, so that a statement is known
 * by its first word.
 */
%token PUT GET DELETE FIND COUNT LOAD DUMP COMPACT BEGIN COMMIT ABORT
%token SET SETTINGS STATS CHECK HELP QUIT
%token FROM TO LIMIT
%token WORD STRING
%token BROKEN

%%

line:
    ';'
  | statement ';'
  | error ';'
  ;

statement:
    plain
  | unary text
  | binary text text
  | search pattern first last most
  ;

plain:
    COMPACT | BEGIN | COMMIT | ABORT | SETTINGS | STATS | CHECK | HELP | QUIT
  ;

unary: GET | DELETE | LOAD | DUMP ;

binary: PUT | SET ;

search: FIND | COUNT ;

pattern: %empty | text ;

first: %empty | FROM text ;

last: %empty | TO text ;

most: %empty | LIMIT text ;

text: WORD | STRING ;
