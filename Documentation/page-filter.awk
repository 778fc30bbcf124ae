# Doxygen's view of a page: each heading gets a label of its own, and a link to a page, or to a
# heading as a forge names it, leads to that label.

BEGIN {
  page = ARGV[1]
  sub(/.*\//, "", page)
  sub(/\.md$/, "", page)
}

# A heading's name in a link: "Memory and time" is "memory-and-time".
function slug(title) {
  title = tolower(title)
  gsub(/[^a-z0-9 _-]/, "", title)
  gsub(/ /, "-", title)
  return title
}

# What a link's target is called here. A picture or another site stays as it is; a file that is not
# part of the reference has no name.
function label(target,    name, place) {
  if (target ~ /^#/) return "@ref " page "_" substr(target, 2)
  if (target ~ /:|\.svg$/) return target
  if (target !~ /\.md(#.*)?$/) return ""
  name = target
  sub(/#.*/, "", name)
  if (name ~ /README\.md$/) return ""  # a folder's, which is no page
  place = substr(target, length(name) + 2)
  sub(/.*\//, "", name)
  sub(/\.md$/, "", name)
  return "@ref " (place == "" ? "page_" name : name "_" place)
}

/^```/ { fenced = !fenced }
fenced || /^```/ { print; next }

/^# / && page != "README" { $0 = $0 " {#page_" page "}" }
/^##+ / { title = $0; sub(/^#+ /, "", title); $0 = $0 " {#" page "_" slug(title) "}" }
# Doxygen takes a link to a label only if its text is on one line.
{
  while ($0 ~ /\[[^]]*$/ && (getline following) > 0) {
    sub(/^ */, "", following)
    $0 = $0 " " following
  }
  rest = $0
  line = ""
  while (match(rest, /\]\([^() ]*\)/)) {
    text = line substr(rest, 1, RSTART - 1)
    target = label(substr(rest, RSTART + 2, RLENGTH - 3))
    rest = substr(rest, RSTART + RLENGTH)
    if (target != "") text = text "](" target ")"
    else sub(/\[[^[]*$/, "\001&", text) && sub(/\001\[/, "", text)
    line = text
  }
  print line rest
}
