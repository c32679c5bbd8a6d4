#!/bin/sh
# Installs what is missing, builds the release preset and runs every test.  ./test.sh [ctest options]
set -eu
cd "$(dirname "$0")"
tools/install_packages
tools/build release
exec ctest --preset release -j "${JOBS:-2}" "$@" </dev/null
