// Quarantine containers with the files quarantined in them, and blocked files.
//
// A container is a folder locked down with a restrictive DACL and the driver's blocking folder
// rule; sources are archived into it as "*.QUA" files and deleted, archives are deleted or
// restored to their recorded paths. A blocked file gets a DACL that only chosen services reach,
// plus the driver's blocking rule, until it is unblocked. Both lists are kept in the registry and
// read back at start-up.
#pragma once

#include <windows.h>

#include <cstdint>
#include <map>
#include <set>
#include <string>
#include <vector>

#include "mcl/lock.h"
#include "mcl/mswin/security_descriptor.h"
#include "mcl/mswin/sid.h"
#include "mcl/mswin/unique_handle.h"

// What the store needs from the driver's command port.
class quarantine_driver {
public:
    virtual ~quarantine_driver() = default;
    // A connection of its own to the command port; invalid (the failure logged) when the driver
    // cannot be reached.
    virtual mcl::mswin::unique_kernel_handle open_port() = 0;
    // Code 7/8 (9/10 when `block`) with the device form of `path`, attaching its volume on an
    // add.
    virtual void send_folder_rule(HANDLE port, const std::wstring& path, bool remove, bool block) = 0;
};

// The DACLs of files and folders as the store reads and writes them.
class quarantine_security {
public:
    virtual ~quarantine_security() = default;
    // The DACL of a file or folder into `descriptor`. The Win32 code.
    virtual DWORD get_file_dacl(const std::wstring& path, mcl::mswin::security_descriptor& descriptor) = 0;
    // The DACL written to a file or folder, protected from the parent or not. The Win32 code.
    virtual DWORD set_file_dacl(const std::wstring& path, PACL dacl, bool protect) = 0;
    // The same through an open handle (READ_CONTROL to read, WRITE_DAC to write): the DACL of the
    // very file that was opened, whatever its path names meanwhile. The Win32 code.
    virtual DWORD get_handle_dacl(HANDLE file, mcl::mswin::security_descriptor& descriptor) = 0;
    virtual DWORD set_handle_dacl(HANDLE file, PACL dacl, bool protect) = 0;
    // Rewrites the DACL: full access for `sids` in order, every other ACE cut down to read and
    // execute (to nothing with `denyOthers`); with `originalSddl`, the DACL before as SDDL.
    virtual bool setPathPermissions(const std::wstring& path, const std::vector<mcl::mswin::sid>& sids,
                                    std::string* originalSddl, bool denyOthers) = 0;
    // Writes the DACL of `sddl`, unprotected so the parent's ACEs apply again (protected only
    // when the text itself is, "D:P...").
    virtual bool restorePathPermissions(const std::wstring& path, const char* sddl) = 0;
    // The DACL a folder gets back when its protection is lifted.
    virtual const char* default_folder_sddl() = 0;
};

// Who holds a file open before it is quarantined or blocked.
class file_users {
public:
    virtual ~file_users() = default;
    // Terminates every process whose image path is `path`, ignoring case.
    virtual void kill_processes_of(const std::string& path) = 0;
};

// Owns the registered containers and the blocked files. Requests run on the IPC event thread and
// on request workers side by side (never two on the same container or file: the dispatcher
// orders those), so both tables have one lock, held only while a table is read or written, never
// across file or driver work. The start-up's load runs before any request. Paths are narrow
// (ANSI) strings.
class quarantine_store {
public:
    static constexpr const char* quarantine_containers_key = "Software\\Norvale\\NVClientHelper\\QuarantineContainers";
    static constexpr const char* protected_folders_key = "system\\CurrentControlSet\\Services\\VQRMonitor\\ProtectedFolders";
    // Lower-cased blocked path -> the SDDL text of the DACL it had before; kept across restarts.
    static constexpr const char* blocked_files_key = "Software\\Norvale\\NVClientHelper\\BlockedFiles";
    // Source path -> the SDDL text of its DACL, written before an add changes that DACL and removed
    // once the source is gone or has its DACL back: a start-up gives back what a kill left.
    static constexpr const char* sources_in_progress_key = "Software\\Norvale\\NVClientHelper\\QuarantineInProgress";

    // Called with the source and the archive's temporary between writing it and reading it back.
    // The product has none; a test build installs one, before the program starts, to damage an
    // archive and see the read-back check refuse it.
    using archive_written_hook = void (*)(const std::string& source, const std::string& temporary);
    static void set_archive_written_hook(archive_written_hook hook);

    // `driver`, `security` and `users` outlive this object.
    // Archive work gives up, as a failure, once its thread is asked to stop (mcl::stop_requested).
    quarantine_store(quarantine_driver& driver, quarantine_security& security, file_users& users);
    quarantine_store(const quarantine_store&) = delete;
    quarantine_store& operator=(const quarantine_store&) = delete;

    // A container path as the table keeps it: lower case, ending in a backslash.
    static std::string normalise_container(std::string path);
    // A folder below a drive root, "x:\name\..." (lower-case drive letter), short enough for the
    // driver and the archive names inside it, without "." or ".." components.
    static bool is_container_path(const std::string& path);
    // A folder itself, not a link to one (junction, symbolic link, mount point): a container
    // swapped for a link is neither written to nor read from.
    static bool is_directory(const std::string& path);

    // Creates every missing folder of `path` (a trailing backslash is added); true when all exist.
    static bool createPath(const std::string& path);
    // Makes the container's folder (its missing parents too) and locks it down. Refused, logged,
    // when the folder exists already (a container is a folder the service made; one it made
    // earlier is registered and never gets here), or when the folder it made is reached through a
    // link, is no folder or cannot be given to Administrators (then it is removed again).
    bool createQuarantineContainer(const std::string& path, const std::vector<std::string>& services);
    // Action 1 deletes the archives, 2 restores them; the container goes only when all succeeded.
    bool removeQuarantineContainer(const std::string& path, uint32_t action);
    // The container path followed by each "*.QUA" entry name, in directory order; cleared first.
    static void list_quarantine_files(const std::string& container, std::vector<std::string>& files);
    // One field per source in `message`, each ended by ";": the archive path or nothing. A source
    // is deleted only after its archive was written, flushed, read back and renamed into place;
    // one that cannot be deleted through its handle stays as it was, without an archive, and
    // makes the result false.
    bool add_quarantine_files(const std::string& container, const std::vector<std::string>& files,
                              std::string& message);
    bool remove_quarantine_files(const std::string& container, const std::vector<std::string>& archives);
    // An archive is deleted only once its file is back with a matching digest. A file never
    // replaces another: with something at its recorded path it comes back beside it under a free
    // "name (restored).ext" name, and `message` (when given) gets that path followed by ";".
    bool restore_quarantine_files(const std::string& container, const std::vector<std::string>& archives,
                                  std::string* message = nullptr);
    bool quarantine_files_action(uint32_t action, const std::string& container, const std::vector<std::string>& paths,
                                 std::string& message);
    // The source path recorded in an archive; false (logged) when its header cannot be read.
    static bool read_quarantine_file_original_path(const std::string& archive, std::string& path);
    // Copies the folder's DACL onto the open file (WRITE_DAC); `name` is for the log.
    bool setQuarantineFilePermissions(HANDLE file, const std::string& name, const std::string& folder);
    // Whether `path` is an archive of a registered container, ignoring ASCII case.
    bool is_quarantined_file(const std::string& path);
    bool blockFileAccess(const std::string& path, const std::vector<std::string>& services);
    // Gives a blocked file the DACL it had before (protected as it was) and lifts the driver's
    // rule. False (logged) for a path that was not blocked, whose DACL stays as it is, and when
    // the DACL cannot be written back, the file staying blocked.
    bool unblockFileAccess(const std::string& path);
    // Start-up: the containers from the registry (each that the path policy still allows), each
    // with its driver rule again and what interrupted work left in it finished or removed, then
    // the sources of interrupted adds given their DACLs back, then the blocked files.
    void loadqQuarantineContainers();

    // Normalised container paths ("c:\\q\\"), a copy.
    std::set<std::string> containers() const;
    bool has_container(const std::string& path) const;
    // Whether a lower-cased path is blocked.
    bool is_blocked(const std::string& path) const;

private:
    // Reads the saved descriptors of blocked files back from the registry.
    void loadBlockedFiles();
    // The driver's blocking rule for `path` added or removed, through `port` when given (a loop
    // over many rules connects once), else on a connection of its own.
    void send_blocking_rule(const std::wstring& path, bool remove, HANDLE port = nullptr);
    // The service SIDs that get full access: the own service's SID first, then the SID of each of
    // `services` that has one; a name without one is logged (as from `fn`, with `target` saying
    // what it was for) and skipped. False (logged) when the own SID is missing.
    static bool full_access_service_sids(const char* fn, const char* target, const std::vector<std::string>& services,
                                         std::vector<mcl::mswin::sid>& sids);
    // The file's DACL as SDDL text; empty when it cannot be read.
    std::string current_sddl(const std::wstring& path);
    // What interrupted work left behind in `container`: an archive temporary that reads back to
    // its digest becomes the archive (its source deleted when it still holds that content); one
    // that does not is removed while its source is there and kept otherwise (it is the only copy).
    // Beside each archive's recorded path, the temporary of a restore that never finished is
    // removed. Each step is logged.
    void remove_archive_leftovers(const std::string& container);
    // The sources of adds that never finished get the DACL recorded before the add changed it.
    void give_back_sources_in_progress();
    void finish_or_remove(const std::string& temp);

    quarantine_driver& driver_;
    quarantine_security& security_;
    file_users& users_;
    mutable mcl::lock tables_lock_;
    std::set<std::string> quarantine_containers_;      // normalised paths ("c:\\q\\")
    std::map<std::string, std::string> blocked_files_;  // lower-cased path -> previous DACL (SDDL)
};
