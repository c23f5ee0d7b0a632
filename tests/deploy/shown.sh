# To be sourced by bash.

# shown LANGUAGE FILE: the first program in that language that a document shows.
shown() { awk -v fence='```' '$0 == fence language { on = 1; next } on && $0 == fence { exit } on' language="$1" "$2"; }
