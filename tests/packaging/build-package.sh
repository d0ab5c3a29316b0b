#!/usr/bin/env bash
# build-package.sh BUILD CPACK: makes BUILD/package/corvalent_VERSION_ARCH.deb, and no other there.
. "$(dirname "$0")/lib.sh"

rm -rf "$1/package"
"$2" --config "$1/CPackConfig.cmake" -B "$1/package"
find_package "$1/package"
