/* SPDX-License-Identifier: Apache-2.0
 *
 * Statements of expressions, with what a grammar can have: levels of precedence,
 * operators that do not associate, rules that one more token tells apart, empty
 * rules, rules in the middle, a rule that names the end of the input, and errors
 * inside and at the end of statements.
 *
 * The actions are for bison's own parser, beside which the driver is tested.
 * REDUCE hands over the number of the rule, which counts from 1 there, and where
 * its values are.
 */
%code {
uint64_t reduceRule(void *run, int rule, int length, const uint64_t *lastValue);
int fetchToken(uint64_t *value, void *run);
#define yylex fetchToken
#define REDUCE yyval = reduceRule(run, yyn - 1, yylen, yyvsp); yyerrok
static void yyerror(void *run, const char *text) { (void)run; (void)text; }
}
%code requires {
#include <stdint.h>
}
%define api.pure full
%define api.value.type {uint64_t}
%param {void *run}
%initial-action { yylval = 0; }

%token NUMBER NAME IF END 0
%nonassoc '<'
%left '+' '-'
%left '*'
%right '^'
%precedence SIGN

%%

program: %empty { REDUCE; } | program statement { REDUCE; } ;

statement:
    expr ';' { REDUCE; } | target '=' expr ';' { REDUCE; }
  | IF '(' expr ')' { REDUCE; } statement { REDUCE; } | '{' program '}' { REDUCE; }
  | error ';' { REDUCE; } | '[' error ']' { REDUCE; }
  | expr END { REDUCE; } ;

target: NAME { REDUCE; } ;

expr:
    NUMBER { REDUCE; } | NAME { REDUCE; }
  | NAME '(' arguments ')' { REDUCE; } | expr '<' expr { REDUCE; }
  | expr '+' expr { REDUCE; } | expr '-' expr { REDUCE; }
  | expr '*' expr { REDUCE; } | expr '^' expr { REDUCE; }
  | '-' expr %prec SIGN { REDUCE; }
  | '(' expr ')' { REDUCE; } | '(' error ')' { REDUCE; } ;

arguments: %empty { REDUCE; } | list { REDUCE; } ;

list: expr { REDUCE; } | list ',' expr { REDUCE; } ;
