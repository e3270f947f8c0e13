/* The VQRMonitor stand-in driver image: a kernel-mode module that loads, does nothing and
 * unloads, so that the service control manager can start and stop the driver service the
 * installer registers. The filter's behaviour is played by the driver simulator
 * (tools/driver_sim) behind our fltlib.dll. */
#include <ddk/wdm.h>

static void NTAPI vqrmonitor_unload(PDRIVER_OBJECT driver) { (void)driver; }

NTSTATUS NTAPI DriverEntry(PDRIVER_OBJECT driver, PUNICODE_STRING registry_path) {
    (void)registry_path;
    driver->DriverUnload = vqrmonitor_unload;
    return STATUS_SUCCESS;
}
