#!/usr/bin/env bash
# Analyses a capture: ./run.sh [options] FILE     (./run.sh alone: the bundled sample)
# Installs what is missing, builds all programs where needed, and becomes quarn: standard output and
# exit status are its own. Status 125: they could not be built. The other programs are then beside
# quarn in build/release.
set -euo pipefail
top=$(dirname "$(readlink -f "${BASH_SOURCE[0]}")")

mapfile -t packages <"$top/tools/build-packages"
"$top/tools/install-packages" "${packages[@]}" ||
  exit 125

build() {
  cd "$top"
  # A tree that test.sh has configured keeps its tests.
  [ -e build/release/Makefile ] || cmake --preset release -DQUARN_TESTS=OFF
  cmake --build --preset release --target programs
}

# Says once that there is something to build, which may take minutes, to somebody who waits for it.
tell() {
  local line told=
  while IFS= read -r line; do
    printf '%s\n' "$line"
    case $line in
      *" Building "* | *" Linking "*)
        [ -n "$told" ] || [ ! -t 2 ] || echo "building ..." >&2
        told=yes
        ;;
    esac
  done
}

if ! log=$(build 2>&1 | tell); then
  printf '%s\n' "$log" >&2
  exit 125
fi

if [ $# -eq 0 ]; then
  set -- -C "$top/samples/quarn.conf" -a on "$top/samples/demo.ts"
fi
exec "$top/build/release/quarn" "$@"
