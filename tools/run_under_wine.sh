#!/usr/bin/env bash
#
# Runs a Windows program under Wine, so that tests of a cross build start like any other program:
#
#   tools/run_under_wine.sh [--dependencies DIR] PROGRAM.exe [ARGUMENT...]
#   tools/run_under_wine.sh --start     prepares Wine ahead of the first program
#   tools/run_under_wine.sh --stop      ends every program that runs under this script's Wine, and Wine itself, unless
#                                       another process has called --start and is still there without having stopped
#
# Both are called by a process that lasts for the whole of its use of Wine, such as a script, and not from a subshell.
#
# The exit code is the program's (its low eight bits, which is all that a parent process can see here). Any number of
# copies may run at the same time.
#
# Wine keeps one background process, its server, for all programs of a user and a prefix. The first program starts it
# and pays half a second for that; the others find it and start in some 50 ms. The server ends by itself
# QVTP_WINE_LINGER seconds after the last program, or at once with --stop.
#
# Environment:
#   QVTP_WINEPREFIX     directory of the Wine installation, used for nothing else (default: wine, in the cache directory
#                       ${XDG_CACHE_HOME:-~/.cache}/qvtp). Filled on first use, which takes about ten seconds.
#   QVTP_WINE_LINGER    see above (default: 120)
#   QVTP_MINGW_PREFIX   libraries whose DLLs the programs need, if --dependencies does not say so
#                       (default: mingw-x86_64, in the cache directory)
#   WINEPATH            further directories for DLLs, in Windows notation; searched after those of this script
#   WINEDEBUG           messages of Wine itself (default: none, tests compare what a program prints)

set -Eeuo pipefail
# A failure here must not look like a silent one of the program.
trap 'echo "run_under_wine.sh: the command in line $LINENO failed: $BASH_COMMAND" >&2' ERR

readonly COMPILER=x86_64-w64-mingw32-g++-posix

die() {
    echo "run_under_wine.sh: $*" >&2
    exit 125
}

cache_dir() {
    echo "${XDG_CACHE_HOME:-${HOME:?neither XDG_CACHE_HOME nor HOME is set}/.cache}/qvtp"
}

windows_path() {
    local path=$1
    [[ $path == /* ]] || path=$PWD/$path
    echo "Z:${path//\//\\}"
}

# The directories of the DLLs that come with the compiler. They follow the compiler's version, so it is asked.
runtime_dirs() {
    local dll file
    for dll in libstdc++-6.dll libwinpthread-1.dll; do
        file=$("$COMPILER" -print-file-name="$dll")
        # Without a directory in front, the compiler did not find the file.
        if [[ $file == /* ]]; then dirname -- "$file"; fi
    done | sort -u
}

set_environment() {
    export WINEPREFIX=${QVTP_WINEPREFIX:-$(cache_dir)/wine}
    export WINEDEBUG=${WINEDEBUG:--all}
    # No questions about add-ons while the prefix is filled, and no entries in the desktop's menu. No desktop either: the
    # first program with a console starts it, and it keeps that program's standard error open. Now and then it never
    # ends.
    export WINEDLLOVERRIDES="${WINEDLLOVERRIDES:+$WINEDLLOVERRIDES;}mscoree,mshtml=;winemenubuilder.exe,explorer.exe=d"
    # Programs of ours open no window. Wine takes code page and language from the locale: the same on every machine.
    unset DISPLAY
    export LC_ALL=C.UTF-8
}

# The compiler takes longer for its answer than Wine for the start of a program. So the answer is kept, after a line that
# says which compiler gave it.
kept_runtime_dirs() {
    local kept=$WINEPREFIX.runtime compiler identity known=
    compiler=$(command -v "$COMPILER") || return 0
    identity=$(stat -Lc '%n %i %s %Z' "$compiler")
    if [[ -s $kept ]]; then read -r known <"$kept" || true; fi
    if [[ $known != "$identity" ]]; then
        mkdir -p "$(dirname -- "$kept")"
        { echo "$identity" && runtime_dirs; } >"$kept.$$"
        mv "$kept.$$" "$kept"
    fi
    tail -n +2 "$kept"
}

set_dll_path() {
    local path dir
    path=$(windows_path "$1/bin")
    while read -r dir; do
        path+=";$(windows_path "$dir")"
    done < <(kept_runtime_dirs)
    export WINEPATH="$path${WINEPATH:+;$WINEPATH}"
}

server_runs() {
    wineserver -k0 >/dev/null 2>&1
}

# Any program makes Wine fill a prefix that bears no time stamp; one that was left half filled has to lose its stamp for
# that. The registry reaches the disk when the server ends, so only then the prefix is complete, and marked so.
fill_prefix() {
    mkdir -p "$WINEPREFIX"
    rm -f "$WINEPREFIX/.update-timestamp"
    wine cmd.exe /c exit </dev/null >"$WINEPREFIX/fill.log" 2>&1 || die "cannot prepare Wine, see $WINEPREFIX/fill.log"
    timeout 60 wineserver -w >/dev/null 2>&1 || wineserver -k >/dev/null 2>&1 || true
    touch "$WINEPREFIX/.filled"
}

# Server and services are started here and not by the first program, since they would keep that program's output open
# and whoever reads it waiting.
start_server() {
    wineserver -p"${QVTP_WINE_LINGER:-120}" </dev/null >/dev/null 2>&1
    setsid wine cmd.exe /c exit </dev/null >/dev/null 2>&1
}

# Each process that has called --start has a file here, named by its number, with the time of its start in it: numbers
# are given out again.
users() { echo "$WINEPREFIX.users"; }
start_time() { # the 22nd field; the second is a name in brackets, which may have blanks
    sed 's/.*) //' "/proc/$1/stat" 2>/dev/null | cut -d' ' -f20
}

# One at a time; the lock must not pass to the server, which outlives this script.
ensure_server() {
    mkdir -p "$(dirname -- "$WINEPREFIX")"
    (
        flock 9
        [[ -z ${1:-} ]] || { mkdir -p "$(users)" && start_time "$1" >"$(users)/$1"; }
        [[ -e $WINEPREFIX/.filled ]] || fill_prefix 9>&-
        server_runs 9>&- || start_server 9>&-
    ) 9>"$WINEPREFIX.lock"
}

stop_server() {
    mkdir -p "$(dirname -- "$WINEPREFIX")"
    (
        flock 9
        rm -f "$(users)/$1"
        local file
        for file in "$(users)"/*; do
            [[ -e $file ]] || continue
            if [[ $(<"$file") == "$(start_time "${file##*/}")" && -s $file ]]; then
                echo "run_under_wine.sh: Wine goes on, process ${file##*/} uses it"
                return
            fi
            rm -f "$file"
        done
        server_runs 9>&- || return 0
        wineserver -k >/dev/null 2>&1 9>&- || true
        wineserver -w >/dev/null 2>&1 9>&-
    ) 9>"$WINEPREFIX.lock"
}

main() {
    command -v wine >/dev/null || die "wine is not installed"
    local dependencies=${QVTP_MINGW_PREFIX:-$(cache_dir)/mingw-x86_64}
    set_environment
    case ${1:-} in
    --start)
        ensure_server "$PPID"
        exit
        ;;
    --stop)
        stop_server "$PPID"
        exit
        ;;
    --dependencies)
        dependencies=${2:?--dependencies needs a directory}
        shift 2
        ;;
    esac
    [[ $# -gt 0 ]] || die "no program given"
    set_dll_path "$dependencies"
    ensure_server
    # With addresses at random, one start in some thousands fails without a word: a page that Wine 8 needs at a fixed
    # place ("failed to map the shared user data") is taken. Not every container allows this.
    if setarch --addr-no-randomize true 2>/dev/null; then exec setarch --addr-no-randomize wine "$@"; fi
    exec wine "$@"
}

main "$@"
