#!/usr/bin/env bash
# The choice of the Windows build's source versions, against a package archive that has moved on:
# apt-cache, apt-get and dpkg-query are replaced by stubs that answer from the files below.
# Usage: windows_sources_test.sh SCRIPTS_DIR
set -uo pipefail

script="$1/windows-sources.sh"
work=$(mktemp -d "${TMPDIR:-/tmp}/vertexmill_sources.XXXXXX")
trap 'rm -rf "$work"' EXIT

# shellcheck source=../tools/vertexmill/checks.sh
source "$(dirname "${BASH_SOURCE[0]}")/../tools/vertexmill/checks.sh"

# installed/<dev package>: the source version it was built from; served/<source package>: the
# versions the archive offers, one a line.
mkdir -p "$work/bin" "$work/installed" "$work/served"
cat >"$work/bin/dpkg-query" <<'STUB'
#!/usr/bin/env bash
package=${!#}
[[ -f "$STUBS/installed/$package" ]] || exit 1
echo "installed $(cat "$STUBS/installed/$package")"
STUB
cat >"$work/bin/apt-cache" <<'STUB'
#!/usr/bin/env bash
[[ $1 == showsrc && -f "$STUBS/served/$2" ]] || exit 0
while read -r version; do printf 'Package: %s\nVersion: %s\n\n' "$2" "$version"; done <"$STUBS/served/$2"
STUB
cat >"$work/bin/apt-get" <<'STUB'
#!/usr/bin/env bash
request=${!#}
grep -qxF "${request#*=}" "$STUBS/served/${request%%=*}" 2>/dev/null
STUB
chmod +x "$work/bin"/*
export STUBS=$work PATH="$work/bin:$PATH"

served() { local p=$1; shift; printf '%s\n' "$@" >"$work/served/$p"; }
installed() { echo "$2" >"$work/installed/$1"; }

served meshoptimizer 0.18+dfsg-2
served tinyxml2 9.0.0+dfsg-3.1
served libpng1.6 1.6.39-2+deb12u5 1.6.39-2+deb12u6
served assimp 5.2.5~ds0-1
served zlib 1:1.2.13.dfsg-1
installed libmeshoptimizer-dev 0.18+dfsg-2
installed libtinyxml2-dev 9.0.0+dfsg-3.1
installed libassimp-dev 5.2.5~ds0-1
installed zlib1g-dev 1:1.2.13.dfsg-1

# The installed version is taken while the archive serves it, also when a newer one is on offer.
installed libpng-dev 1.6.39-2+deb12u5
check "an installed version still served is the one built" \
  test "$("$script" version libpng1.6)" = 1.6.39-2+deb12u5
check "nothing to upgrade" test -z "$("$script" stale)"
check "every source can be fetched" "$script" check

# A security update replaced the installed version: the check fails early, naming the package and
# what is on offer, and the -dev package is the one to upgrade.
installed libpng-dev 1.6.39-2+deb12u4
"$script" check >/dev/null 2>"$work/check.err"
check "a version the archive no longer serves fails the check" test $? -eq 1
check "the message names the package, its version and the versions on offer" \
  grep -q "libpng1.6 1.6.39-2+deb12u4 .*versions on offer: 1.6.39-2+deb12u6 1.6.39-2+deb12u5" "$work/check.err"
check "only that -dev package is stale" test "$("$script" stale)" = libpng-dev

# Without the -dev package, the newest version on offer.
rm "$work/installed/libpng-dev"
check "without the -dev package, the newest on offer" test "$("$script" version libpng1.6)" = 1.6.39-2+deb12u6

# No deb-src entries: the archive offers no source at all.
rm "$work/served/tinyxml2"
"$script" check >/dev/null 2>"$work/none.err"
check "no source on offer fails the check" test $? -eq 1
check "and says why" grep -q "offers no source of tinyxml2" "$work/none.err"
"$script" version nonsense >/dev/null 2>&1
check "an unknown package is a usage error" test $? -eq 2

if [[ $failures -ne 0 ]]; then
  echo "$failures source-version checks failed"
  exit 1
fi
echo "all source-version checks passed"
