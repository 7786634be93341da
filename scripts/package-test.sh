#!/usr/bin/env bash
# Builds the Debian package from a built tree, installs it into this machine with apt-get,
# checks what a user gets (the program on the PATH, a served game with the installed schema,
# the manual page, the desktop entry and icons, the systemd user unit) and removes it again.
# Usage: scripts/package-test.sh [BUILD_DIR]   (default: build, configured and built)
set -euo pipefail
cd "$(dirname "$0")/.."

build=$(realpath "${1:-build}")
started=$(date +%s)
if [ "$(id -u)" -eq 0 ]; then
  sudo=()
else
  sudo=(sudo)
fi
apt=("${sudo[@]}" env DEBIAN_FRONTEND=noninteractive apt-get -y -qq -o DPkg::Lock::Timeout=120)

work=$(mktemp -d)
chmod 755 "$work"  # apt reads the package file as its own unprivileged user
installed=no
finish() {
  if [ "$installed" = yes ]; then
    "${apt[@]}" remove pointlane > "$work/remove.log" 2>&1 || cat "$work/remove.log"
  fi
  rm -rf "$work"
}
trap finish EXIT

fail() {
  echo "package test: FAILED: $*" >&2
  exit 1
}
# run LOG COMMAND...: runs the command with its output in LOG, shown only when it fails.
run() {
  local log=$1
  shift
  if ! "$@" > "$log" 2>&1; then
    cat "$log" >&2
    fail "$*"
  fi
}

echo "-- building the package"
run "$work/cpack.log" cpack --config "$build/CPackConfig.cmake" -G DEB -B "$work"
debs=("$work"/pointlane_*.deb)
[ ${#debs[@]} -eq 1 ] && [ -f "${debs[0]}" ] || fail "cpack wrote no pointlane_*.deb"
deb=${debs[0]}
version=$(dpkg-deb -f "$deb" Version)
echo "   $(basename "$deb"): $(du -k "$deb" | cut -f1) KiB, depends on: $(dpkg-deb -f "$deb" Depends)"

echo "-- installing it"
if dpkg-query -W -f='${Status}' pointlane 2> /dev/null | grep -q 'install ok installed'; then
  echo "   (a pointlane package was installed already: it is replaced, then removed)"
fi
installed=yes
run "$work/install.log" "${apt[@]}" install "$deb"

echo "-- the program on the PATH"
[ "$(command -v pointlane)" = /usr/bin/pointlane ] || fail "pointlane is not /usr/bin/pointlane"
[ "$(pointlane --version)" = "pointlane $version" ] ||
  fail "pointlane --version says '$(pointlane --version)', the package is $version"
set +e
pointlane --no-such-option 2> "$work/usage.txt"
status=$?
set -e
[ "$status" -eq 2 ] && [ "$(wc -l < "$work/usage.txt")" -eq 1 ] ||
  fail "a usage error gave status $status and: $(cat "$work/usage.txt")"

echo "-- a game served by the installed program, with a fresh home"
run "$work/e2e.log" env POINTLANE_INSTALLED_BINARY=/usr/bin/pointlane \
  "$build/bin/e2e_tests" --gtest_filter='InstalledProgramTest.*'
grep -q '^\[  PASSED  \] 1 test' "$work/e2e.log" || { cat "$work/e2e.log"; fail "no game test ran"; }

echo "-- the manual page"
manual=yes
if grep -qsr '^path-exclude.*/usr/share/man' /etc/dpkg/dpkg.cfg.d/; then
  # Slimmed-down images tell dpkg to drop every manual page.
  manual=no
  echo "   skipped: dpkg is set to leave out manual pages here (/etc/dpkg/dpkg.cfg.d)"
else
  page=$(man -w pointlane) || fail "man -w pointlane found nothing"
  [ "$page" = /usr/share/man/man1/pointlane.1 ] || fail "man -w pointlane gave $page"
  LC_ALL=C MANWIDTH=120 man --warnings pointlane > "$work/man.txt" 2> "$work/man-warnings.txt"
  [ ! -s "$work/man-warnings.txt" ] || { cat "$work/man-warnings.txt"; fail "man page warnings"; }
  # Every option of the usage text, and the subcommand, is explained in the page.
  for option in $(pointlane --help | grep -oE -- '--[a-z][a-z-]*' | sort -u) export; do
    grep -qF -- "$option" "$work/man.txt" || fail "the man page does not mention $option"
  done
fi

echo "-- the desktop entry and its icon"
entry=/usr/share/applications/pointlane.desktop
run "$work/desktop.log" desktop-file-validate "$entry"
grep -qx 'Exec=/usr/bin/pointlane' "$entry" || fail "$entry does not run /usr/bin/pointlane"
for size in 16 22 24 32 48 64 128 256; do
  icon=/usr/share/icons/hicolor/${size}x${size}/apps/pointlane.png
  file "$icon" | grep -q "PNG image data, $size x $size" || fail "$icon is not a ${size}px PNG"
done
[ -s /usr/share/icons/hicolor/scalable/apps/pointlane.svg ] || fail "no scalable icon"

echo "-- the systemd user unit"
unit=/usr/lib/systemd/user/pointlane.service
grep -qx 'ExecStart=/usr/bin/pointlane --headless' "$unit" || fail "$unit does not run pointlane"
if command -v systemd-analyze > /dev/null; then
  mkdir -m 700 "$work/runtime"
  runtime=${XDG_RUNTIME_DIR:-$work/runtime}
  # Any remark (an unknown key, a bad value, a missing manual page) counts as a failure.
  if ! XDG_RUNTIME_DIR=$runtime systemd-analyze --user --man="$manual" verify "$unit" \
    > "$work/verify.txt" 2>&1 || [ -s "$work/verify.txt" ]; then
    cat "$work/verify.txt"
    fail "systemd-analyze --user verify $unit"
  fi
else
  echo "   skipped: systemd-analyze is not installed here"
fi

echo "-- removing it"
installed=no
run "$work/remove.log" "${apt[@]}" remove pointlane
[ ! -e /usr/bin/pointlane ] || fail "/usr/bin/pointlane is still there after the removal"

echo "package test: passed in $(($(date +%s) - started)) s"
