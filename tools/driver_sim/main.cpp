// driver_sim: stands in for the VQRMonitor minifilter where no Filter Manager exists. Serves
// until driver_ctl quit (or until the wineserver goes). Output: one line per event on stdout.
#include <cstdio>

#include "tools/driver_sim/simulator.h"

int main() {
    setvbuf(stdout, nullptr, _IONBF, 0);
    printf("driver_sim: serving\n");
    vqr::sim::simulator sim;
    return sim.run();
}
