#!/usr/bin/env bash
# Makes the Debian packages in build/packages and checks them with lintian. Their build is in
# build/debian and is reused the next time.
set -euo pipefail
cd "$(dirname "${BASH_SOURCE[0]}")/.."

bash scripts/install-packages.sh lab packaging
rm -rf build/packages
mkdir -p build/packages
dh_clean
packages=build/packages dpkg-buildpackage --build=binary --no-sign --no-pre-clean \
    --buildinfo-file=build/packages/build.buildinfo --buildinfo-option=-ubuild/packages \
    --changes-file=build/packages/build.changes --changes-option=-ubuild/packages
dh_clean
lintian --fail-on error --tag-display-limit 0 build/packages/*.deb
ls -l build/packages
