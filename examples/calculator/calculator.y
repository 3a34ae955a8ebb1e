/* SPDX-License-Identifier: Apache-2.0
 *
 * Lines of expressions and assignments. docs/parser.md walks through it.
 */
%token NUMBER NAME
%left '+' '-'
%left '*' '/'
%precedence SIGN

%%

lines: %empty | lines line ;

line:
    '\n'
  | expr '\n'
  | NAME '=' expr '\n'
  | error '\n'
  ;

expr:
    NUMBER
  | NAME
  | expr '+' expr
  | expr '-' expr
  | expr '*' expr
  | expr '/' expr
  | '-' expr %prec SIGN
  | '(' expr ')'
  ;
