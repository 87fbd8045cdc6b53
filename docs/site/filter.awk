# Prepares a file for Doxygen: awk -f filter.awk NAME.
#
# Headers: a comment that stands above declarations becomes a documenting one, for all
# declarations down to the next blank line; so does one behind a declaration. Comments in
# the bodies of functions stay as they are.
#
# Pages: headings get the anchors that links to them use, and links to pages become Doxygen's.

# The text of a comment without the characters that Doxygen would read as its own, except
# between backticks, where it reads none.
function plain(text,   part, count, i, result) {
  count = split(text, part, "`")
  for (i = 1; i <= count; ++i) {
    if (i % 2) gsub(/[\\@<>#%&]/, "\\\\&", part[i])
    result = result (i > 1 ? "`" : "") part[i]
  }
  return result
}

function indent_of(text) { match(text, /^ */); return RLENGTH }
function is_comment(text) { return text ~ /^ *\/\// }

# Writes the comment of the lines from `first` to `last`. Examples, three blanks deep, are code.
function documentation(first, last, opening,   i, text, code, was_code) {
  printf "%s/** %s", substr("    ", 1, indent_of(line[first])), opening
  for (i = first; i <= last; ++i) {
    text = line[i]
    sub(/^ *\/\/ ?/, "", text)
    code = text ~ /^  +[^ ]/ && text !~ /^  +- / && (was_code || i == first || line[i - 1] ~ /^ *\/\/$/)
    if (code != was_code) print ""
    was_code = code
    print (code ? "    " text : plain(text))
  }
  print "*/"
}

# With its comment behind it, if it has one, as documentation.
function declaration(text,   at) {
  if (text !~ /^ *[#}]/ && match(text, /[;,A-Za-z0-9_)] +\/\/ /)) {
    at = RSTART
    return substr(text, 1, at) " ///< " plain(substr(text, at + RLENGTH))
  }
  return text
}

# The last line of the declarations that begin at `from`: before a blank line, another comment,
# or the end of their section.
function end_of_group(from, depth,   i) {
  for (i = from; line[i] !~ /^ *$|^ *(public|protected|private):/ &&
                 !(is_comment(line[i]) && indent_of(line[i]) == depth) &&
                 !(line[i] ~ /^ *}/ && indent_of(line[i]) < depth); ++i) {}
  return i - 1
}

function copy(from, to, documented,   i) {
  for (i = from; i <= to; ++i) {
    if (line[i] ~ /^}/) in_body = 0
    else if (line[i] ~ /^[^ #].*\) ?\{$/) in_body = 1
    # Without a comment, what the compiler makes or refuses is not worth a place.
    if (!documented && line[i] ~ /^  [^ ].* = (default|delete);/ && line[i - 1] !~ /^ *(template|requires|   )/)
      continue
    print (in_body ? line[i] : declaration(line[i]))
  }
}

function header(   i, j, from, to, depth, next_declaration) {
  for (i = 1; is_comment(line[i]); ++i) {}
  documentation(1, i - 1, "@file\n")
  for (; i <= lines; ++i) {
    depth = indent_of(line[i])
    if (in_body || !is_comment(line[i]) || depth > 2) {
      copy(i, i)
      continue
    }
    for (j = i; is_comment(line[j + 1]) && indent_of(line[j + 1]) == depth; ++j) {}
    from = j + 1
    to = end_of_group(from, depth)
    if (line[from] ~ /^ *$/) {  # stands alone
      copy(i, j)
      i = j
    } else if (line[from] ~ /^ *#define/) {  # a macro that makes the declarations
      while (line[from] ~ /\\$/) print line[from++]
      print line[from++]
      print "/**@{*/"
      documentation(i, j, "")
      copy(from, to, 1)
      print "/**@}*/"
      i = to
    } else if (line[from] ~ opens_type || line[from] ~ /^ *template/ && line[from + 1] ~ opens_type) {
      documentation(i, j, "")
      i = j
    } else {
      next_declaration = 1
      for (; from <= to; ++from) {
        if (from > j + 1 && line[from] ~ /^  [^ ].* = default;$/) continue  # copies
        # The first override has the comment, and the others have that of their base class, if
        # it is one of velt.
        if (next_declaration && indent_of(line[from]) == depth && (from == j + 1 || line[from] !~ /override;/ || line[from] ~ /STDMETHOD/))
          documentation(i, j, "")
        next_declaration = line[from] ~ /[;}]( *\/\/.*)?$/ && indent_of(line[from]) == depth || \
                           line[from] ~ /;( *\/\/.*)?$/ && !has_body
        if (indent_of(line[from]) == depth) has_body = line[from] ~ /\{$/
        copy(from, from, 1)
      }
      i = to
    }
  }
}

# The anchor of a heading, as links write it.
function anchor(title) {
  title = tolower(title)
  gsub(/[^a-z0-9 _-]/, "", title)
  gsub(/ /, "-", title)
  return title
}

# Links to "page.md", "docs/page.md#heading" and "#heading" become references.
function with_references(text,   result, target, page, name) {
  while (match(text, /\]\([^)]*\)/)) {
    target = substr(text, RSTART + 2, RLENGTH - 3)
    result = result substr(text, 1, RSTART + 1)
    text = substr(text, RSTART + RLENGTH - 1)
    if (target ~ /\.md(#|$)|^#/) {
      page = target
      sub(/#.*/, "", page)
      name = page == "" ? own_name : page_name(page)
      sub(/^[^#]*#?/, "", target)
      target = "@ref " name (target == "" ? "" : "_" target)
    }
    result = result target
  }
  return result text
}

# Doxygen looks for the class of "module!Class::name", even between backticks.
function with_names_in_reports(text,   result, span) {
  while (match(text, /`[^`]*![^`]*::[^`]*`|`Reader::[^`]*`/)) {
    span = substr(text, RSTART + 1, RLENGTH - 2)
    gsub(/[#<>]|::/, "\\\\&", span)
    result = result substr(text, 1, RSTART - 1) "<code>" span "</code>"
    text = substr(text, RSTART + RLENGTH)
  }
  return result text
}

function page_name(path) {
  sub(/.*\//, "", path)
  sub(/\.md$/, "", path)
  return "page_" tolower(path)
}

function page(   i, in_code, title, seen, id) {
  own_name = page_name(FILENAME)
  for (i = 1; i <= lines; ++i) {
    if (line[i] ~ /^```/) {
      in_code = !in_code
      sub(/^```cpp .*/, "```cpp", line[i])
    } else if (!in_code && line[i] ~ /^#+ /) {
      title = line[i]
      sub(/^#+ /, "", title)
      id = anchor(title)
      id = own_name (i == 1 ? "" : "_" id (seen[id]++ ? "-" seen[id] - 1 : ""))
      line[i] = line[i] " {#" id "}"
    } else if (!in_code && line[i] !~ /^    /) {
      line[i] = with_references(line[i])
      line[i] = with_names_in_reports(line[i])
    }
    print line[i]
  }
}

BEGIN { opens_type = "^ *(class|struct|union|enum|concept) " }
{ line[++lines] = $0 }
END { if (FILENAME ~ /\.md$/) page(); else header() }
