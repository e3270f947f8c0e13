// The storm's objects and its connection to the service.
#include <string>
#include <vector>

#include "mcl/ipc/frame.h"
#include "mcl/mswin/service.h"
#include "mcl/mswin/text.h"
#include "protocol/message_ids.h"
#include "protocol/replies.h"
#include "protocol/requests.h"
#include "tests/soak/storm.h"

namespace storm {

std::string storm_key(int client) { return "SOFTWARE\\NVStorm\\k" + std::to_string(client); }

std::string record_name(int client) {
    return "\\\\" + std::to_string(hklm) + "\\" + mcl::mswin::lower_case(storm_key(client));
}

std::string storm_file(int client, int file) {
    return "C:\\storm\\f" + std::to_string(client) + "\\q" + std::to_string(file) + ".bin";
}

std::vector<unsigned char> storm_file_bytes(int client, int file) {
    const unsigned number = static_cast<unsigned>(client * files_per_client + file);
    std::vector<unsigned char> bytes(4096 + (number * 7919u) % 61441u);
    for (size_t i = 0; i < bytes.size(); ++i) bytes[i] = static_cast<unsigned char>(number * 131u + i * 31u + i / 251u);
    return bytes;
}

std::string own_container(int client) { return "C:\\storm\\c" + std::to_string(client); }
std::string blocked_file(int client) { return "C:\\storm\\f" + std::to_string(client) + "\\blk.txt"; }

bool client_conn::open() {
    client_.close();
    return client_.connect(mcl::mswin::service::default_name);
}

bool client_conn::open_patiently() {
    for (int i = 0; i < 100; ++i) {
        if (open()) return true;
        Sleep(200);
    }
    return false;
}

std::vector<unsigned char> client_conn::frame(uint32_t id, const mcl::binary_t& payload) {
    mcl::binary_t frame;
    mcl::append_frame(frame, mcl::frame_kind::request, id, ++sequence_, payload);
    return {frame.data(), frame.data() + frame.size()};
}

bool client_conn::request(uint32_t id, const mcl::binary_t& payload, mcl::binary_t& reply) {
    struct shown {
        in_flight* w;
        ~shown() {
            if (w != nullptr) w->since = 0;
        }
    } waiting{watch};
    if (watch != nullptr) {
        watch->id = id;
        watch->since = GetTickCount64();
    }
    std::vector<unsigned char> header, body;
    mcl::frame_header h;
    // An empty frame still carries its pad byte.
    if (!client_.write(frame(id, payload)) || !client_.read(mcl::frame_header_size, header) ||
        !mcl::read_frame_header(header.data(), static_cast<uint32_t>(header.size()), h) ||
        !client_.read(h.length == 0 ? 1 : h.length, body))
        return false;
    reply = mcl::binary_t();
    if (h.length != 0) reply.append(body.data(), h.length);
    return true;
}

bool client_conn::partial(uint32_t id, const mcl::binary_t& payload, uint32_t n) {
    std::vector<unsigned char> bytes = frame(id, payload);
    if (n < bytes.size()) bytes.resize(n);
    return client_.write(bytes);
}

bool status_ok(const mcl::binary_t& reply) {
    protocol::status_reply status;
    return protocol::decode(reply, status) && status.result == 1;
}

bool list_archives(client_conn& conn, std::map<std::string, std::string>& archives) {
    archives.clear();
    mcl::binary_t request;
    protocol::encode(request, protocol::name_request{storm_container});
    mcl::binary_t reply;
    protocol::quarantined_files_reply files;
    if (!conn.request(msg::get_quarantined_files, request, reply) || !protocol::decode(reply, files)) return false;
    for (const protocol::quarantined_file& f : files.files)
        archives[mcl::mswin::lower_case(f.recorded_path)] = std::string(storm_container) + "\\" + f.archive_name;
    return true;
}

}  // namespace storm
