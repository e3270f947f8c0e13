// A small program that tests start as a second process.
//   nv_test_helper hold-mutex NAME MS READY_EVENT   create and hold a named mutex for MS ms
//   nv_test_helper abandon-mutex NAME READY_EVENT   take the mutex and exit without releasing
//   nv_test_helper set-event NAME                   set an existing named event (exit 2 if none)
#include <windows.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>

int main(int argc, char** argv) {
    if (argc >= 5 && strcmp(argv[1], "hold-mutex") == 0) {
        HANDLE m = CreateMutexA(nullptr, TRUE, argv[2]);
        if (m == nullptr) return 2;
        HANDLE ready = OpenEventA(EVENT_MODIFY_STATE, FALSE, argv[4]);
        if (ready != nullptr) SetEvent(ready);
        Sleep(static_cast<DWORD>(atoi(argv[3])));
        ReleaseMutex(m);
        CloseHandle(m);
        return 0;
    }
    if (argc >= 4 && strcmp(argv[1], "abandon-mutex") == 0) {
        HANDLE m = CreateMutexA(nullptr, TRUE, argv[2]);
        if (m == nullptr) return 2;
        HANDLE ready = OpenEventA(EVENT_MODIFY_STATE, FALSE, argv[3]);
        if (ready != nullptr) SetEvent(ready);
        Sleep(300);
        ExitProcess(0);  // the mutex is abandoned
    }
    if (argc >= 3 && strcmp(argv[1], "set-event") == 0) {
        HANDLE e = OpenEventA(EVENT_MODIFY_STATE, FALSE, argv[2]);
        if (e == nullptr) return 2;
        const BOOL ok = SetEvent(e);
        CloseHandle(e);
        return ok ? 0 : 3;
    }
    fprintf(stderr, "nv_test_helper: unknown command\n");
    return 1;
}
