/* SPDX-License-Identifier: Apache-2.0
 *
 * A calculator, for the driver and for bison's own parser beside it.
 */
%code {
int calculatorToken(double *value, void *input);
void calculatorResult(void *input, double value);
#define yylex calculatorToken
static void yyerror(void *input, const char *text) { (void)input; (void)text; }
}
%define api.pure full
%define api.value.type {double}
%param {void *input}

%token NUMBER
%left '+' '-'
%left '*' '/'
%precedence SIGN

%%

lines: %empty | lines line ;

line: expr ';' { calculatorResult(input, $1); } | error ';' ;

expr:
    NUMBER
  | expr '+' expr { $$ = $1 + $3; }
  | expr '-' expr { $$ = $1 - $3; }
  | expr '*' expr { $$ = $1 * $3; }
  | expr '/' expr { $$ = $1 / $3; }
  | '-' expr %prec SIGN { $$ = -$2; }
  | '(' expr ')' { $$ = $2; }
  ;
