#!/usr/bin/env bash
# Installs every Debian package the project needs to build, test, fuzz and run
# its demo. Safe to run again: apt-get skips what is already installed.
set -euo pipefail

packages=(
  build-essential cmake ninja-build pkg-config ccache git
  clang-14 libclang-rt-14-dev
  libcurl4-openssl-dev libssl-dev openssl
  nlohmann-json3-dev libsqlite3-dev sqlite3 libicu-dev
  libcairo2-dev libpango1.0-dev fonts-dejavu-core fonts-noto-color-emoji
  libstb-dev libcpp-httplib-dev libcli11-dev
  libmosquitto-dev mosquitto
  libglib2.0-dev libglib2.0-bin dbus-daemon python3-gi
  libsecret-1-dev gnome-keyring libsecret-tools
  libgtest-dev libgmock-dev libbenchmark-dev
  python3 procps curl
  chromium
  libsdl2-dev xvfb xdotool imagemagick notification-daemon
  libgtk-4-dev qt6-base-dev
  at-spi2-core python3-pyatspi libglib2.0-bin
)

if [ "$(id -u)" -eq 0 ]; then sudo=""; else sudo="sudo"; fi

missing=()
for p in "${packages[@]}"; do
  dpkg-query -W -f='${Status}' "$p" 2>/dev/null | grep -q "install ok installed" || missing+=("$p")
done

if [ ${#missing[@]} -eq 0 ]; then
  echo "setup: all ${#packages[@]} packages already installed"
  exit 0
fi

echo "setup: installing ${missing[*]}"
$sudo apt-get update
DEBIAN_FRONTEND=noninteractive $sudo apt-get install -y --no-install-recommends "${missing[@]}"
echo "setup: done"
