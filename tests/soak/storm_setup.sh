# Sourced after tests/integration/protection_lib.sh, by the storm and the restart benchmark.
# storm_setup CLIENTS: the service installed, the 8 services nvstorm<N> whose keys and images the
# storm protects (their program is absent), the storm's keys, folders and files for CLIENTS
# clients (nv_storm prepare), then the service started.
storm=$NV_BIN_DIR/nv_storm.exe
storm_setup() {
    local i
    run "$exe" -i install
    for i in 0 1 2 3 4 5 6 7; do run sc create "nvstorm$i" binPath= 'C:\nv\absent.exe' start= demand; done
    runs "prepare" 0 '*' "$storm" prepare "$1"
    start_service
}
