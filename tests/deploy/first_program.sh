# To be sourced by bash.

# first_program LANGUAGE FILE: the first program in that language that a document shows.
first_program() { awk -v fence='```' '$0 == fence language { on = 1; next } on && $0 == fence { exit } on' language="$1" "$2"; }
