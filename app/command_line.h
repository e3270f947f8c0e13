// The one-shot options of the executable.
#pragma once

// 0: no one-shot option, run the service. -1: done with success. -2 to -5: failures or
// results, which become the process exit code.
int run_command_line(int argc, char** argv);

// The usage text on standard output.
void print_usage();

// "-c": 0 running (or state unreadable), -2 no name or configuration unreadable, -3 disabled,
// -4 not running, -5 manager or service cannot be opened.
int check_service_state(const char* name);

// "-e": elevated token (NT 6.0 and later) or member of the local Administrators group.
bool is_process_elevated();
