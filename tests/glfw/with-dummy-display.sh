#!/usr/bin/env bash
# Runs a command on a private X display with two 1024x768 monitors side by side:
# Xorg with the dummy video driver (Xvfb has a single output), the second output
# switched on with xrandr. The display goes away with the command.
set -euo pipefail
here=$(cd "$(dirname "$0")" && pwd)
work=$(mktemp -d)
xorg=""
trap '[ -n "$xorg" ] && kill "$xorg" 2>/dev/null; [ -n "$xorg" ] && wait "$xorg" 2>/dev/null; rm -rf "$work"' EXIT

# Xorg picks a free display and writes its number to the pipe.
mkfifo "$work/display"
Xorg -config "$here/xorg-dummy.conf" -logfile "$work/Xorg.log" -noreset -nolisten tcp -displayfd 3 \
    3>"$work/display" >"$work/Xorg.out" 2>&1 &
xorg=$!
read -r -t 30 number <"$work/display" || { echo "Xorg did not start:" >&2; cat "$work/Xorg.out" >&2; exit 1; }
export DISPLAY=":$number"

xrandr --addmode DUMMY1 1024x768
xrandr --output DUMMY0 --mode 1024x768 --pos 0x0 --output DUMMY1 --mode 1024x768 --pos 1024x0
# The dummy driver reports the second output connected only once it is polled again;
# clients that do not poll (GLFW among them) see it after that.
for _ in $(seq 50); do
    [ "$(xrandr | grep -c ' connected ')" -ge 2 ] && break
    sleep 0.1
done
"$@"
