// Quarantined files: archiving sources into a container, deleting and restoring archives, and
// the folder and archive helpers the container requests share.
//
// Nothing is lost on the way: an archive is written under a temporary name in the container,
// flushed, decoded again and checked against its digest, and only then renamed to its .QUA name;
// the source is deleted after that rename. The source is opened once, without following a link,
// and its DACL, content and deletion all go through that handle (restore_target.h), so a folder
// swapped for a link changes nothing outside; a source is never left to a delete at reboot. A
// restore writes beside its target, in a folder it holds open from its check to the rename, and
// puts the file in place only when the digest matched, beside an existing file rather than over
// it; the archive is deleted after that. A crash at any point leaves the source or a complete
// archive (or both), never neither; start-up finishes an archive that reads back whole, removes
// the temporaries it left, and gives an interrupted add's source the DACL recorded before the add
// changed it.
#include <windows.h>

#include <cstring>

#include "mcl/file.h"
#include "mcl/log.h"
#include "mcl/mswin/reg.h"
#include "mcl/mswin/text.h"
#include "mcl/mswin/unique_handle.h"
#include "quarantine/file_archive.h"
#include "quarantine/quarantine_store.h"
#include "quarantine/restore_target.h"

namespace {

using mcl::mswin::unique_find_handle;

constexpr const char* archive_suffix = ".QUA";
// An archive being written and checked; never matches "*.QUA", so listings do not show it.
constexpr const char* verifying_suffix = ".verifying";

bool ends_with_nocase(const std::string& text, const char* suffix) {
    const size_t n = strlen(suffix);
    return text.size() >= n && _stricmp(text.c_str() + text.size() - n, suffix) == 0;
}

uint64_t unix_milliseconds_now() {
    FILETIME ft;
    GetSystemTimeAsFileTime(&ft);
    const uint64_t ticks = (static_cast<uint64_t>(ft.dwHighDateTime) << 32) | ft.dwLowDateTime;
    return (ticks - 116444736000000000ULL) / 10000;
}

// The 8 bytes of `ms` in memory order (least significant first), "%02X" each.
std::string time_hex(uint64_t ms) {
    std::string text;
    char byte[3];
    for (int i = 0; i < 8; ++i) {
        snprintf(byte, sizeof(byte), "%02X", static_cast<unsigned>((ms >> (8 * i)) & 0xFF));
        text += byte;
    }
    return text;
}

bool exists(const std::string& path) { return GetFileAttributesA(path.c_str()) != INVALID_FILE_ATTRIBUTES; }

// The archive path of `source` in `container`: the file name, the archiving time and ".QUA".
// Two sources of one name in the same millisecond get the next free millisecond, so an archive
// never replaces another.
std::string archive_path_for(const std::string& container, const std::string& name) {
    for (uint64_t ms = unix_milliseconds_now();; ++ms) {
        const std::string path = container + name + "." + time_hex(ms) + archive_suffix;
        if (!exists(path) && !exists(path + verifying_suffix)) return path;
    }
}

void delete_or_schedule(const char* fn, const char* what, const std::string& path) {
    if (DeleteFileA(path.c_str())) return;
    const DWORD err = GetLastError();
    if (err == ERROR_FILE_NOT_FOUND) return;  // already gone (a path listed twice): nothing to schedule
    NV_LOG(fn, "Failed to delete %s <%s>, error: %d\n Trying to delete it after reboot.", what, path.c_str(),
           static_cast<int>(err));
    (void)MoveFileExA(path.c_str(), nullptr, MOVEFILE_DELAY_UNTIL_REBOOT);
}

// Decodes the whole archive and compares the content's digest with the recorded one; the recorded
// path must be `source`. This is the read-back that allows deleting the source.
bool verify_archive(const std::string& archive, const std::string& source) {
    constexpr const char* fn = "chelperservice::add_quarantine_files";
    mcl::unique_file file = mcl::open_file(archive.c_str(), "rb");
    archive_info info;
    if (!file || !NVFileArchive::read_archive_info(file.get(), info)) {
        NV_LOG(fn, "Archive verification failed, cannot read the header of %s", archive.c_str());
        return false;
    }
    if (info.path != source || !archive_chunk_lengths_valid(info.header) || !check_frame_descriptor(file.get())) {
        NV_LOG(fn, "Archive verification failed, invalid header in %s", archive.c_str());
        return false;
    }
    digest_sink sink(nullptr);
    const int decoded = decompress_file(file.get(), sink, info.header);
    mcl::binary_t digest;
    if (decoded != 0 || !sink.finish(digest) || digest.size() != archive_hash_size ||
        memcmp(digest.data(), info.header.content_hash, archive_hash_size) != 0) {
        NV_LOG(fn, "Archive verification failed, the content does not decode to its digest: %s", archive.c_str());
        return false;
    }
    return true;
}

quarantine_store::archive_written_hook written_hook = nullptr;

// A rename on one volume may still sit in the cache when the delete of a source on another volume
// reaches its disk: the container's folder is flushed first. False (logged) when it cannot be.
bool flush_folder(const std::string& folder) {
    mcl::mswin::unique_kernel_handle dir(CreateFileA(folder.c_str(), GENERIC_WRITE,
                                                     FILE_SHARE_READ | FILE_SHARE_WRITE | FILE_SHARE_DELETE, nullptr,
                                                     OPEN_EXISTING, FILE_FLAG_BACKUP_SEMANTICS, nullptr));
    if (dir && FlushFileBuffers(dir.get())) return true;
    NV_LOG("chelperservice::add_quarantine_files", "Failed to flush the container folder %s, error: %d",
           folder.c_str(), static_cast<int>(GetLastError()));
    return false;
}

bool same_volume(const std::string& a, const std::string& b) {
    return a.size() > 2 && b.size() > 2 && a[1] == ':' && b[1] == ':' && toupper(a[0]) == toupper(b[0]);
}

// Whether `source` may now be deleted as far as its renamed `archive` goes: on the same volume at
// once, on another once the archive's folder is flushed.
bool archive_on_disk(const std::string& source, const std::string& archive) {
    return same_volume(source, archive) || flush_folder(archive.substr(0, archive.rfind('\\') + 1));
}

// The digest of the held file's whole content, read on a stream of its own.
bool content_digest(const quarantine_source& held, mcl::binary_t& digest) {
    mcl::unique_file stream = held.stream();
    if (!stream) return false;
    digest_sink sink(nullptr);
    std::vector<unsigned char> block(1024 * 1024);
    size_t n = 0;
    while ((n = fread(block.data(), 1, block.size(), stream.get())) > 0)
        if (!sink.write(block.data(), n)) return false;
    return !ferror(stream.get()) && sink.finish(digest);
}

// Archives the held `source` to `archive` through a checked temporary; false leaves no file behind.
bool archive_verified(const quarantine_source& held, const std::string& source, const std::string& archive) {
    constexpr const char* fn = "chelperservice::add_quarantine_files";
    const std::string temp = archive + verifying_suffix;
    mcl::unique_file stream = held.stream();
    if (!stream) {
        NV_LOG(fn, "Failed to read the source file <%s>, error: %d", source.c_str(), static_cast<int>(GetLastError()));
        return false;
    }
    if (!NVFileArchive::NVFileArchive_archiveStream(std::move(stream), source.c_str(), temp.c_str())) return false;
    if (written_hook != nullptr) written_hook(source, temp);
    if (!verify_archive(temp, source)) {
        DeleteFileA(temp.c_str());
        return false;
    }
    // No replacing: archive_path_for picked a free name, and an archive is never overwritten.
    if (!MoveFileExA(temp.c_str(), archive.c_str(), MOVEFILE_WRITE_THROUGH)) {
        NV_LOG(fn, "Failed to rename %s to %s, error: %d", temp.c_str(), archive.c_str(),
               static_cast<int>(GetLastError()));
        DeleteFileA(temp.c_str());
        return false;
    }
    if (!archive_on_disk(source, archive)) {
        DeleteFileA(archive.c_str());
        return false;
    }
    return true;
}

// The archive path names an entry directly inside the container (compared without case).
bool in_container(const std::string& container, const std::string& archive) {
    const std::string lower = mcl::mswin::lower_case(archive);
    if (lower.find(container) == std::string::npos) return false;
    if (lower.compare(0, container.size(), container) != 0) return false;
    const std::string name = lower.substr(container.size());
    return !name.empty() && name.find_first_of("\\/") == std::string::npos && name != "." && name != "..";
}

// A file's DACL as it was before the quarantine changed it, read and put back through the held
// handle when the file stays. It is recorded (quarantine_store::sources_in_progress_key) before
// the DACL changes, and the record goes once the file has it back or is gone.
class saved_dacl {
public:
    saved_dacl(quarantine_security& security, HANDLE file, std::string path)
        : security_(security), file_(file), path_(std::move(path)) {
        if (security_.get_handle_dacl(file_, descriptor_) != ERROR_SUCCESS) return;
        read_ = true;
    }
    // Writes the record; false (logged) when the DACL was not read or the record not written.
    bool record() {
        std::string sddl = read_ ? descriptor_.dacl_sddl() : std::string();
        recorded_ = !sddl.empty() &&
                    mcl::mswin::reg::write_string(quarantine_store::sources_in_progress_key, path_.c_str(), sddl);
        if (!recorded_)
            NV_LOG("chelperservice::add_quarantine_files", "The DACL of %s could not be recorded, it is not quarantined",
                   path_.c_str());
        return recorded_;
    }
    void put_back() {
        const DWORD err = security_.set_handle_dacl(file_, descriptor_.dacl(), descriptor_.dacl_protected());
        if (err != ERROR_SUCCESS) {
            NV_LOG("chelperservice::add_quarantine_files", "Unable to put back the DACL of %s, error: %d",
                   path_.c_str(), static_cast<int>(err));
            return;  // the record stays: the next start tries again
        }
        forget();
    }
    // The file is gone: nothing to give back.
    void forget() {
        if (recorded_)
            (void)mcl::mswin::reg::remove(HKEY_LOCAL_MACHINE, quarantine_store::sources_in_progress_key, path_.c_str());
        recorded_ = false;
    }

private:
    quarantine_security& security_;
    HANDLE file_;
    std::string path_;
    mcl::mswin::security_descriptor descriptor_;
    bool read_ = false;
    bool recorded_ = false;
};

}  // namespace

void quarantine_store::set_archive_written_hook(archive_written_hook hook) { written_hook = hook; }

bool quarantine_store::createPath(const std::string& path) {
    constexpr const char* fn = "chelperservice::createPath";
    std::string full = path;
    if (full.empty() || full.back() != '\\') full += '\\';
    for (size_t at = full.find('\\'); at != std::string::npos; at = full.find('\\', at + 1)) {
        const std::string prefix = full.substr(0, at);
        if (prefix.empty() || (prefix.size() == 2 && prefix[1] == ':')) continue;  // the drive itself
        if (GetFileAttributesA(prefix.c_str()) != INVALID_FILE_ATTRIBUTES) continue;
        const DWORD err = GetLastError();
        if (err != ERROR_FILE_NOT_FOUND && err != ERROR_PATH_NOT_FOUND) {
            NV_LOG(fn, "GetFileAttributes failed on %s with error: %d", prefix.c_str(), static_cast<int>(err));
            return false;
        }
        if (!CreateDirectoryA(prefix.c_str(), nullptr)) {
            NV_LOG(fn, "CreateDirectory failed on %s with error: %d", prefix.c_str(),
                   static_cast<int>(GetLastError()));
            return false;
        }
    }
    return true;
}

bool quarantine_store::setQuarantineFilePermissions(HANDLE file, const std::string& name, const std::string& folder) {
    constexpr const char* fn = "chelperservice::setQuarantineFilePermissions";
    std::string dir = folder;
    if (dir.size() > 3 && dir.back() == '\\') dir.pop_back();
    mcl::mswin::security_descriptor descriptor;
    DWORD err = security_.get_file_dacl(mcl::mswin::widen(dir), descriptor);
    if (err != ERROR_SUCCESS) {
        NV_LOG(fn, "GetNamedSecurityInfo failed on %s, error: %d", dir.c_str(), static_cast<int>(err));
        return false;
    }
    err = security_.set_handle_dacl(file, descriptor.dacl(), /*protect=*/false);
    if (err != ERROR_SUCCESS) {
        NV_LOG(fn, "SetNamedSecurityInfo failed on %s, error: %d", name.c_str(), static_cast<int>(err));
        return false;
    }
    return true;
}

void quarantine_store::list_quarantine_files(const std::string& container, std::vector<std::string>& files) {
    files.clear();
    WIN32_FIND_DATAA entry{};
    unique_find_handle find(FindFirstFileA((container + "*" + archive_suffix).c_str(), &entry));
    if (!find) return;
    do {
        const std::string name = entry.cFileName;
        if (name == "." || name == "..") continue;
        if (!ends_with_nocase(name, archive_suffix)) continue;  // short-name matches
        files.push_back(container + name);
    } while (FindNextFileA(find.get(), &entry));
}

bool quarantine_store::read_quarantine_file_original_path(const std::string& archive, std::string& path) {
    constexpr const char* fn = "chelperservice::read_quarantine_file_original_path";
    mcl::unique_file file = mcl::open_file(archive.c_str(), "rb");
    archive_info info;
    if (!file || !NVFileArchive::read_archive_info(file.get(), info)) {
        NV_LOG(fn, "Restore quarantined file failed, unable to read quarantine file header: %s", archive.c_str());
        return false;
    }
    path = info.path;
    return true;
}

bool quarantine_store::add_quarantine_files(const std::string& container, const std::vector<std::string>& files,
                                            std::string& message) {
    constexpr const char* fn = "chelperservice::add_quarantine_files";
    message.clear();
    bool result = true;
    for (const std::string& source : files) {
        users_.kill_processes_of(source);
        const size_t slash = source.rfind('\\');
        if (slash == std::string::npos) {
            NV_LOG(fn, "Invalid file path to quarantine: %s", source.c_str());
            result = false;
            message += ";";
            continue;
        }
        const std::string archive = archive_path_for(container, source.substr(slash + 1));
        quarantine_source held;
        if (!held.open(source)) {
            NV_LOG(fn, "Failed to archive file to quarantine container: %s -> %s.", source.c_str(), archive.c_str());
            if (held.refused()) result = false;
            message += ";";
            continue;
        }
        saved_dacl before(security_, held.get(), source);
        if (!before.record()) {
            result = false;
            message += ";";
            continue;
        }
        (void)setQuarantineFilePermissions(held.get(), source, container);
        if (!archive_verified(held, source, archive)) {
            NV_LOG(fn, "Failed to archive file to quarantine container: %s -> %s.", source.c_str(), archive.c_str());
            before.put_back();
            message += ";";
            continue;
        }
        if (!held.remove()) {
            // The file stays where it is, as it was; an archive of a file that is still there
            // would only bring back a second copy.
            before.put_back();
            DeleteFileA(archive.c_str());
            result = false;
            message += ";";
            continue;
        }
        before.forget();
        message += archive + ";";
    }
    return result;
}

bool quarantine_store::remove_quarantine_files(const std::string& container,
                                               const std::vector<std::string>& archives) {
    constexpr const char* fn = "chelperservice::remove_quarantine_files";
    bool result = true;
    for (const std::string& archive : archives) {
        if (!in_container(container, archive)) {
            NV_LOG(fn, "Failed to remove the quarantined file, container path is not matched %s <> %s.",
                   archive.c_str(), container.c_str());
            result = false;
            continue;
        }
        delete_or_schedule(fn, "quarantined file", archive);
    }
    return result;
}

bool quarantine_store::restore_quarantine_files(const std::string& container,
                                                const std::vector<std::string>& archives, std::string* message) {
    constexpr const char* fn = "chelperservice::restore_quarantine_files";
    bool result = true;
    for (const std::string& archive : archives) {
        if (!in_container(container, archive)) {
            NV_LOG(fn, "Failed to restore the quarantined file, container path is not matched %s <> %s.",
                   archive.c_str(), container.c_str());
            result = false;
            continue;
        }
        restore_folder destination;
        std::string placed;
        if (!NVFileArchive::NVFileArchive_restoreFile(archive.c_str(), &destination, &placed)) {
            NV_LOG(fn, "Failed to restore quarantine file: %s", archive.c_str());
            result = false;
            continue;
        }
        std::string recorded;
        if (message != nullptr && read_quarantine_file_original_path(archive, recorded) && placed != recorded)
            *message += placed + ";";
        delete_or_schedule(fn, "quarantined file", archive);
    }
    return result;
}

bool quarantine_store::quarantine_files_action(uint32_t action, const std::string& container,
                                               const std::vector<std::string>& paths, std::string& message) {
    switch (action) {
    case 0:
        return add_quarantine_files(container, paths, message);
    case 1:
        return remove_quarantine_files(container, paths);
    case 2:
        message.clear();
        return restore_quarantine_files(container, paths, &message);
    default:
        message = "Invalid action.";
        return false;
    }
}

bool quarantine_store::is_quarantined_file(const std::string& path) {
    const std::string lower = mcl::mswin::lower_case(path);
    std::vector<std::string> archives;
    for (const std::string& container : containers()) {
        if (lower.find(container) == std::string::npos) continue;
        list_quarantine_files(container, archives);
        for (const std::string& archive : archives)
            if (_stricmp(archive.c_str(), path.c_str()) == 0) return true;
    }
    return false;
}

// A temporary left by an add that did not finish: the archive when it reads back to its digest
// (the source then deleted when it still holds that content), else removed while its source is
// there and kept when it is the only copy.
void quarantine_store::finish_or_remove(const std::string& temp) {
    constexpr const char* fn = "chelperservice::loadqQuarantineContainers";
    const std::string archive = temp.substr(0, temp.size() - strlen(verifying_suffix));
    mcl::unique_file file = mcl::open_file(temp.c_str(), "rb");
    archive_info info;
    const bool has_header = file && NVFileArchive::read_archive_info(file.get(), info);
    file.reset();
    if (!has_header) {
        // Cut off before its header was whole: the add ended while writing, its source untouched.
        NV_LOG(fn, "Removing an incomplete archive: %s", temp.c_str());
        DeleteFileA(temp.c_str());
        return;
    }
    const std::string& source = info.path;
    if (!verify_archive(temp, source)) {
        if (exists(source)) {
            NV_LOG(fn, "Removing an incomplete archive: %s", temp.c_str());
            DeleteFileA(temp.c_str());
        } else {
            NV_LOG(fn, "Keeping an incomplete archive, its source %s is gone: %s", source.c_str(), temp.c_str());
        }
        return;
    }
    if (exists(archive) || !MoveFileExA(temp.c_str(), archive.c_str(), MOVEFILE_WRITE_THROUGH)) {
        NV_LOG(fn, "Failed to finish the archive %s, error: %d", temp.c_str(), static_cast<int>(GetLastError()));
        return;
    }
    NV_LOG(fn, "Finished an interrupted archive: %s", archive.c_str());
    quarantine_source held;
    if (!exists(source) || !held.open(source)) return;
    mcl::binary_t digest;
    if (!content_digest(held, digest) || digest.size() != archive_hash_size ||
        memcmp(digest.data(), info.header.content_hash, archive_hash_size) != 0) {
        NV_LOG(fn, "Its source %s holds other content now, it stays", source.c_str());
        return;
    }
    if (!archive_on_disk(source, archive)) return;
    if (held.remove()) NV_LOG(fn, "Deleted its source %s", source.c_str());
}

void quarantine_store::give_back_sources_in_progress() {
    constexpr const char* fn = "chelperservice::loadqQuarantineContainers";
    std::vector<std::string> sources;
    mcl::mswin::reg::list_values(sources_in_progress_key, sources);
    for (const std::string& source : sources) {
        std::vector<std::string> sddl;
        mcl::mswin::security_descriptor sd;
        quarantine_source held;
        bool done = !exists(source);  // gone: nothing to give back
        if (!done && mcl::mswin::reg::read_string_list(sources_in_progress_key, source.c_str(), sddl) &&
            sddl.size() == 1 && mcl::mswin::security_descriptor::from_sddl(sddl.front().c_str(), sd)) {
            if (held.open(source)) {
                done = security_.set_handle_dacl(held.get(), sd.dacl(), sd.dacl_protected()) == ERROR_SUCCESS;
                if (done) NV_LOG(fn, "The source of an interrupted quarantine has its DACL back: %s", source.c_str());
            } else {
                done = held.refused();  // a link now: nothing of ours to give it to
            }
        }
        if (done) (void)mcl::mswin::reg::remove(HKEY_LOCAL_MACHINE, sources_in_progress_key, source.c_str());
    }
}

// Removes what interrupted work left behind: in the container, temporaries that never became an
// archive (their sources were not deleted, that happens only after the rename); beside each
// archive's recorded path, the temporary of a restore that never finished (the archive still
// holds the content, and a restore deletes its archive only after the rename).
void quarantine_store::remove_archive_leftovers(const std::string& container) {
    constexpr const char* fn = "chelperservice::loadqQuarantineContainers";
    // A source is deleted only after its temporary became the archive; that rename, not yet on
    // the disk when the power went, is what a temporary that reads back whole still lacks.
    {
        WIN32_FIND_DATAA entry{};
        unique_find_handle find(FindFirstFileA((container + "*.QUA.verifying").c_str(), &entry));
        bool more = static_cast<bool>(find);
        for (; more; more = FindNextFileA(find.get(), &entry) != FALSE) {
            if ((entry.dwFileAttributes & FILE_ATTRIBUTE_DIRECTORY) != 0) continue;
            const std::string temp = container + entry.cFileName;
            if (!ends_with_nocase(temp, verifying_suffix)) continue;  // a short-name match
            finish_or_remove(temp);
        }
    }
    for (const char* pattern : {"*.QUA.verifying.partial", "*.QUA.partial"}) {
        WIN32_FIND_DATAA entry{};
        unique_find_handle find(FindFirstFileA((container + pattern).c_str(), &entry));
        if (!find) continue;
        do {
            const std::string path = container + entry.cFileName;
            if ((entry.dwFileAttributes & FILE_ATTRIBUTE_DIRECTORY) != 0) continue;
            NV_LOG(fn, "Removing an incomplete archive: %s", path.c_str());
            DeleteFileA(path.c_str());
        } while (FindNextFileA(find.get(), &entry));
    }
    std::vector<std::string> archives;
    list_quarantine_files(container, archives);
    for (const std::string& archive : archives) {
        std::string target;
        if (!read_quarantine_file_original_path(archive, target)) continue;
        const std::string leftover = target + ".restoring";
        const DWORD attrs = GetFileAttributesA(leftover.c_str());
        // Never through a link, never a folder: only the very file a restore writes.
        if (attrs == INVALID_FILE_ATTRIBUTES || (attrs & FILE_ATTRIBUTE_DIRECTORY) != 0 ||
            !restore_target_is_safe(leftover))
            continue;
        NV_LOG(fn, "Removing an interrupted restore: %s", leftover.c_str());
        DeleteFileA(leftover.c_str());
    }
}
