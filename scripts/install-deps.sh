#!/usr/bin/env bash
# Installs what building and testing Netvane needs on Debian 12; does nothing
# when everything is already there.
set -euo pipefail

packages=(
  cmake ninja-build g++ pkg-config python3
  clang-16 libclang-rt-16-dev      # the Clang build, sanitizers and libFuzzer
  libgtest-dev libgmock-dev libbenchmark-dev
  libssl-dev libsystemd-dev
  iproute2 dbus polkitd pkexec curl
  libncurses-dev                   # `netvane top`
  tmux librsvg2-bin python3-lxml   # the views' tests: a terminal to run top in, SVG checks
  network-manager                  # the configuration backend's tests and benchmark
  network-manager-openvpn openvpn netplan.io  # real VPN and netplan profiles in the sandbox
  fiu-utils                        # I/O faults injected into saves
  clang-tools-16 shellcheck        # the static analyzer; every shell script checked
  zsh fish                         # the completions, run in the real shells
  systemd man-db dpkg-dev init-system-helpers  # unit checks, manual pages, the Debian packages
  lld llvm-14                      # the macOS cross build: ld64.lld, llvm-lipo, llvm-ar
)

missing=()
for p in "${packages[@]}"; do
  dpkg-query -W -f='${Status}' "$p" 2>/dev/null | grep -q "install ok installed" || missing+=("$p")
done
if ((${#missing[@]})); then
  echo "installing: ${missing[*]}"
  sudo_cmd=()
  [[ $(id -u) -eq 0 ]] || sudo_cmd=(sudo)
  "${sudo_cmd[@]}" apt-get update -qq
  DEBIAN_FRONTEND=noninteractive "${sudo_cmd[@]}" apt-get install -y -qq --no-install-recommends "${missing[@]}" >/dev/null
fi
