# Sourced by the shell tests of the tool: check DESCRIPTION COMMAND... runs the command, prints
# "ok:" or "FAIL:" with the description, and counts the failures in $failures.
failures=0

check() {
  local what=$1
  shift
  if "$@"; then
    echo "ok: $what"
  else
    echo "FAIL: $what"
    failures=$((failures + 1))
  fi
}
