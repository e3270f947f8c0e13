// Protected process images and their folders: the image and folder rules in the driver and the
// folders' DACLs, with the tables of both.
#pragma once

#include <windows.h>

#include <atomic>
#include <cstdint>
#include <map>
#include <string>
#include <vector>

#include "mcl/lock.h"
#include "mcl/mswin/sid.h"
#include "mcl/mswin/unique_handle.h"
#include "protocol/requests.h"

// What the process and folder protection needs from the driver's command port.
class folder_driver {
public:
    virtual ~folder_driver() = default;
    // A connection of its own to the command port; invalid (the failure logged) when the driver
    // cannot be reached.
    virtual mcl::mswin::unique_kernel_handle open_port() = 0;
    // Code 1 (2 when removing) with `image`; an empty path with `remove` removes every image rule.
    virtual void send_image_rule(HANDLE port, const std::wstring& image, bool remove) = 0;
    // Switches one driver feature.
    virtual void enable_feature(HANDLE port, uint32_t feature, bool on) = 0;
    // Code 7/8 (9/10 when `block`) with the device form of `path`, attaching its volume on an
    // add; an empty path with `remove` removes every rule of that code.
    virtual void send_folder_rule(HANDLE port, const std::wstring& path, bool remove, bool block) = 0;
    // Detaches every volume the folder rules attached.
    virtual void detach_all_volumes() = 0;
};

// Who else keeps full access to a protected folder.
class folder_sharers {
public:
    virtual ~folder_sharers() = default;
    // `ownSid`, then the SID of every other protected service whose image path contains `folder`.
    virtual std::vector<mcl::mswin::sid> folder_sids(const std::wstring& folder, const mcl::mswin::sid& ownSid) = 0;
};

// Owns the protected images and folders.
// Threads: a client's rules are applied on a request worker, one request at a time (the
// dispatcher orders every request that rewrites folder DACLs, and the protection switch, by one
// key), while the IPC event thread lists the tables and checks callers against the folders;
// start-up and shutdown run on the service thread with no request running. So there is one
// writer at a time, which reads the tables as they are; the lock is held while it writes them
// and while another thread reads them, never across a driver message or a DACL write.
class process_protection {
public:
    struct process_record {
        std::wstring imagePath;
        std::wstring folder;  // filled in by protectProcess
    };
    struct folder_record {
        std::string sddl;  // the folder's DACL as read back after the rewrite; empty when unreadable
        std::wstring folder;
        uint32_t refCount = 0;  // protected images in the folder; the record lives while >= 1
    };
    using process_rule = protocol::process_rule;

    // `driver`, `sharers` and `enabled` (the process protection switch) outlive this object.
    process_protection(folder_driver& driver, folder_sharers& sharers, const std::atomic<bool>& enabled)
        : driver_(driver), sharers_(sharers), enabled_(enabled) {}
    process_protection(const process_protection&) = delete;
    process_protection& operator=(const process_protection&) = delete;

    // The folder of an image path or of a command line (quoted path and arguments): the text up to
    // its last backslash, starting at the drive letter; a text without a backslash as it is.
    static std::wstring image_folder_of(const std::wstring& imagePath);
    // Sends the image and folder rules and rewrites the folder's DACL; fills record.folder. A
    // folder the path policy refuses (the Windows folder a service is hosted in, a Program Files
    // root) is never touched: the image rule alone, record.folder left empty, a log line. False,
    // with nothing changed, when protection is off, the folder is not X:\folder form or the
    // driver cannot be reached.
    bool protectProcess(const std::wstring& imagePath, const mcl::mswin::sid& ownSid, process_record& record);
    // Lifts the image rule and, with the folder's last image, the folder rule and its DACL. With
    // `force`, an unreachable driver still resets the folder's DACL and drops its record (never
    // for an empty folder or one the path policy refuses).
    bool unprotectProcess(const process_record& record, bool force);
    // Applies a rule list; an empty first path means every image. An image the path policy refuses
    // is not protected (logged). False when any rule failed.
    bool handle_protect_processes(const std::vector<process_rule>& rules);
    // The image rule of a service rule: protect or (forced) unprotect `image`; false on failure.
    bool apply_service_image(const std::wstring& image, bool protect, const mcl::mswin::sid& ownSid, bool logFailure);
    // Removes every image and folder rule, detaches every volume, resets every folder's DACL.
    void stopProtectingProcess();
    // Resets every protected folder's DACL; the records stay.
    void restoreProtectedFolders();
    // Drops the record of a folder whose DACL was reset by hand.
    void forget_folder(const std::wstring& folder);

    // Both tables as they stand, copied together. Any thread.
    struct tables {
        std::map<std::wstring, process_record> processes;  // image path -> record
        std::map<std::wstring, folder_record> folders;     // folder path -> record
    };
    tables snapshot() const;
    // The protected folders' paths. Any thread.
    std::vector<std::wstring> folder_paths() const;

private:
    void list_process(const process_record& record);
    void unlist_process(const std::wstring& imagePath);

    folder_driver& driver_;
    folder_sharers& sharers_;
    const std::atomic<bool>& enabled_;
    mutable mcl::lock lock_;
    std::map<std::wstring, process_record> protected_processes_;  // lock_ for writes
    std::map<std::wstring, folder_record> protected_folders_;     // lock_ for writes
};
