#!/bin/bash
# with_xvfb.sh COMMAND [ARGS...]: runs COMMAND with DISPLAY set to an X server of its own (Xvfb on a
# free display number, 1920 × 1200 at 24 bits), ended with it. Its exit status is COMMAND's.
set -u
ready=$(mktemp)
Xvfb -displayfd 3 -screen 0 1920x1200x24 -nolisten tcp 3>"$ready" 2>/dev/null &
server=$!
trap 'kill $server 2>/dev/null; wait $server 2>/dev/null; rm -f "$ready"' EXIT
for _ in $(seq 200); do [ -s "$ready" ] && break; sleep 0.05; done
if [ ! -s "$ready" ]; then
    echo "with_xvfb.sh: Xvfb did not start" >&2
    exit 1
fi
export DISPLAY=:$(head -n 1 "$ready")
unset WAYLAND_DISPLAY
export QT_QPA_PLATFORM=xcb
"$@"
