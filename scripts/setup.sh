#!/usr/bin/env bash
# Installs every Debian package the server, its tests and its checks need,
# skipping what is already present. Root uses apt-get directly, others sudo.
set -euo pipefail

packages=(
  build-essential cmake ninja-build pkg-config ccache
  qt6-base-dev qt6-base-dev-tools qt6-httpserver-dev qt6-websockets-dev
  libavahi-client-dev libicu-dev libsqlite3-dev nlohmann-json3-dev
  googletest libgtest-dev libgmock-dev
  dbus avahi-daemon avahi-utils xvfb xauth sqlite3 fonts-dejavu-core
  iproute2 util-linux mount
  clang-format chromium chromium-driver python3-selenium
  desktop-file-utils man-db librsvg2-bin file libqrencode-dev
)

missing=()
for p in "${packages[@]}"; do
  if ! dpkg-query -W -f='${Status}' "$p" 2>/dev/null | grep -q 'install ok installed'; then
    missing+=("$p")
  fi
done

if [ ${#missing[@]} -eq 0 ]; then
  exit 0
fi

echo "Installing: ${missing[*]}"
if [ "$(id -u)" -eq 0 ]; then
  apt=(apt-get)
else
  apt=(sudo apt-get)
fi
export DEBIAN_FRONTEND=noninteractive
"${apt[@]}" update -qq
"${apt[@]}" install -y -qq --no-install-recommends "${missing[@]}"
