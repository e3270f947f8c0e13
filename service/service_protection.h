// Protected services: their DACL, their persisted entries and the table of them.
#pragma once

#include <atomic>
#include <map>
#include <string>
#include <vector>

#include "mcl/buffer.h"
#include "mcl/lock.h"
#include "mcl/mswin/sid.h"
#include "protocol/requests.h"
#include "service/process_protection.h"
#include "service/service_enforcement.h"

// Owns the protected services. It also tells the process protection which other services keep
// full access to a protected folder.
// Threads: as the process protection's tables (one writer at a time, a request worker or the
// service thread; the lock held while it writes and while another thread reads).
class service_protection final : public folder_sharers {
public:
    struct service_record {
        std::string sddl;  // the service's DACL as read back after protection
        std::string name;
        std::string sid;  // S-1-5-80-...
        std::wstring imagePath;
    };
    using service_rule = protocol::service_rule;
    static constexpr const char* protected_services_key = "Software\\Norvale\\NVClientHelper\\ProtectedServices";
    // Beside each service's entry ("<name>" = 1) in protected_services_key, its DACL from before
    // its first protect: "<name>\OriginalDacl" (REG_SZ, SDDL), what an unprotect writes back. No
    // service name holds a backslash, so the two never meet.
    static std::string original_dacl_value(const std::string& name) { return name + "\\OriginalDacl"; }
    static constexpr const char* protected_processes_key =
        "system\\CurrentControlSet\\Services\\VQRMonitor\\ProtectedProcesses";
    static constexpr const char* default_service_sddl =
        "D:(A;;CCLCSWRPWPDTLOCRRC;;;SY)(A;;CCDCLCSWRPWPDTLOCRSDRCWDWO;;;BA)(A;;CCLCSWLOCRRC;;;IU)(A;;CCLCSWLOCRRC;;;SU)"
        "S:(AU;FA;CCDCLCSWRPWPDTLOCRSDRCWDWO;;;WD)";

    // `enforcement` and `enabled` (the service protection switch) outlive this object.
    service_protection(service_enforcement& enforcement, const std::atomic<bool>& enabled)
        : enforcement_(enforcement), enabled_(enabled) {}
    service_protection(const service_protection&) = delete;
    service_protection& operator=(const service_protection&) = delete;

    // The program path of a service's binary path: cut after the last double quote, quotes
    // removed (an unquoted path keeps its arguments). Empty when the configuration is unreadable.
    static std::wstring service_image_path(const std::string& name);
    // The same from a configuration already read (QUERY_SERVICE_CONFIGW, as query_config gives it).
    static std::wstring image_path_of(const mcl::binary_t& config);
    // Records the service (and its original DACL) first, then replaces its DACL (own SID and the
    // service's SID in full) and, unless the service is stopped, puts it on the enforcement list.
    // Fills sddl, sid, imagePath of `record`. False, with the records this call wrote taken back,
    // when a record or the DACL cannot be written; `unrecorded` is set in the first case.
    // `known_image`: the service's image path when the caller has just read its configuration
    // (start-up), else it is read here.
    bool protectService(const std::string& name, const mcl::mswin::sid& ownSid, service_record& record,
                        bool* unrecorded = nullptr, const std::wstring* known_image = nullptr);
    // Writes the service's original DACL back (the default service DACL when none was recorded);
    // only then takes it off the enforcement list and the persisted lists. The result is that of
    // the DACL write.
    bool unprotectService(const service_record& record);

    // The service half of a rule list. `apply_rule`: one named rule, protecting or unprotecting
    // the service when its table entry says it is not yet so; `image` receives the service's
    // image when its state changed (else it stays empty). False when that failed; a protect left
    // undone because its record could not be written adds a sentence to `not_applied`.
    bool apply_rule(const service_rule& rule, const mcl::mswin::sid& ownSid, std::wstring& image,
                    std::string* not_applied = nullptr, const std::wstring* known_image = nullptr);
    // The image path of every protected service that has one, in table order.
    std::vector<std::wstring> images() const;
    // Unprotects every service and empties the table; false when any failed.
    bool unprotect_all();

    std::vector<mcl::mswin::sid> folder_sids(const std::wstring& folder, const mcl::mswin::sid& ownSid) override;

    // Service name -> record: a copy of the table as it stands. Any thread.
    std::map<std::string, service_record> services() const;

private:
    static bool recorded_original_dacl(const std::string& name, std::string& sddl);

    service_enforcement& enforcement_;
    const std::atomic<bool>& enabled_;
    mutable mcl::lock lock_;
    std::map<std::string, service_record> protected_services_;  // lock_ for writes
};
