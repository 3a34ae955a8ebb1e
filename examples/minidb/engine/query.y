/* SPDX-License-Identifier: Apache-2.0
 *
 * The query language of minidb. Each statement ends at a semicolon, and so does
 * each mistake: what follows is read as if nothing had been.
 */
%token PUT GET DELETE FIND COUNT LOAD DUMP COMPACT BEGIN COMMIT ABORT SET SETTINGS
%token FROM TO BYTES UTF16
%token WORD STRING
%token BROKEN

%%

script: %empty | script line ;

line:
    ';'
  | statement ';'
  | error ';'
  ;

statement:
    put | get | delete | find | count | load | dump | compact
  | begin | commit | abort
  | set | settings
  ;

put: PUT text text ;

get: GET text ;

delete: DELETE text ;

find: FIND filter ;

count: COUNT filter ;

load: LOAD text ;

dump: DUMP text | DUMP text BYTES | DUMP text UTF16 ;

compact: COMPACT ;

begin: BEGIN ;

commit: COMMIT ;

abort: ABORT ;

set: SET text text ;

settings: SETTINGS ;

filter: pattern first last ;

pattern: %empty | text ;

first: %empty | FROM text ;

last: %empty | TO text ;

text: WORD | STRING ;
