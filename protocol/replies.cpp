#include "protocol/replies.h"

#include "mcl/encoding.h"

namespace protocol {

namespace {

bool read_service_info(protected_service_info& e, const mcl::binary_t& in, uint32_t& pos) {
    return mcl::read_bool(e.valid, in, pos) && mcl::read_bool(e.process_protected, in, pos) &&
           mcl::read_string(e.service_sddl, in, pos) && mcl::read_string(e.folder_sddl, in, pos) &&
           mcl::read_string(e.name, in, pos) && mcl::read_string(e.sid, in, pos) &&
           mcl::read_wstring(e.image_path, in, pos) && mcl::read_wstring(e.folder, in, pos);
}

bool read_process_info(protected_process_info& e, const mcl::binary_t& in, uint32_t& pos) {
    return mcl::read_bool(e.valid, in, pos) && mcl::read_string(e.folder_sddl, in, pos) &&
           mcl::read_wstring(e.image_path, in, pos) && mcl::read_wstring(e.folder, in, pos);
}

bool read_reg_key_info(protected_reg_key_info& e, const mcl::binary_t& in, uint32_t& pos) {
    return mcl::read_bool(e.valid, in, pos) && mcl::read_string(e.original_sddl, in, pos) &&
           mcl::read_string(e.current_sddl, in, pos) && mcl::read_u64(e.root, in, pos) &&
           mcl::read_wstring(e.path, in, pos) && mcl::read_string(e.owner, in, pos) &&
           mcl::read_string_list(e.services, in, pos);
}

bool read_quarantined_file(quarantined_file& e, const mcl::binary_t& in, uint32_t& pos) {
    return mcl::read_string(e.archive_name, in, pos) && mcl::read_string(e.recorded_path, in, pos);
}

bool read_notification(notification_data& e, const mcl::binary_t& in, uint32_t& pos) {
    return mcl::read_u64(e.sequence, in, pos) && mcl::read_u64(e.time, in, pos) &&
           mcl::read_string(e.file_path, in, pos) && mcl::read_byte(e.major_function, in, pos) &&
           mcl::read_byte(e.minor_function, in, pos) && mcl::read_u64(e.process_id, in, pos) &&
           mcl::read_string(e.process_image, in, pos) && mcl::read_string(e.process_description, in, pos) &&
           mcl::read_u32(e.irp_denied, in, pos);
}

}  // namespace

// ---- encoders

void encode(mcl::binary_t& out, const status_reply& reply) {
    mcl::write_byte(out, reply.result);
    mcl::write_string(out, reply.message);
}

void encode(mcl::binary_t& out, const compatibility_reply& reply) {
    mcl::write_byte(out, reply.ok);
    mcl::write_u32(out, reply.version);
}

void encode(mcl::binary_t& out, const version_reply& reply) { mcl::write_u32(out, reply.version); }

void encode(mcl::binary_t& out, const protected_services_reply& reply) {
    mcl::write_list(out, reply.services, [](mcl::binary_t& o, const protected_service_info& e) {
        mcl::write_byte(o, e.valid ? 1 : 0);
        mcl::write_byte(o, e.process_protected ? 1 : 0);
        mcl::write_string(o, e.service_sddl);
        mcl::write_string(o, e.folder_sddl);
        mcl::write_string(o, e.name);
        mcl::write_string(o, e.sid);
        mcl::write_wstring(o, e.image_path);
        mcl::write_wstring(o, e.folder);
    });
}

void encode(mcl::binary_t& out, const protected_processes_reply& reply) {
    mcl::write_list(out, reply.processes, [](mcl::binary_t& o, const protected_process_info& e) {
        mcl::write_byte(o, e.valid ? 1 : 0);
        mcl::write_string(o, e.folder_sddl);
        mcl::write_wstring(o, e.image_path);
        mcl::write_wstring(o, e.folder);
    });
}

void encode(mcl::binary_t& out, const protected_reg_keys_reply& reply) {
    mcl::write_list(out, reply.keys, [](mcl::binary_t& o, const protected_reg_key_info& e) {
        mcl::write_byte(o, e.valid ? 1 : 0);
        mcl::write_string(o, e.original_sddl);
        mcl::write_string(o, e.current_sddl);
        mcl::write_u64(o, e.root);
        mcl::write_wstring(o, e.path);
        mcl::write_string(o, e.owner);
        mcl::write_string_list(o, e.services);
    });
}

void encode(mcl::binary_t& out, const quarantined_files_reply& reply) {
    mcl::write_list(out, reply.files, [](mcl::binary_t& o, const quarantined_file& e) {
        mcl::write_string(o, e.archive_name);
        mcl::write_string(o, e.recorded_path);
    });
}

void encode(mcl::binary_t& out, const quarantine_containers_reply& reply) {
    mcl::write_string_list(out, reply.containers);
}

void encode(mcl::binary_t& out, const notifications_reply& reply) {
    mcl::write_list(out, reply.records, [](mcl::binary_t& o, const notification_data& e) {
        mcl::write_u64(o, e.sequence);
        mcl::write_u64(o, e.time);
        mcl::write_string(o, e.file_path);
        mcl::write_byte(o, e.major_function);
        mcl::write_byte(o, e.minor_function);
        mcl::write_u64(o, e.process_id);
        mcl::write_string(o, e.process_image);
        mcl::write_string(o, e.process_description);
        mcl::write_u32(o, e.irp_denied);
    });
}

// ---- decoders

bool decode(const mcl::binary_t& in, status_reply& reply) {
    uint32_t pos = 0;
    return mcl::read_byte(reply.result, in, pos) && mcl::read_string(reply.message, in, pos);
}

bool decode(const mcl::binary_t& in, compatibility_reply& reply) {
    uint32_t pos = 0;
    return mcl::read_byte(reply.ok, in, pos) && mcl::read_u32(reply.version, in, pos);
}

bool decode(const mcl::binary_t& in, version_reply& reply) {
    uint32_t pos = 0;
    return mcl::read_u32(reply.version, in, pos);
}

bool decode(const mcl::binary_t& in, protected_services_reply& reply) {
    uint32_t pos = 0;
    return mcl::read_list(reply.services, in, pos, read_service_info);
}

bool decode(const mcl::binary_t& in, protected_processes_reply& reply) {
    uint32_t pos = 0;
    return mcl::read_list(reply.processes, in, pos, read_process_info);
}

bool decode(const mcl::binary_t& in, protected_reg_keys_reply& reply) {
    uint32_t pos = 0;
    return mcl::read_list(reply.keys, in, pos, read_reg_key_info);
}

bool decode(const mcl::binary_t& in, quarantined_files_reply& reply) {
    uint32_t pos = 0;
    return mcl::read_list(reply.files, in, pos, read_quarantined_file);
}

bool decode(const mcl::binary_t& in, quarantine_containers_reply& reply) {
    uint32_t pos = 0;
    return mcl::read_string_list(reply.containers, in, pos);
}

bool decode(const mcl::binary_t& in, notifications_reply& reply) {
    uint32_t pos = 0;
    return mcl::read_list(reply.records, in, pos, read_notification);
}

}  // namespace protocol
