#!/bin/sh
# Which part of the tree may include which headers. Usage: check_includes.sh ROOT
#
# A header of the project begins with es_acl/ or es_platform/ in quotes or brackets. Any other quoted one is local and
# stands in the including part itself; any other bracketed one is the system's or a package's.
set -eu
cd "$1"
bad=0

includes() {
  grep -rnE --include='*.h' --include='*.c' --include='*.cpp' '^[[:space:]]*#[[:space:]]*include' "$@"
}

# check DIRECTORY PATTERN: the sources below DIRECTORY include only project headers that match PATTERN.
check() {
  local_headers=$(find "$1" -name '*.h' -printf '%f|')
  if includes "$1" |
    grep -vP "include\s*([\"<]($2)[\">]|\"([a-z_]+/)*(${local_headers}none)\"|<(?!es_acl/|es_platform/|.*\.\.)[^>]+>)" >&2; then
    echo "$1 may not include the headers above" >&2
    bad=1
  fi
}

check include 'es_acl/[a-z_]+\.h'
check lib/src '(es_acl|es_platform)/[a-z_]+\.h'
check platform/include 'es_platform/[a-z_]+\.h'
check platform/src 'es_platform/[a-z_]+\.h'
check store 'es_acl/[a-z_]+\.h'
check producer 'es_acl/es_acl_(wire|digest|types|export)\.h|es_platform/[a-z_]+\.h'
check tools '(es_acl|es_platform)/[a-z_]+\.h'
check examples '(es_acl|es_platform)/[a-z_]+\.h'

# Nothing but the language's library and the host below these: no header of a package.
if includes include lib/src platform/include platform/src store | grep -E '<[^>]+/' |
  grep -vE '<(sys|linux|net|netinet|arpa|sanitizer)/' >&2; then
  echo "the headers above are none of the host's" >&2
  bad=1
fi
exit "$bad"
