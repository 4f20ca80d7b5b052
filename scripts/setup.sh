#!/usr/bin/env bash
# Installs the Debian packages that both build legs need, when they are missing.
#   i386:  gcc/g++ multilib (-m32), cmake, ninja, GoogleTest sources, valgrind
#   armhf: clang + lld over Debian's armhf cross libraries, qemu-user to run tests
#   tools: nlohmann-json3-dev (JSON output of rtvoxctl; never used by the library)
# Never installs gcc-arm-linux-gnueabihf / g++-arm-linux-gnueabihf (they fight
# with gcc-multilib) nor linux-libc-dev:i386 (apt then drops the toolchain).
set -u

packages=(
  build-essential cmake ninja-build pkg-config git
  gcc-multilib g++-multilib
  clang lld clang-format clang-tidy
  libc6-dev-armhf-cross libstdc++-12-dev-armhf-cross libgcc-12-dev-armhf-cross
  qemu-user
  googletest valgrind
  nlohmann-json3-dev
)

missing=()
for p in "${packages[@]}"; do
  if ! dpkg-query -W -f='${Status}' "$p" 2>/dev/null | grep -q 'install ok installed'; then
    missing+=("$p")
  fi
done

if [ ${#missing[@]} -eq 0 ]; then
  echo "setup: all packages present"
  exit 0
fi

SUDO=""
if [ "$(id -u)" -ne 0 ]; then SUDO="sudo"; fi

echo "setup: installing ${missing[*]}"
export DEBIAN_FRONTEND=noninteractive
# A foreign architecture's index may fail to download; that must not stop us.
$SUDO apt-get update -y || echo "setup: apt-get update reported errors (ignored)"
$SUDO apt-get install -y --no-install-recommends "${missing[@]}"
