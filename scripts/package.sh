#!/usr/bin/env bash
# Makes the Debian packages of the release build, the one that the lab runs, and checks them with lintian. They are in build/packages.
set -euo pipefail
cd "$(dirname "${BASH_SOURCE[0]}")/.."

bash scripts/install-packages.sh lab packaging
rm -rf build/packages
mkdir -p build/packages
builddir=build/release packages=build/packages dpkg-buildpackage --build=binary --no-sign --post-clean \
    --buildinfo-file=build/packages/build.buildinfo --buildinfo-option=-ubuild/packages \
    --changes-file=build/packages/build.changes --changes-option=-ubuild/packages
lintian --fail-on error --tag-display-limit 0 build/packages/*.deb
ls -l build/packages
