// Program entry: find our location, open the debug log, then run a one-shot option or the
// service (under the service control manager, or in the console with "-d").
#include <cstdio>

#include "app/command_line.h"
#include "app/log.h"
#include "app/program.h"
#include "app/service_commands.h"

int main(int argc, char** argv) {
    if (!init_module_path()) {
        printf("Failed to get halvern service file name!\n");
        return -1;
    }
    open_debug_log();

    const int result = run_command_line(argc, argv);
    if (result != 0) return result == -1 ? 0 : result;

    if (g_debug_mode) {
        NV_LOG("main", "chelperservice - run_debug()");
        if (!run_service_in_console()) {
            printf("halvern service could not be started!\n");
            return -2;
        }
    } else {
        NV_LOG("main", "chelperservice - run()");
        if (!run_service()) printf("halvern service could not be started!\n");
    }
    return 0;
}
