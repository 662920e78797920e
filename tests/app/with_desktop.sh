#!/bin/bash
# with_desktop.sh COMMAND [ARGS...]: runs COMMAND as on a desktop, in a PipeWire session of its own
# (tests/sources/with_pipewire.sh) and on an X server of its own (with_xvfb.sh). Its exit status is
# COMMAND's.
here=$(dirname "${BASH_SOURCE[0]}")
exec "$here/../sources/with_pipewire.sh" "$here/with_xvfb.sh" "$@"
