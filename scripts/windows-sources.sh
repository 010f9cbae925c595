#!/usr/bin/env bash
# The Debian source packages the Windows cross build compiles, and which version of each it takes.
#
# The rule: the version the installed -dev package was built from, so that the Linux and the
# Windows builds compile the same library. The archive serves only the newest security update of a
# package, so an installed version can stop being served at any time; scripts/install-deps.sh
# --windows then upgrades the -dev package to the version the archive has (see "stale" below), and
# the build follows it. Without the -dev package, the newest version on offer is taken.
#
# Usage: scripts/windows-sources.sh check            every source package can be fetched; if one
#                                                      cannot, names it and the versions on offer, status 1
#        scripts/windows-sources.sh version SOURCE    the version to build SOURCE from
#        scripts/windows-sources.sh stale             the -dev packages whose installed version the
#                                                      archive no longer serves, one a line
set -euo pipefail

# source package, the -dev package the Linux build links
pairs=("meshoptimizer libmeshoptimizer-dev" "tinyxml2 libtinyxml2-dev" "libpng1.6 libpng-dev" "assimp libassimp-dev"
       "zlib zlib1g-dev")

dev_of() {
  local pair
  for pair in "${pairs[@]}"; do
    if [[ ${pair%% *} == "$1" ]]; then echo "${pair#* }"; return 0; fi
  done
  echo "windows-sources.sh: unknown source package '$1'" >&2
  return 2
}

# Every version of a source package the archive offers, newest first.
served() {
  apt-cache showsrc "$1" 2>/dev/null | sed -n 's/^Version: //p' | sort -u | sort -r -V
}

installed_source_version() {
  dpkg-query -W -f='${db:Status-Status} ${source:Version}' "$1" 2>/dev/null | sed -n 's/^installed //p'
}

chosen_version() {
  local source=$1 dev version
  dev=$(dev_of "$source")
  version=$(installed_source_version "$dev")
  if [[ -z $version ]]; then
    version=$(served "$source" | head -n1)
  fi
  echo "$version"
}

is_served() { served "$1" | grep -qxF "$2"; }

case "${1:-}" in
  version)
    [[ $# -eq 2 ]] || { echo "usage: $0 version SOURCE" >&2; exit 2; }
    dev_of "$2" >/dev/null
    version=$(chosen_version "$2")
    [[ -n $version ]] || { echo "$2: no version installed or on offer (are there deb-src entries?)" >&2; exit 1; }
    echo "$version"
    ;;
  stale)
    for pair in "${pairs[@]}"; do
      source=${pair%% *} dev=${pair#* }
      version=$(installed_source_version "$dev")
      if [[ -n $version ]] && ! is_served "$source" "$version"; then echo "$dev"; fi
    done
    ;;
  check)
    failed=0
    for pair in "${pairs[@]}"; do
      source=${pair%% *} dev=${pair#* }
      version=$(chosen_version "$source")
      offer=$(served "$source" | paste -sd' ' -)
      if [[ -z $offer ]]; then
        echo "ERROR: the archive offers no source of $source (the Windows build compiles it):" \
          "deb-src entries are missing or the package lists are old; scripts/install-deps.sh --windows adds both" >&2
        failed=1
      elif [[ -z $version ]] || ! apt-get source --print-uris -qq "$source=$version" >/dev/null 2>&1; then
        echo "ERROR: source package $source ${version:-(no version)} (the version $dev is built from) cannot be" \
          "fetched; versions on offer: $offer; scripts/install-deps.sh --windows upgrades $dev to one of them" >&2
        failed=1
      else
        echo "   $source $version (from $dev): on offer"
      fi
    done
    exit $failed
    ;;
  *)
    echo "usage: $0 check | version SOURCE | stale" >&2
    exit 2
    ;;
esac
