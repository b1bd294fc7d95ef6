#!/bin/sh
# The one list of Debian packages that building and testing needs. Installs those that are
# missing and says nothing when none is; `packages.sh --list` prints the list. Of A|B, either will
# do, and B is installed when there is neither.
set -eu

packages='
  g++ clang clang-14 libclang-rt-14-dev llvm-14
  cmake ninja-build pkgconf python3
  libgtest-dev libgmock-dev
  dpkg-dev fakeroot file gdb lintian zsh
  libbenchmark-dev libabsl-dev libboost-dev
  libprotobuf-dev protobuf-compiler libflatbuffers-dev flatbuffers-compiler
  libcli11-dev rapidjson-dev libspdlog-dev libsystemd-dev
  libpugixml-dev libmnl-dev iproute2
  systemd|systemd-standalone-sysusers
  doxygen abigail-tools gcovr
'

if [ "${1:-}" = --list ]; then
  printf '%s\n' $packages
  exit 0
fi

missing=''
for package in $packages; do
  for either in $(echo "$package" | tr '|' ' '); do
    status=$(dpkg-query -W -f '${db:Status-Status}' "$either" 2>/dev/null || true)
    [ "$status" != installed ] || continue 2
  done
  missing="$missing $either"
done
[ -n "$missing" ] || exit 0

as_root=''
if [ "$(id -u)" -ne 0 ]; then
  if ! command -v sudo >/dev/null 2>&1; then
    echo "packages.sh: missing:$missing" >&2
    echo "packages.sh: not root and no sudo; as root: apt-get install$missing" >&2
    exit 1
  fi
  as_root='sudo'
fi

echo "packages.sh: installing$missing"
install() {
  $as_root env DEBIAN_FRONTEND=noninteractive \
    apt-get install -y -q --no-install-recommends $missing
}
# Index files may be absent or old: fetch them, but let an installation from what is there
# succeed without a network.
$as_root apt-get update -q || echo 'packages.sh: no new package index; trying the old one' >&2
if ! install; then
  echo "packages.sh: could not install$missing" >&2
  exit 1
fi
