# Doxygen input filter. The headers are written with plain // comments; this turns them into
# documentation comments as doxygen reads them, line for line, so that warnings name the right
# line of the header:
#   - the comment block the file opens with documents the file,
#   - a comment on lines of its own documents what follows it,
#   - a comment after a member (";  // text" or ",  // text") documents that member (not
#     after a forward declaration, which doxygen would hand it on to the next member),
#   - comment lines indented further (tables, examples) are kept as they are.
# Usage (doxygen's INPUT_FILTER): awk -f doxygen_filter.awk <header>

function emit(line) {
  if (held)
    print pending
  pending = line
  held = 1
}

{
  line = $0
  comment = line ~ /^[ \t]*\/\/( |$)/
  indented = line ~ /^[ \t]*\/\/    */
  if (FNR == 1 && line ~ /^\/\/ /) {
    sub(/^\/\/ /, "/// @file " FILENAME " ", line)
    in_file_block = 1
  } else if (in_file_block && line ~ /^\/\/( |$)/) {
    sub(/^\/\//, "///", line)
  } else {
    in_file_block = 0
    if (comment) {
      sub(/\/\//, "///", line)
    } else if (line ~ /^[ \t]*[^ \t#}].*[;,]  \/\/ / &&
               line !~ /^[ \t]*(class|struct)[ \t]+[A-Za-z0-9_]+;/) {
      sub(/  \/\/ /, "  ///< ", line)
    }
  }
  if (indented && !in_code && previous_comment) {
    pending = pending " @code{.unparsed}"
    in_code = 1
  } else if (!indented && in_code) {
    pending = pending " @endcode"
    in_code = 0
  }
  previous_comment = comment
  emit(line)
}

END {
  if (in_code)
    pending = pending " @endcode"
  if (held)
    print pending
}
