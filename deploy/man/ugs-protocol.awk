# Mends what go-md2man writes: its tables overflow a terminal, since only some of their long cells are text that tbl(1)
# may break; they have heads without text; not every reader of manuals knows font C, or expects a paragraph
# right after a heading.

# Names are not hyphenated.
{ gsub(/\\fC/, "\\%") }

/^\.TS/ {
  part = "format"
  rows = ""
  split("", wide)
  next
}

part == "format" {
  if (/\.$/) {
    columns = NF - 1
    part = "rows"
  }
  next
}

/^\.TE/ {
  format = ""
  for (column = 1; column <= columns; column++) format = format (column in wide ? "lx " : "l ")
  printf ".TS\nallbox;\n%s.\n%s.TE\n", format, rows
  part = ""
  next
}

part == "rows" && inText && !/^T}/ {
  rows = rows $0 "\n"
  next
}

part == "rows" {
  if (/^(\\f[BR]|\\%|\t)*$/) next
  count = split($0, cells, "\t")
  line = ""
  for (cell = 1; cell <= count; cell++) {
    if (length(cells[cell]) > 30) cells[cell] = "T{\n" cells[cell] "\nT}"
    if (cells[cell] ~ /^T{/) wide[before + cell] = 1
    line = line (cell > 1 ? "\t" : "") cells[cell]
  }
  rows = rows line "\n"
  inText = /T{$/
  before = inText ? before + count - 1 : 0
  next
}

!(/^\.PP/ && previous ~ /^\.SH/)

{ previous = $0 }
