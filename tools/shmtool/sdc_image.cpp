// shmtool sdc status / save / restore: the SDC section read and written as a
// whole, through locked reads and writes of section 26 alone.
#include <fcntl.h>
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

std::string directory_of(const std::string& path) {
    const size_t slash = path.rfind('/');
    if (slash == std::string::npos) return ".";
    return slash == 0 ? "/" : path.substr(0, slash);
}

// The image goes to a temporary file beside the target, reaches the disk,
// and only then replaces the target: a reader never sees half an image.
void write_atomically(const std::string& path, const Bytes& image) {
    std::string temporary = path + ".XXXXXX";
    const int fd = mkstemp(temporary.data());
    if (fd < 0) failure("cannot create a temporary file beside " + safe_text(path) + ": " + std::strerror(errno));
    size_t done = 0;
    bool ok = fchmod(fd, 0644) == 0;
    while (ok && done < image.size()) {
        const ssize_t n = write(fd, image.data() + done, image.size() - done);
        if (n < 0 && errno == EINTR) continue;
        ok = n > 0;
        if (ok) done += static_cast<size_t>(n);
    }
    ok = ok && fsync(fd) == 0;
    const int error = errno;
    ok = close(fd) == 0 && ok;
    if (!ok || rename(temporary.c_str(), path.c_str()) != 0) {
        const int cause = ok ? errno : error;
        unlink(temporary.c_str());
        failure("cannot write " + safe_text(path) + ": " + std::strerror(cause));
    }
    const int dir = open(directory_of(path).c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    if (dir >= 0) {
        (void)fsync(dir);  // the rename itself; best effort
        close(dir);
    }
}

void save(const std::string& path, bool force) {
    if (!snapshot_active()) attach_existing();  // a store is saved, never created
    if (section_size(SHM_SEC_SDC) != SDC_RECOVERY_FILE_SIZE)
        failure("section 26 is " + std::to_string(section_size(SHM_SEC_SDC)) + " bytes, not the image's " +
                std::to_string(SDC_RECOVERY_FILE_SIZE));
    // One locked read: the image is a consistent snapshot of ring and header.
    const Bytes image = read_section(SHM_SEC_SDC, 0, SDC_RECOVERY_FILE_SIZE);
    SdcHeader h;
    std::memcpy(&h, image.data() + SDC_HEADER_OFFSET, sizeof h);
    if (!force && !signature_valid(h))
        failure("section 26 has no valid signature, so init would ignore the image (run sdc init first, or "
                "--force)");
    if (!force && !indexes_valid(h))
        failure("section 26 has Head/Tail out of range; a restored image would break every SDC call (--force "
                "saves it anyway)");
    write_atomically(path, image);
    print_result({{"file", safe_text(path)}, {"bytes", image.size()}, {"state", state(h)}, {"size", size(h)}},
                 "saved section " + std::to_string(SHM_SEC_SDC) + " (" + std::to_string(image.size()) + " bytes, ring " +
                     state(h) + ", " + std::to_string(size(h)) + " bytes held) to " + safe_text(path));
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
    static bool force = false;
    CLI::App* s = sdc_app.add_subcommand(
        "save", "Write a recovery image of section 26 atomically (init restores from " SDC_RECOVERY_FILE ")");
    s->add_option("FILE", path, "Where to write the image, e.g. " SDC_RECOVERY_FILE)->required();
    s->add_flag("--force", force, "Save even a section without signature or with indexes out of range");
    s->callback([] { set_action([] { sdc::save(path, force); }); });

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
