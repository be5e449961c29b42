#!/bin/sh
# Which part of the tree may include which headers. Usage: check_includes.sh ROOT
#
# A quoted or bracketed include is the project's when it begins with es_acl/ or es_platform/, local when it is quoted
# otherwise, and the system's when it is bracketed otherwise. Local headers must stand in the including part itself.
set -eu
cd "$1"
bad=0

complain() {
  echo "$1: $2" >&2
  bad=1
}

# check DIRECTORY PATTERN: the sources below DIRECTORY include only project headers that match the extended PATTERN.
check() {
  [ -d "$1" ] || return 0
  grep -rnoE --include='*.h' --include='*.hpp' --include='*.c' --include='*.cpp' --include='*.cc' \
    '^[[:space:]]*#[[:space:]]*include[[:space:]]*["<][^">]+[">]' "$1" >"$found" || true
  while IFS= read -r line; do
    place=${line%%:[[:space:]#]*}
    header=$(printf '%s' "$line" | sed -E 's/.*include[[:space:]]*["<]([^">]+)[">]$/\1/')
    case $header in
      es_acl/* | es_platform/*)
        printf '%s' "$header" | grep -qxE "$2" || complain "$place" "$1 may not see $header"
        ;;
      *..*) complain "$place" "$header leaves its directory" ;;
      *)
        case $line in
          *\") [ -n "$(find "$1" -path "*/$header" | head -n 1)" ] ||
            complain "$place" "$header is not a header of $1" ;;
        esac
        ;;
    esac
  done <"$found"
}

# Nothing but the language's library and the host below these: no header of a package.
check_host_only() {
  [ -d "$1" ] || return 0
  if grep -rnE --include='*.h' --include='*.cpp' '^[[:space:]]*#[[:space:]]*include[[:space:]]*<[^>]+/' "$1" |
    grep -vE '<(sys|linux|net|netinet|arpa|sanitizer)/' >&2; then
    bad=1
  fi
}

found=$(mktemp)
trap 'rm -f "$found"' EXIT
check include 'es_acl/[a-z_]+\.h'
check lib/src '(es_acl|es_platform)/[a-z_]+\.h'
check platform/include 'es_platform/[a-z_]+\.h'
check platform/src 'es_platform/[a-z_]+\.h'
check store 'es_acl/[a-z_]+\.h'
check producer 'es_acl/es_acl_(wire|types|export)\.h|es_platform/[a-z_]+\.h'
check tools '(es_acl|es_platform)/[a-z_]+\.h'
check examples '(es_acl|es_platform)/[a-z_]+\.h'
for part in include lib/src platform/include platform/src store; do check_host_only "$part"; done
exit "$bad"
