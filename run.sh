#!/bin/sh
# Installs what is missing, builds, and runs.
#   ./run.sh            shows the main job: a session against a server that it starts, X-rays counted on simulated cards, a
#                       measured spectrum on its way through
#   ./run.sh -port      runs build/kestrel with these arguments
set -eu
here=$(cd "$(dirname "$0")" && pwd)
"$here/tools/install_packages"
"$here/tools/build" release
[ $# -eq 0 ] || exec "$here/build/kestrel" "$@"
/usr/bin/python3 "$here/tools/play_session" "$here/examples/first_session.cmd"
echo
/usr/bin/python3 "$here/examples/count_spectrum"
echo
exec "$here/examples/show_spectrum"
