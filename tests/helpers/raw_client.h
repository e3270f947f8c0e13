// A client that does the IPC handshake by hand and then reads and writes raw bytes on blocking
// pipe handles: the tests' and benchmarks' way of being a hostile or a precise client.
#pragma once

#include <windows.h>

#include <cstdint>
#include <string>
#include <vector>

namespace nv_test {

class raw_client {
public:
    raw_client() = default;
    raw_client(const raw_client&) = delete;
    raw_client& operator=(const raw_client&) = delete;
    ~raw_client() { close(); }

    // Takes the connecting mutex (waiting up to 10 s for the listener), opens both pipes, sets
    // the connected event (unless told not to, as a hostile client may) and releases the mutex.
    bool connect(const std::string& name, bool signal = true);
    // The handshake holding only the listener's `suffix` pipe ("_OUTBOUND" or "_INBOND"); with
    // `handshake` false, only that pipe is opened, as a hostile client may.
    bool connect_half(const std::string& name, const std::string& suffix, bool signal, bool handshake = true);
    // Reads what has come on the listener's "_OUTBOUND" without waiting, adding it to `total`;
    // false once that pipe has ended (or is not held).
    bool drain(uint32_t& total);
    bool write(const std::vector<unsigned char>& bytes);
    // Reads exactly n bytes; false when the pipe ends first.
    bool read(uint32_t n, std::vector<unsigned char>& bytes);
    void close();

private:
    HANDLE in_ = nullptr;   // the listener's "_OUTBOUND"
    HANDLE out_ = nullptr;  // the listener's "_INBOND"
};

// Reads exactly n bytes from a blocking handle; false when it ends first.
bool read_exact(HANDLE h, uint32_t n, std::vector<unsigned char>& bytes);

}  // namespace nv_test
