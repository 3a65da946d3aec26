#!/usr/bin/env bash
# Builds the Debian packages config-copy-mib and config-copy from the release build, and checks them with lintian. They are in build/packages.
set -euo pipefail
cd "$(dirname "${BASH_SOURCE[0]}")/.."

bash scripts/install-packages.sh lab packaging
rm -rf build/packages
mkdir -p build/packages
dh_clean
DEB_RULES_REQUIRES_ROOT=no debian/rules binary packages=build/packages
dh_clean
lintian --fail-on error --tag-display-limit 0 build/packages/*.deb
ls -l build/packages
