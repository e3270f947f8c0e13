/* The VQRMonitor stand-in driver image: a kernel-mode module that the service control manager
 * starts and stops as the driver service the installer registers. The filter's behaviour is
 * played by the driver simulator (tools/driver_sim) behind our fltlib.dll; this image only
 * tells it when the driver comes up and when it goes away, as a real minifilter's ports open
 * when its service starts (DriverEntry registers the filter) and close when it unloads. */
#include <ddk/wdm.h>

/* From tools/driver_sim/sim_channel.h (C++, which the kernel headers do not build with): the
 * simulator's pipe in the kernel's form, and the two requests, each a u32 with no fields. */
#define SIM_PIPE_NAME L"\\??\\pipe\\nv_vqrmonitor_sim"
#define SIM_OP_UNLOAD 19u
#define SIM_OP_LOAD 20u

/* Sends `operation` to the simulator over its pipe and waits for the answer, so that the ports
 * are served (or gone) before the service control manager reports the change. Without a
 * simulator nothing happens: the image loads and unloads all the same. */
static void tell_simulator(ULONG operation) {
    UNICODE_STRING path;
    RtlInitUnicodeString(&path, SIM_PIPE_NAME);
    OBJECT_ATTRIBUTES attributes;
    InitializeObjectAttributes(&attributes, &path, OBJ_CASE_INSENSITIVE | OBJ_KERNEL_HANDLE, NULL, NULL);
    HANDLE pipe = NULL;
    IO_STATUS_BLOCK io;
    NTSTATUS status = STATUS_PIPE_NOT_AVAILABLE;
    int attempt;
    /* Every instance busy: try again for up to five seconds. */
    for (attempt = 0; attempt < 50; ++attempt) {
        status = ZwCreateFile(&pipe, GENERIC_READ | GENERIC_WRITE | SYNCHRONIZE, &attributes, &io,
                              NULL /* allocation */, 0 /* attributes */, 0 /* share */, FILE_OPEN,
                              FILE_SYNCHRONOUS_IO_NONALERT | FILE_NON_DIRECTORY_FILE, NULL /* ea */, 0);
        if (status != STATUS_PIPE_NOT_AVAILABLE && status != STATUS_INSTANCE_NOT_AVAILABLE &&
            status != STATUS_PIPE_BUSY)
            break;
        LARGE_INTEGER delay;
        delay.QuadPart = -100LL * 10000; /* 100 ms, relative */
        KeDelayExecutionThread(KernelMode, FALSE, &delay);
    }
    if (!NT_SUCCESS(status)) return;
    UCHAR request[4];
    request[0] = (UCHAR)operation;
    request[1] = (UCHAR)(operation >> 8);
    request[2] = (UCHAR)(operation >> 16);
    request[3] = (UCHAR)(operation >> 24);
    status = ZwWriteFile(pipe, NULL, NULL, NULL, &io, request, sizeof request, NULL, NULL);
    if (NT_SUCCESS(status)) {
        UCHAR answer[16];
        ZwReadFile(pipe, NULL, NULL, NULL, &io, answer, sizeof answer, NULL, NULL);
    }
    ZwClose(pipe);
}

static void NTAPI vqrmonitor_unload(PDRIVER_OBJECT driver) {
    (void)driver;
    tell_simulator(SIM_OP_UNLOAD);
}

NTSTATUS NTAPI DriverEntry(PDRIVER_OBJECT driver, PUNICODE_STRING registry_path) {
    (void)registry_path;
    driver->DriverUnload = vqrmonitor_unload;
    tell_simulator(SIM_OP_LOAD);
    return STATUS_SUCCESS;
}
