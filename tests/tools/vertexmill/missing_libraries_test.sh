#!/usr/bin/env bash
# libcurl and libcrypto are loaded only by the runs that need them. Here both are replaced by files
# that cannot be loaded (found first through LD_LIBRARY_PATH): a run that needs neither must not
# notice, a cache folder does not need libcrypto either (its keys' hash is compiled in), the remote
# tier and --shard refuse to start with the library's name, and the remote tier without its HTTP
# library behaves as a server that is down.
# Usage: missing_libraries_test.sh VERTEXMILL MODEL_DIR
set -uo pipefail

vertexmill=$1
models=$2
work=$(mktemp -d "${TMPDIR:-/tmp}/vertexmill_libraries.XXXXXX")
trap 'rm -rf "$work"' EXIT

# shellcheck source=checks.sh
source "$(dirname "${BASH_SOURCE[0]}")/checks.sh"

mkdir -p "$work/no-crypto" "$work/no-curl" "$work/neither"
echo "not a library" >"$work/no-crypto/libcrypto.so.3"
echo "not a library" >"$work/no-curl/libcurl.so.4"
cp "$work/no-crypto/libcrypto.so.3" "$work/no-curl/libcurl.so.4" "$work/neither/"
cp -r "$models" "$work/models"
model=$(find "$work/models" -name '*.primitives' | sort | head -n 1)

# run NAME LIBRARY_DIR ARGUMENTS...: status, standard output and error kept under NAME.
run() {
  local name=$1 libraries=$2
  shift 2
  LD_LIBRARY_PATH="$libraries" "$vertexmill" "$@" >"$work/$name.out" 2>"$work/$name.err"
  echo $? >"$work/$name.status"
}
status_of() { cat "$work/$1.status"; }
count_in() { grep -c -- "$2" "$work/$1.err"; }

mkdir -p "$work/out-plain" "$work/out-neither" "$work/out-cache" "$work/out-shard" "$work/out-remote"
"$vertexmill" --tree "$work/models" "$work/out-plain" >/dev/null 2>&1

run version "$work/neither" --version
check "--version without either library: status 0" test "$(status_of version)" = 0
check "--version without either library: prints the version" grep -q '^vertexmill ' "$work/version.out"

run plain "$work/neither" --tree "$work/models" "$work/out-neither"
check "conversion without either library: status 0" test "$(status_of plain)" = 0
check "conversion without either library: outputs identical" diff -r "$work/out-plain" "$work/out-neither"

run cache "$work/no-crypto" --cache "$work/cache" "$model" "$work/out-cache"
run cache-hit "$work/no-crypto" --stats --cache "$work/cache" "$model" "$work/out-cache"
check "cache folder without libcrypto: status 0, twice" test "$(status_of cache)$(status_of cache-hit)" = 00
check "cache folder without libcrypto: the second run is a hit" grep -q "cache=hit" "$work/cache-hit.out"

run crypto-remote "$work/no-crypto" --cache-url http://127.0.0.1:9/cache "$model" "$work/out-shard"
check "remote cache without libcrypto: status 1" test "$(status_of crypto-remote)" = 1
check "remote cache without libcrypto: names the library" \
  test "$(count_in crypto-remote "^ERROR: .*libcrypto.so.3")" = 1

run shard "$work/no-crypto" --tree --shard 1/2 "$work/models" "$work/out-shard"
check "--shard without libcrypto: status 1" test "$(status_of shard)" = 1
check "--shard without libcrypto: names the library" test "$(count_in shard "^ERROR: .*libcrypto.so.3")" = 1
check "--shard without libcrypto: writes nothing" test -z "$(find "$work/out-shard" -type f)"

# Nothing listens on the discard port of the loopback interface: were libcurl loaded, the warning
# would name the connection instead.
run remote "$work/no-curl" --tree --cache-url http://127.0.0.1:9/cache "$work/models" "$work/out-remote"
check "remote cache without libcurl: status 0" test "$(status_of remote)" = 0
check "remote cache without libcurl: outputs identical" diff -r "$work/out-plain" "$work/out-remote"
check "remote cache without libcurl: one warning naming the library" \
  test "$(count_in remote "^WARNING: remote cache unavailable (.*libcurl.so.4")" = 1

if ((failures > 0)); then
  echo "$failures check(s) failed"
  for name in cache cache-hit crypto-remote shard remote; do
    echo "--- $name:"
    cat "$work/$name.err"
  done
  exit 1
fi
echo "all missing-library checks passed"
