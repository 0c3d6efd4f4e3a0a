#!/usr/bin/env bash
# The 32-bit build as a part of the whole test run. i386-check.sh build: makes the sysroot and builds everything;
# i386-check.sh test: runs the unit tests and those of the module's boundary.
set -euo pipefail
cd "$(dirname "$(readlink -f "$0")")/.."
case ${1:-} in
  build)
    cmake/i386-sysroot.sh build/i386-sysroot
    cmake --preset i386
    cmake --build --preset i386 -j "$(nproc)"
    ;;
  test)
    ctest --preset i386 -j "$(nproc)" --no-tests=error -E '^system\.'
    ctest --preset i386 --no-tests=error -R '^system\.(boundary|width)_test$'
    ;;
  *) echo "usage: $0 build|test" >&2; exit 2 ;;
esac
