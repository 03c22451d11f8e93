#!/usr/bin/env bash
# Installs every Debian package the project needs to build, test, benchmark
# and fuzz. Safe to run again: packages already present are left alone.
set -euo pipefail

packages=(
  build-essential cmake ninja-build pkg-config ccache git
  clang clang-tidy clang-format libclang-rt-14-dev
  libicu-dev icu-devtools libssl-dev libssh2-1-dev libxerces-c-dev zlib1g-dev liburiparser-dev
  libsqlite3-dev sqlite3 libspdlog-dev libfmt-dev libsystemd-dev libcli11-dev
  googletest libgtest-dev libgmock-dev libbenchmark-dev libcurl4-openssl-dev
  locales tzdata python3
)
# Each subsystem that needs more (a real server to test against, say) lists
# its Debian packages in scripts/packages/<subsystem>.txt, one per line.
for list in "$(dirname "$0")"/packages/*.txt; do
  [ -e "$list" ] || continue
  while read -r p _; do
    case "$p" in ''|'#'*) continue ;; esac
    packages+=("$p")
  done <"$list"
done

missing=()
for p in "${packages[@]}"; do
  dpkg-query -W -f='${Status}' "$p" 2>/dev/null | grep -q 'install ok installed' || missing+=("$p")
done

SUDO=""
[ "$(id -u)" -eq 0 ] || SUDO="sudo"

if [ "${#missing[@]}" -gt 0 ]; then
  export DEBIAN_FRONTEND=noninteractive
  # Server packages (mail, FTP, SSH, etcd) are only test peers here: keep
  # apt from starting or enabling the machine's own services while it runs.
  policy=/usr/sbin/policy-rc.d
  own_policy=0
  if [ ! -e "$policy" ]; then
    printf '#!/bin/sh\nexit 101\n' | $SUDO tee "$policy" >/dev/null
    $SUDO chmod +x "$policy"
    own_policy=1
    trap '$SUDO rm -f "$policy"' EXIT
  fi
  $SUDO apt-get update -qq
  $SUDO apt-get install -y -qq --no-install-recommends "${missing[@]}"
  [ "$own_policy" -eq 0 ] || $SUDO rm -f "$policy"
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
