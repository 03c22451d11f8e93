#!/usr/bin/env bash
# Installs every Debian package the project needs to build, test, benchmark
# and fuzz. Safe to run again: packages already present are left alone.
set -euo pipefail

packages=(
  build-essential cmake ninja-build pkg-config ccache git
  clang clang-tidy clang-format libclang-rt-14-dev
  libicu-dev libssl-dev libssh2-1-dev libxerces-c-dev zlib1g-dev
  libsqlite3-dev sqlite3 libspdlog-dev libfmt-dev libsystemd-dev libcli11-dev
  googletest libgtest-dev libgmock-dev libbenchmark-dev libcurl4-openssl-dev
  locales tzdata python3
)

missing=()
for p in "${packages[@]}"; do
  dpkg-query -W -f='${Status}' "$p" 2>/dev/null | grep -q 'install ok installed' || missing+=("$p")
done

SUDO=""
[ "$(id -u)" -eq 0 ] || SUDO="sudo"

if [ "${#missing[@]}" -gt 0 ]; then
  export DEBIAN_FRONTEND=noninteractive
  $SUDO apt-get update -qq
  $SUDO apt-get install -y -qq --no-install-recommends "${missing[@]}"
fi

# The string tests run in a double-byte locale as well as in C.UTF-8.
if ! locale -a 2>/dev/null | grep -qi '^ja_JP\.eucjp$'; then
  $SUDO sed -i 's/^# *\(ja_JP.EUC-JP EUC-JP\)/\1/' /etc/locale.gen
  grep -q '^ja_JP.EUC-JP EUC-JP' /etc/locale.gen || echo 'ja_JP.EUC-JP EUC-JP' | $SUDO tee -a /etc/locale.gen >/dev/null
  $SUDO locale-gen >/dev/null
fi
if ! locale -a 2>/dev/null | grep -qi '^en_US\.utf8$'; then
  $SUDO sed -i 's/^# *\(en_US.UTF-8 UTF-8\)/\1/' /etc/locale.gen
  grep -q '^en_US.UTF-8 UTF-8' /etc/locale.gen || echo 'en_US.UTF-8 UTF-8' | $SUDO tee -a /etc/locale.gen >/dev/null
  $SUDO locale-gen >/dev/null
fi
echo "setup: all packages present"
