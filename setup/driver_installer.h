// Installs, updates and removes the minifilter driver VQRMonitor.
#pragma once

// 0 on success, else a small result code (see the implementation).
int install_vqrmonitor(bool force);
// `marked_for_deletion` (may be null) comes back true when the driver service could not be
// deleted because it is already marked for deletion.
int uninstall_vqrmonitor(bool* marked_for_deletion);
