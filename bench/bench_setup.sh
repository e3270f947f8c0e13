# Sourced by the benchmarks that run the service, before anything else; reads and shifts the
# script's own arguments: "--smoke" first sets smoke=1 (else 0), then BUILD_DIR (default
# build/mingw-x64). Exports NV_BIN_DIR, NV_SOURCE_DIR and WINEPREFIX, the test prefix (the
# build's unless WINEPREFIX is set; made when missing), which the benchmark then copies with
# tests/integration/service_prefix.sh: a prefix of its own, removed at the end.
src=$(cd "$(dirname "${BASH_SOURCE[0]}")/.." && pwd)
smoke=0
if [ "${1:-}" = --smoke ]; then
    smoke=1
    shift
fi
build=$(cd "${1:-$src/build/mingw-x64}" && pwd) || exit 1
export NV_BIN_DIR=$build/bin NV_SOURCE_DIR=$src WINEPREFIX=${WINEPREFIX:-$build/wine/prefix}
[ -d "$WINEPREFIX" ] || bash "$src/tests/wine/prefix.sh" create >/dev/null || exit 1

# service_prefix: that copy (tests/integration/service_prefix.sh, whose helpers it brings) with its
# driver simulator running and the service alone in C:\nv ($nv; its debug log is $log).
service_prefix() {
    . "$src/tests/integration/service_prefix.sh"
    new_prefix
    start_sim
    install_service
}
