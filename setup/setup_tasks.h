// The setup tasks run with "-proxy_task".
#pragma once

bool install_hvs(bool upgrade);
bool uninstall_hvs();
bool hvs_repair_folder_permission(const char* folder);
