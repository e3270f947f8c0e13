#include "mcl/mswin/filter_port.h"

namespace mcl::mswin {

filter_port connect_filter_port(filter_connect_fn connect, HRESULT load_error, const wchar_t* name) {
    filter_port port;
    if (connect == nullptr) {
        port.hr = FAILED(load_error) ? load_error : HRESULT_FROM_WIN32(ERROR_PROC_NOT_FOUND);
        return port;
    }
    HANDLE raw = INVALID_HANDLE_VALUE;
    port.hr = connect(name, /*options=*/0, /*context=*/nullptr, /*context_size=*/0, /*security=*/nullptr, &raw);
    if (SUCCEEDED(port.hr)) port.handle.reset(raw);
    return port;
}

}  // namespace mcl::mswin
