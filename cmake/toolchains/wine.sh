#!/bin/sh
# Runs a Windows program under Wine, which says nothing of its own and keeps its Windows installation apart from the
# user's.
#
#     wine.sh PROGRAM [ARGUMENTS]
export WINEPREFIX="${WINEPREFIX:-${XDG_CACHE_HOME:-$HOME/.cache}/quorvex-wine}"
export WINEDEBUG="${WINEDEBUG:--all}"
export WINEDLLOVERRIDES="mscoree,mshtml="
mkdir -p "$WINEPREFIX"
exec wine "$@"
