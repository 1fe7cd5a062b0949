// shmtool sdc status / save / restore: the SDC section read and written as a
// whole, through locked reads and writes of section 26 alone.
//
// sdc save --if-changed is what the periodic save runs: the section is read
// under its lock and compared with the image already in FILE, ring and
// header byte for byte; an image that is already exactly the section is not
// written again (no flash wear), anything else is. A header compare alone
// would miss writes of a whole number of laps, which leave Head, Tail and
// Written as they were; reading the 512 KiB image back costs no wear.
#include <dirent.h>
#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstddef>
#include <cstdio>
#include <cstring>

#include "sdc.h"
#include "shmlib_serialrecord/ring_state.h"

namespace shmtool::sdc {

SdcHeader read_header() {
    const Bytes bytes = read_section(SHM_SEC_SDC, SDC_HEADER_OFFSET, SDC_HEADER_SIZE);
    SdcHeader h;
    std::memcpy(&h, bytes.data(), sizeof h);
    return h;
}

bool indexes_valid(const SdcHeader& h) { return shm::sdc::indexes_valid(h.Head, h.Tail); }

bool signature_valid(const SdcHeader& h) {
    return std::memcmp(h.Signature, SDC_SIGNATURE, sizeof h.Signature) == 0;
}

const char* state(const SdcHeader& h) {
    if (!indexes_valid(h)) return "invalid";
    switch (shm::sdc::ring_state(h.Head, h.Tail, h.Written)) {
        case shm::sdc::RingState::kFull: return "full";
        case shm::sdc::RingState::kEmpty: return "empty";
        case shm::sdc::RingState::kFilling: break;
    }
    return "filling";
}

uint32_t size(const SdcHeader& h) {
    return indexes_valid(h) ? shm::sdc::content_size(h.Head, h.Tail, h.Written) : 0;
}

bool registered(const SdcHeader& h, int slot) { return h.SDCAppTable[slot].Name[0] != 0; }

std::string name(const SdcHeader& h, int slot) { return printable(h.SDCAppTable[slot].Name, SDC_APP_NAME_SIZE); }

uint32_t last(const SdcHeader& h, int slot) {
    const uint32_t value = h.SDCAppTable[slot].iLast;  // packed: read by value
    return value;
}

uint32_t behind(const SdcHeader& h, int slot) { return shm::sdc::ring_distance(last(h, slot), h.Tail); }

bool last_in_range(const SdcHeader& h, int slot) { return last(h, slot) < SDC_RING_SIZE; }

bool ring_empty(const SdcHeader& h) { return h.Head == 0 && h.Tail == 0 && h.Written == 0; }

std::string image_problem(const std::string& path, Bytes* image) {
    UntrustedFile file;
    if (std::string problem = file.open(path); !problem.empty()) return problem;
    const std::string& shown = file.shown();
    char signature[sizeof SdcHeader{}.Signature] = {};
    const int64_t signature_offset = SDC_HEADER_OFFSET + offsetof(SdcHeader, Signature);
    if (file.size() != SDC_RECOVERY_FILE_SIZE)
        return shown + " is " + std::to_string(file.size()) + " bytes, not " + std::to_string(SDC_RECOVERY_FILE_SIZE) +
               " (an image of the whole section)";
    if (!file.read(signature, sizeof signature, signature_offset)) return "cannot read the signature of " + shown;
    if (std::memcmp(signature, SDC_SIGNATURE, sizeof signature) != 0)
        return shown + " has no valid signature (\"" + printable(signature, sizeof signature) + "\" at offset " +
               std::to_string(signature_offset) + ", not \"" SDC_SIGNATURE "\")";
    if (image != nullptr) {
        image->assign(SDC_RECOVERY_FILE_SIZE, 0);
        if (!file.read(image->data(), image->size(), 0) || !file.ends_at(SDC_RECOVERY_FILE_SIZE))
            return shown + " changed size while it was read";
    }
    return "";
}

void refuse_restore_over_data(const SdcHeader& h, const std::string& image_path) {
    if (ring_empty(h)) return;
    failure("the SDC ring is not empty (" + std::string(state(h)) + ", " + std::to_string(size(h)) +
            " bytes held): restoring " + safe_text(image_path) +
            " would replace them; nothing was changed (shmtool sdc save FILE keeps them; --force restores "
            "anyway)");
}

int find(const SdcHeader& h, const std::string& wanted) {
    for (int slot = 0; slot < SDC_MAX_APPS; ++slot)
        if (registered(h, slot) && std::strncmp(wanted.c_str(), h.SDCAppTable[slot].Name, SDC_APP_NAME_SIZE) == 0)
            return slot;
    return -1;
}

void check_name(const std::string& name) {
    if (name.empty() || name.size() > SDC_APP_NAME_SIZE - 1)
        usage_error("application name '" + name + "' must be 1 to " + std::to_string(SDC_APP_NAME_SIZE - 1) +
                    " bytes");
}

json status_json(const SdcHeader& h) {
    json apps = json::array();
    for (int slot = 0; slot < SDC_MAX_APPS; ++slot) {
        json app = {{"id", slot}, {"registered", registered(h, slot)}};
        if (registered(h, slot)) {
            app["name"] = name(h, slot);
            app["last"] = last(h, slot);
            app["last_in_range"] = last_in_range(h, slot);
            app["behind"] = indexes_valid(h) && last_in_range(h, slot) ? json(behind(h, slot)) : json(nullptr);
        }
        apps.push_back(app);
    }
    return {{"state", state(h)},
            {"head", h.Head},
            {"tail", h.Tail},
            {"written", h.Written},
            {"size", size(h)},
            {"ring_size", SDC_RING_SIZE},
            {"signature", {{"text", printable(h.Signature, sizeof h.Signature)}, {"valid", signature_valid(h)}}},
            {"applications", apps}};
}

void print_status(const json& doc) {
    std::printf("SDC ring (section %d): %s\n", SHM_SEC_SDC, doc["state"].get<std::string>().c_str());
    std::printf("  %-10s 0x%05x (%u)\n", "Head", doc["head"].get<unsigned>(), doc["head"].get<unsigned>());
    std::printf("  %-10s 0x%05x (%u)\n", "Tail", doc["tail"].get<unsigned>(), doc["tail"].get<unsigned>());
    std::printf("  %-10s %u\n", "Written", doc["written"].get<unsigned>());
    std::printf("  %-10s %u of %u bytes\n", "size", doc["size"].get<unsigned>(), doc["ring_size"].get<unsigned>());
    std::printf("  %-10s \"%s\" (%s)\n", "signature", doc["signature"]["text"].get<std::string>().c_str(),
                doc["signature"]["valid"] ? "valid" : "NOT valid: run shmtool sdc init");
    std::printf("applications\n  %2s  %-24s %-18s %s\n", "id", "name", "last delivered", "behind (bytes)");
    for (const json& app : doc["applications"]) {
        if (!app["registered"]) {
            std::printf("  %2d  -\n", app["id"].get<int>());
            continue;
        }
        const unsigned last_index = app["last"];
        std::printf("  %2d  %-24s 0x%05x (%6u)   %s\n", app["id"].get<int>(), app["name"].get<std::string>().c_str(),
                    last_index, last_index,
                    !app["last_in_range"].get<bool>() ? "out of range (its polls fail)"
                    : app["behind"].is_null()         ? "?"
                                                      : std::to_string(app["behind"].get<unsigned>()).c_str());
    }
}

namespace {

std::string image_directory_of(const std::string& path) {
    const size_t slash = path.rfind('/');
    if (slash == std::string::npos) return ".";
    return slash == 0 ? "/" : path.substr(0, slash);
}

std::string image_base_of(const std::string& path) {
    const size_t slash = path.rfind('/');
    return slash == std::string::npos ? path : path.substr(slash + 1);
}

// A save in progress writes ".BASE.partial-XXXXXX" beside BASE: hidden, and
// named so that no file an operator keeps there is taken for one.
std::string image_partial_prefix(const std::string& path) { return "." + image_base_of(path) + ".partial-"; }

// How long a save waits for another save of the same directory.
constexpr int kImageLockWaitSeconds = 30;

// The image's directory, open and locked (flock) for one save: saves of the
// same directory (the periodic one, the one at shutdown, an operator's) run
// one after the other. Holding the lock, a save removes the partial files of
// saves that died before their rename (killed, or a power cut): no other
// save can be writing them, and the flash does not fill up with them.
class ImageDirectory {
public:
    ImageDirectory(const std::string& path, const std::string& untouched) {
        fd_ = open(image_directory_of(path).c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
        if (fd_ < 0)
            failure("cannot create a temporary file beside " + safe_text(path) + ": " + std::strerror(errno) +
                    untouched);
        for (int tenth = 0; flock(fd_, LOCK_EX | LOCK_NB) != 0; ++tenth) {
            if ((errno != EWOULDBLOCK && errno != EINTR) || tenth >= 10 * kImageLockWaitSeconds) {
                const std::string why = errno == EWOULDBLOCK ? "another save held it for " +
                                                                   std::to_string(kImageLockWaitSeconds) + " s"
                                                             : std::strerror(errno);
                close(fd_);
                failure("cannot lock the directory of " + safe_text(path) + ": " + why + untouched);
            }
            usleep(100000);
        }
        remove_partials(path);
    }
    ~ImageDirectory() { close(fd_); }
    ImageDirectory(const ImageDirectory&) = delete;
    ImageDirectory& operator=(const ImageDirectory&) = delete;
    int fd() const { return fd_; }

private:
    void remove_partials(const std::string& path) {
        const std::string prefix = image_partial_prefix(path);
        const int copy = dup(fd_);
        DIR* dir = copy >= 0 ? fdopendir(copy) : nullptr;
        if (dir == nullptr) {
            if (copy >= 0) close(copy);
            return;  // what cannot be listed cannot be cleaned: the save goes on
        }
        while (const dirent64* entry = readdir64(dir)) {
            const std::string name = entry->d_name;
            struct stat64 status {};
            if (name.size() == prefix.size() + 6 && name.compare(0, prefix.size(), prefix) == 0 &&
                fstatat64(fd_, name.c_str(), &status, AT_SYMLINK_NOFOLLOW) == 0 && S_ISREG(status.st_mode))
                (void)unlinkat(fd_, name.c_str(), 0);  // a read-only flash keeps it: harmless
        }
        closedir(dir);
    }

    int fd_ = -1;
};

// The image goes to a temporary file beside the target, reaches the disk,
// and only then replaces the target: a reader never sees half an image, and
// a save that fails (a full or read-only flash, a power cut) leaves the
// target as it was. `untouched` ends every message with what became of it.
void write_atomically(const ImageDirectory& directory, const std::string& path, const Bytes& image,
                      const std::string& untouched) {
    std::string temporary = image_directory_of(path) + "/" + image_partial_prefix(path) + "XXXXXX";
    const int fd = mkostemp(temporary.data(), O_CLOEXEC);
    if (fd < 0)
        failure("cannot create a temporary file beside " + safe_text(path) + ": " + std::strerror(errno) + untouched);
    size_t done = 0;
    bool ok = fchmod(fd, 0644) == 0;
    while (ok && done < image.size()) {
        const ssize_t n = write(fd, image.data() + done, image.size() - done);
        if (n < 0 && errno == EINTR) continue;
        if (n == 0) errno = ENOSPC;
        ok = n > 0;
        if (ok) done += static_cast<size_t>(n);
    }
    ok = ok && fsync(fd) == 0;
    const int error = errno;
    ok = close(fd) == 0 && ok;
    if (!ok || rename(temporary.c_str(), path.c_str()) != 0) {
        const int cause = ok ? errno : error;
        unlink(temporary.c_str());
        failure("cannot write " + safe_text(path) + ": " + std::strerror(cause) + untouched);
    }
    // The rename reaches the disk with its directory. A file system that
    // cannot sync a directory (EINVAL) makes the rename durable by itself.
    if (fsync(directory.fd()) != 0 && errno != EINVAL)
        failure("wrote " + safe_text(path) + ", but its directory could not be synced: " + std::strerror(errno) +
                "; after a power cut the flash may hold the previous image");
}

struct SaveOptions {
    bool force = false;
    bool if_changed = false;
    bool quiet = false;
};

// Whether `path` holds exactly `image`: a valid recovery image whose bytes,
// ring and header, are the section's. Anything else (no file, another size,
// no signature, other bytes) is a change.
bool image_is_current(const std::string& path, const Bytes& image) {
    Bytes saved;
    return image_problem(path, &saved).empty() && saved == image;
}

void save(const std::string& path, const SaveOptions& options) {
    if (!snapshot_active()) attach_existing();  // a store is saved, never created
    if (section_size(SHM_SEC_SDC) != SDC_RECOVERY_FILE_SIZE)
        failure("section 26 is " + std::to_string(section_size(SHM_SEC_SDC)) + " bytes, not the image's " +
                std::to_string(SDC_RECOVERY_FILE_SIZE));
    // One locked read: the image is a consistent snapshot of ring and header.
    const Bytes image = read_section(SHM_SEC_SDC, 0, SDC_RECOVERY_FILE_SIZE);
    SdcHeader h;
    std::memcpy(&h, image.data() + SDC_HEADER_OFFSET, sizeof h);
    if (!options.force && !signature_valid(h))
        failure("section 26 has no valid signature, so init would ignore the image (run sdc init first, or "
                "--force)");
    if (!options.force && !indexes_valid(h))
        failure("section 26 has Head/Tail out of range; a restored image would break every SDC call (--force "
                "saves it anyway)");
    struct stat64 before {};
    const std::string untouched =
        lstat64(path.c_str(), &before) == 0 ? "; the file already there is unchanged" : "; no image was written";
    const ImageDirectory directory(path, untouched);
    const bool write = !options.if_changed || !image_is_current(path, image);
    if (write) write_atomically(directory, path, image, untouched);
    const std::string ring = "ring " + std::string(state(h)) + ", " + std::to_string(size(h)) + " bytes held";
    const json document = {{"file", safe_text(path)}, {"written", write}, {"bytes", image.size()},
                           {"state", state(h)}, {"size", size(h)}};
    if (write)
        print_result(document, "saved section " + std::to_string(SHM_SEC_SDC) + " (" + std::to_string(image.size()) +
                                   " bytes, " + ring + ") to " + safe_text(path));
    else if (!options.quiet || g_options.json)
        print_result(document, safe_text(path) + " is up to date (" + ring + "): not written");
}

// The image goes over the whole section in one locked write: a reader of
// section 26 sees the old section or the restored one, never a mix.
void restore(const std::string& path, bool force) {
    if (section_size(SHM_SEC_SDC) != SDC_RECOVERY_FILE_SIZE)
        failure("section 26 is " + std::to_string(section_size(SHM_SEC_SDC)) + " bytes, not the image's " +
                std::to_string(SDC_RECOVERY_FILE_SIZE));
    Bytes image;
    if (const std::string problem = image_problem(path, &image); !problem.empty())
        usage_error("not restored: " + problem);
    SdcHeader saved;
    std::memcpy(&saved, image.data() + SDC_HEADER_OFFSET, sizeof saved);
    if (!force && !indexes_valid(saved))
        usage_error("not restored: " + safe_text(path) +
                    " has Head/Tail out of range, which would break every SDC call (--force restores it anyway)");
    if (!force) refuse_restore_over_data(read_header(), path);
    write_section(SHM_SEC_SDC, 0, image);
    print_result({{"file", safe_text(path)}, {"state", state(saved)}, {"size", size(saved)}},
                 "restored section " + std::to_string(SHM_SEC_SDC) + " from " + safe_text(path) + " (ring " + state(saved) + ", " +
                     std::to_string(size(saved)) + " bytes held)");
}

}  // namespace
}  // namespace shmtool::sdc

namespace shmtool {

void add_sdc_image_commands(CLI::App& sdc_app) {
    sdc_app.add_subcommand("status", "State, Head/Tail/Written, size, signature, applications and their lag")
        ->callback([] {
            set_action([] {
                if (!snapshot_active()) attach_existing();  // a read-only command never creates the store
                const SdcHeader h = sdc::read_header();
                const json doc = sdc::status_json(h);
                if (g_options.json) print_json(doc);
                else sdc::print_status(doc);
                // As systemctl status does for a failed unit: shown, then status 1.
                if (!sdc::indexes_valid(h))
                    failure("the SDC header is invalid: Head or Tail lies outside the ring, so every SDC call fails "
                            "(shmtool doctor --repair resets them)");
            });
        });

    static std::string path;
    static sdc::SaveOptions save_options;
    CLI::App* s = sdc_app.add_subcommand(
        "save", "Write a recovery image of section 26 atomically (init restores from " SDC_RECOVERY_FILE ")");
    s->add_option("FILE", path, "Where to write the image, e.g. " SDC_RECOVERY_FILE)->required();
    s->add_flag("--force", save_options.force, "Save even a section without signature or with indexes out of range");
    s->add_flag("--if-changed", save_options.if_changed,
                "Write only when FILE does not already hold exactly this image (no write, no flash wear)");
    s->add_flag("-q,--quiet", save_options.quiet,
                "Print nothing when nothing was written (a write still prints its line, a failure its message)");
    s->callback([] { set_action([] { sdc::save(path, save_options); }); });

    static std::string restore_path;
    static bool restore_force = false;
    CLI::App* r = sdc_app.add_subcommand(
        "restore", "Write an image saved by sdc save back over section 26 (only over an empty ring)");
    r->add_option("FILE", restore_path, "The image, " + std::to_string(SDC_RECOVERY_FILE_SIZE) + " bytes")
        ->required();
    r->add_flag("--force", restore_force,
                "Restore over a ring that holds data, or an image whose Head/Tail are out of range");
    r->callback([] { set_action([] { sdc::restore(restore_path, restore_force); }); });
}

}  // namespace shmtool
