// libshm.hpp: the C++ binding of libshm, header-only, over the C interface of
// libshm.h (it adds no symbol to the library).
//
// C++20; builds with and without exceptions and RTTI, and throws nothing:
// every call that can fail returns a libshm::Result (the C call, its code and
// what the code means) or a libshm::Expected<T> (a value or such a Result).
// The lock and access paths allocate nothing; sdc::Consumer allocates its one
// ring-sized buffer when it is opened.
//
//   libshm::SectionLock        a section's lock for a scope (RAII, movable)
//   libshm::read / write ...   section access over std::span<std::byte>
//   libshm::load_le / store_le little-endian fields at any alignment
//   libshm::platform, times, caps, power, fru, dimm   the typed calls
//   libshm::sdc::Consumer      a registered SDC consumer that delivers exactly
//                              the new bytes, in order, and tells a clear, an
//                              overrun and a moved read position apart
//
// The manual: libshm.hpp(3).
#ifndef LIBSHM_HPP
#define LIBSHM_HPP

#if __cplusplus < 202002L
#error "libshm.hpp needs C++20"
#endif

#include <pthread.h>

#include <array>
#include <cassert>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <memory>
#include <new>
#include <optional>
#include <span>
#include <string_view>
#include <type_traits>
#include <utility>

#include "libshm.h"

namespace libshm {

// ------------------------------------------------------------------ results

// The outcome of a call: success, or the C call that failed, its result code
// and what that code means. Failures the binding finds itself (a header out
// of range, a slot taken by another name) carry code 0 and the C call they
// concern. The texts are static: a Result is copied freely.
class [[nodiscard]] Result {
public:
    constexpr Result() noexcept = default;
    static constexpr Result failure(const char* call, int64_t code, const char* meaning) noexcept {
        Result r;
        r.call_ = call;
        r.code_ = code;
        r.meaning_ = meaning;
        return r;
    }
    constexpr bool ok() const noexcept { return call_ == nullptr; }
    constexpr explicit operator bool() const noexcept { return ok(); }
    constexpr const char* call() const noexcept { return call_ != nullptr ? call_ : ""; }
    constexpr int64_t code() const noexcept { return code_; }
    constexpr const char* meaning() const noexcept { return meaning_ != nullptr ? meaning_ : "success"; }

private:
    const char* call_ = nullptr;
    int64_t code_ = 0;
    const char* meaning_ = nullptr;
};

// A value, or the Result of the call that could not produce it.
template <class T>
class [[nodiscard]] Expected {
public:
    Expected(T value) noexcept(std::is_nothrow_move_constructible_v<T>) : value_(std::move(value)) {}
    Expected(Result failure) noexcept : result_(failure) { assert(!failure.ok()); }
    bool ok() const noexcept { return value_.has_value(); }
    explicit operator bool() const noexcept { return ok(); }
    const Result& result() const noexcept { return result_; }
    T& value() & noexcept { assert(ok()); return *value_; }
    const T& value() const& noexcept { assert(ok()); return *value_; }
    T&& value() && noexcept { assert(ok()); return std::move(*value_); }
    T& operator*() & noexcept { return value(); }
    const T& operator*() const& noexcept { return value(); }
    T* operator->() noexcept { return &value(); }
    const T* operator->() const noexcept { return &value(); }

private:
    std::optional<T> value_;
    Result result_;
};

namespace detail {

inline constexpr const char* kAccessMeaning[] = {
    "success",
    "the section's lock could not be taken",
    "bad section number",
    "offset outside the section",
    "attaching to the store failed",
};

// Results of the calls documented as "0; -1 lock failed; -2 bad section
// number; -3 offset outside the section; -4 attach failed".
inline Result access_result(const char* call, int32_t code) noexcept {
    if (code == 0) return {};
    const char* meaning = code <= -1 && code >= -4 ? kAccessMeaning[-code] : "unknown result";
    return Result::failure(call, code, meaning);
}

inline Result zero_or(const char* call, int64_t code, const char* meaning) noexcept {
    return code == 0 ? Result{} : Result::failure(call, code, meaning);
}

inline constexpr const char* kReadMeaning = "bad section number or offset, or attaching or locking failed";
inline constexpr const char* kTooLong = "length above 2147483647 bytes";

inline bool too_long(size_t n) noexcept { return n > size_t(INT32_MAX); }

}  // namespace detail

// ------------------------------------------------------ little-endian fields

// The unsigned or signed integer T stored little-endian at `at`, at any
// alignment. The caller checks the range (at + sizeof(T) <= size).
template <class T>
    requires std::is_integral_v<T>
constexpr T load_le(const std::byte* at) noexcept {
    std::make_unsigned_t<T> value = 0;
    for (size_t i = 0; i < sizeof(T); ++i)
        value = std::make_unsigned_t<T>(value | (std::make_unsigned_t<T>(std::to_integer<uint8_t>(at[i])) << (8 * i)));
    return T(value);
}
template <class T>
    requires std::is_integral_v<T>
constexpr void store_le(std::byte* at, T value) noexcept {
    const auto bits = std::make_unsigned_t<T>(value);
    for (size_t i = 0; i < sizeof(T); ++i) at[i] = std::byte(uint8_t(bits >> (8 * i)));
}
// The same within a span: empty when the field does not fit.
template <class T>
    requires std::is_integral_v<T>
constexpr std::optional<T> load_le(std::span<const std::byte> bytes, size_t offset) noexcept {
    if (offset > bytes.size() || bytes.size() - offset < sizeof(T)) return std::nullopt;
    return load_le<T>(bytes.data() + offset);
}
template <class T>
    requires std::is_integral_v<T>
constexpr bool store_le(std::span<std::byte> bytes, size_t offset, T value) noexcept {
    if (offset > bytes.size() || bytes.size() - offset < sizeof(T)) return false;
    store_le<T>(bytes.data() + offset, value);
    return true;
}

// ---------------------------------------------------------- section access

// The section's size in this process's table (0 outside 0..33).
inline int32_t section_size(int32_t section) noexcept {
    return section >= 0 && section < SHM_SECTION_COUNT ? gShmSecSize[section] : 0;
}

// A locked copy of into.size() bytes at `offset` of `section` (a range past
// the section's end is clipped; the rest of `into` is zeroed).
inline Result read(int32_t section, int32_t offset, std::span<std::byte> into) noexcept {
    if (detail::too_long(into.size())) return Result::failure("Vond_shm_memread", -1, detail::kTooLong);
    return detail::zero_or("Vond_shm_memread",
                           Vond_shm_memread(section, into.data(), offset, int32_t(into.size())), detail::kReadMeaning);
}
// The same without the lock: under a SectionLock, or accepting a torn copy.
inline Result read_unlocked(int32_t section, int32_t offset, std::span<std::byte> into) noexcept {
    if (detail::too_long(into.size())) return Result::failure("Vond_shm_memread_unlocked", -1, detail::kTooLong);
    return detail::zero_or("Vond_shm_memread_unlocked",
                           Vond_shm_memread_unlocked(section, into.data(), offset, int32_t(into.size())),
                           detail::kReadMeaning);
}
// A locked write of `bytes` at `offset` (clipped at the section's end).
inline Result write(int32_t section, int32_t offset, std::span<const std::byte> bytes) noexcept {
    if (detail::too_long(bytes.size())) return Result::failure("Vond_shm_memwrite", -1, detail::kTooLong);
    return detail::access_result("Vond_shm_memwrite",
                                 Vond_shm_memwrite(section, bytes.data(), offset, int32_t(bytes.size())));
}
// `length` bytes at `offset` set to `value`.
inline Result fill(int32_t section, int32_t offset, int32_t length, std::byte value) noexcept {
    return detail::access_result("Vond_shm_memset",
                                 Vond_shm_memset(section, std::to_integer<int32_t>(value), offset, length));
}
// The bits of `mask` in the 8-byte little-endian word at `offset`, set or cleared.
inline Result set_bits(int32_t section, int32_t offset, uint64_t mask, bool on) noexcept {
    return detail::access_result("Vond_shm_mem_set_bit_on_uint",
                                 Vond_shm_mem_set_bit_on_uint(section, offset, on ? 1 : 0, mask));
}
// A typed little-endian field, read under the lock.
template <class T>
    requires std::is_integral_v<T>
inline Expected<T> read_le(int32_t section, int32_t offset) noexcept {
    std::array<std::byte, sizeof(T)> bytes{};
    if (Result r = read(section, offset, bytes); !r) return r;
    return load_le<T>(bytes.data());
}
template <class T>
    requires std::is_integral_v<T>
inline Result write_le(int32_t section, int32_t offset, T value) noexcept {
    std::array<std::byte, sizeof(T)> bytes{};
    store_le<T>(bytes.data(), value);
    return write(section, offset, bytes);
}

// ------------------------------------------------------------ section locks

// One section's lock, held from take() until the object is destroyed, moved
// from into another that is, or released. Not copyable. The library counts
// a taken lock on the taking thread, so it must be released on that thread:
// a debug build (no NDEBUG) asserts it. While held, bytes() are the section's
// bytes in place, for reads and writes that must not be torn; fields in them
// are little-endian and unaligned (load_le, store_le).
class [[nodiscard]] SectionLock {
public:
    SectionLock() noexcept = default;
    // Attaches (creating the store if no process has yet), finds the
    // section's base and takes its lock, waiting as long as it is held.
    static Expected<SectionLock> take(int32_t section) noexcept {
        void* base = nullptr;
        const int32_t found = Vond_shm_get_shm(section, &base);
        if (found != 0 || base == nullptr)
            return Result::failure("Vond_shm_get_shm", found,
                                   "bad section number, or attaching to the store failed");
        if (const int32_t taken = Vond_shm_lock_shm(section); taken != 0)
            return Result::failure("Vond_shm_lock_shm", taken, "the section's lock could not be taken");
        SectionLock lock;
        lock.section_ = section;
        lock.base_ = static_cast<std::byte*>(base);
        lock.size_ = size_t(section_size(section) > 0 ? section_size(section) : 0);
        lock.owner_ = pthread_self();
        return lock;
    }
    SectionLock(SectionLock&& other) noexcept { steal(other); }
    SectionLock& operator=(SectionLock&& other) noexcept {
        if (this != &other) {
            (void)release();
            steal(other);
        }
        return *this;
    }
    SectionLock(const SectionLock&) = delete;
    SectionLock& operator=(const SectionLock&) = delete;
    ~SectionLock() { (void)release(); }

    bool held() const noexcept { return section_ >= 0; }
    int32_t section() const noexcept { return section_; }
    std::span<std::byte> bytes() const noexcept { return {base_, size_}; }

    // Releases now (nothing when nothing is held).
    Result release() noexcept {
        if (section_ < 0) return {};
        assert(pthread_equal(owner_, pthread_self()) && "a section lock is released on the thread that took it");
        const int32_t section = section_;
        section_ = -1;
        base_ = nullptr;
        size_ = 0;
        return detail::zero_or("Vond_shm_unlock_shm", Vond_shm_unlock_shm(section),
                               "the section's lock could not be released");
    }

private:
    void steal(SectionLock& other) noexcept {
        section_ = std::exchange(other.section_, -1);
        base_ = std::exchange(other.base_, nullptr);
        size_ = std::exchange(other.size_, 0);
        owner_ = other.owner_;
    }
    int32_t section_ = -1;
    std::byte* base_ = nullptr;
    size_t size_ = 0;
    pthread_t owner_{};  // present in every build: the layout does not depend on NDEBUG
};

// ---------------------------------------------------------------- platform

// Section 6. The byte getters answer 0 when the read fails (the chassis type
// 247), as the C calls do: they cannot report a failure.
namespace platform {
inline uint32_t platform_type() noexcept { return Vond_get_platform_type(); }
inline uint32_t system_id() noexcept { return Vond_get_system_id(); }
inline uint32_t quorx_type() noexcept { return Vond_get_quorx_type(); }
inline uint32_t generation() noexcept { return Vond_get_generation(); }
inline uint32_t modular_chassis_type() noexcept { return Vond_get_modular_chassis_type(); }
inline uint32_t post_update() noexcept { return Vond_get_post_update(); }
inline uint32_t cpu_type() noexcept { return Vond_get_cpu_type(); }
inline bool is_ngm() noexcept { return ::is_ngm() != 0; }
inline bool is_modular_brask_chassis() noexcept { return ::is_modular_brask_chassis() != 0; }
inline Expected<uint8_t> blade_slot() noexcept {
    uint8_t slot = 0;
    if (const int32_t r = Vond_get_blade_slot_num(&slot); r != 0)
        return Result::failure("Vond_get_blade_slot_num", r, "the platform is not modular, or the read failed");
    return slot;
}
inline bool quorx_progress(int32_t bit) noexcept { return Vond_get_quorx_progress(bit) != 0; }
inline Result set_quorx_progress(int32_t bit, bool set) noexcept {
    return detail::zero_or("Vond_set_quorx_progress", Vond_set_quorx_progress(bit, set ? 1 : 0),
                           "bit outside 1 to 31, or locking or attaching failed");
}
inline Result set_modular_chassis_type(uint8_t type) noexcept {
    return detail::access_result("Vond_set_modular_chassis_type", Vond_set_modular_chassis_type(type));
}
}  // namespace platform

// -------------------------------------------------------------------- time

namespace times {
// The EOP time (section 9), seconds since the epoch; 0 = not yet set.
inline Expected<uint32_t> eop() noexcept {
    uint32_t value = 0;
    if (const int32_t r = Vond_get_EOPTime(&value); r != 0)
        return Result::failure("Vond_get_EOPTime", r, "the read failed");
    return value;
}
inline Result set_eop(uint32_t seconds) noexcept {
    return detail::zero_or("Vond_set_EOPTime", Vond_set_EOPTime(1, seconds), "the write failed");
}
inline Result clear_eop() noexcept {
    return detail::zero_or("Vond_set_EOPTime", Vond_set_EOPTime(0, 0), "the write failed");
}
// Seconds since the EOP time (0 while it is unset).
inline Expected<int32_t> uptime() noexcept {
    const int32_t r = Vond_get_SysUpTime();
    if (r == -1) return Result::failure("Vond_get_SysUpTime", r, "the read or the clock failed");
    return r;
}
namespace detail {
// A text the library writes into the caller's buffer of N bytes, 0 on success.
template <size_t N>
inline Expected<std::array<char, N>> read_text(const char* call, int32_t (*read)(char*)) noexcept {
    std::array<char, N> text{};
    if (const int32_t r = read(text.data()); r != 0) return Result::failure(call, r, "the read failed");
    return text;
}
}  // namespace detail
// The EOP time in local time, ctime form without the line end ("" while unset).
using BootTimeText = std::array<char, 26>;
inline Expected<BootTimeText> boot_time() noexcept {
    return detail::read_text<26>("Vond_get_BootTime", Vond_get_BootTime);
}
// "yyyymmddhhmmss.000000+000" in UTC, or "N/A".
using DateText = std::array<char, 32>;
inline Expected<DateText> os_data_collection_date() noexcept {
    return detail::read_text<32>("Vond_get_OSDataCollectionDate", Vond_get_OSDataCollectionDate);
}
}  // namespace times

// ------------------------------------------------ capabilities, VR, power

namespace caps {
inline constexpr const char* kMeaning = "capability word above 8, or the access failed";
inline Expected<uint16_t> get(uint32_t word) noexcept {
    uint16_t value = 0;
    if (const int32_t r = Get_SHM_feature_capabilities(word, &value); r != 0)
        return Result::failure("Get_SHM_feature_capabilities", r, kMeaning);
    return value;
}
inline Result set(uint32_t word, uint16_t value) noexcept {
    return detail::zero_or("Set_SHM_feature_capabilities", Set_SHM_feature_capabilities(word, value), kMeaning);
}
enum class VrSensor : int32_t { kDisabled = 0, kEnabled = 1, kNotYetInitialised = 2 };
// vr_type 5 = CPU VR (index 0 to 3), 3 = memory VR (index 0 to 7).
inline Expected<VrSensor> vr_sensor(uint32_t vr_type, uint32_t index) noexcept {
    const int32_t r = Get_VR_Sensor_Enablement(vr_type, index);
    if (r < 0 || r > 2)
        return Result::failure("Get_VR_Sensor_Enablement", r, "bad VR type or index, or the read failed");
    return VrSensor(r);
}
}  // namespace caps

namespace power {
// The system power status byte; 255 also when the read failed.
inline uint32_t system_status() noexcept { return GetSystemPowerStatusSHM(); }
inline Expected<uint8_t> blade_form_factor() noexcept {
    uint8_t value = 0;
    if (const int32_t r = Get_blade_form_factor(&value); r != 0)
        return Result::failure("Get_blade_form_factor", r, "the read failed");
    return value;
}
}  // namespace power

// --------------------------------------------------------------------- FRU

namespace fru {
inline const char* meaning(uint32_t code) noexcept {
    switch (code) {
        case SHM_FRU_NOT_FOUND: return "not found, block out of range, or the copy failed";
        case SHM_FRU_NOT_INITIALIZED: return "the FRU data is not initialised";
        case SHM_FRU_BAD_ARGUMENT: return "bad argument, or the directory is corrupt";
        default: return "unknown result";
    }
}
inline Expected<FruInfo> info(uint32_t id) noexcept {
    FruInfo entry{};
    if (const uint32_t r = Vond_shm_get_fruinfo(id, &entry); r != SHM_FRU_OK)
        return Result::failure("Vond_shm_get_fruinfo", r, meaning(r));
    return entry;
}
inline Expected<FruDeviceList> devices(uint32_t device_type, uint32_t locator) noexcept {
    FruDeviceList list{};
    if (const uint32_t r = Vond_shm_get_fruDeviceinfo(device_type, locator, &list); r != SHM_FRU_OK)
        return Result::failure("Vond_shm_get_fruDeviceinfo", r, meaning(r));
    return list;
}
// A data block. It always holds the largest block the directory can
// describe: the length reported before a copy can grow by the copy. 64 KiB:
// keep it off small stacks.
struct Data {
    std::array<uint8_t, SHM_FRU_DATA_MAX_LENGTH> bytes;
    uint16_t length = 0;  // the block's length, as the entry said around the copy
    bool stable = false;  // the entry was the same before and after the copy
    std::span<const uint8_t> block() const noexcept { return {bytes.data(), length}; }
};
// Copies FRU id's block into `data`. The directory is rewritten without a
// lock, so the entry is read before and after the copy, up to 10 times,
// until both agree (stable); otherwise `length` is the shorter of the two.
inline Result data(uint32_t id, Data& out) noexcept {
    for (int attempt = 0;; ++attempt) {
        const Expected<FruInfo> before = info(id);
        if (!before) return before.result();
        if (const uint32_t r = Vond_shm_get_frudata(id, out.bytes.data()); r != SHM_FRU_OK)
            return Result::failure("Vond_shm_get_frudata", r, meaning(r));
        const Expected<FruInfo> after = info(id);
        if (!after) return after.result();
        const uint16_t a = before->dataLength, b = after->dataLength;
        out.stable = std::memcmp(&*before, &*after, sizeof(FruInfo)) == 0;
        out.length = a < b ? a : b;
        if (out.stable || attempt == 9) return {};
    }
}
// The OCP mezzanine card's FRU id, 1 to 254; 255 for none.
inline uint32_t ocp_mezz_id() noexcept { return getOCPMezzFRUID(); }
}  // namespace fru

// -------------------------------------------------------------------- DIMM

namespace dimm {
inline constexpr size_t kMostEntries = 255;  // the count is one byte
inline constexpr const char* kMeaning = "bad list, a position out of range, or the access failed";
inline int32_t apache_pass_count() noexcept { return getNVDIMMApachePassCount(); }
inline bool is_apache_pass(uint32_t type) noexcept { return isNVDIMMApachePass(type) != 0; }
// Stores the wear of each listed position (earlier entries stay written when
// a later one is refused).
inline Result update_wear(std::span<const DimmWearPosition> positions) noexcept {
    if (positions.size() > kMostEntries) return Result::failure("updateDIMMWearLevel", 1, "more than 255 entries");
    std::array<uint8_t, 1 + kMostEntries * sizeof(DimmWearPosition)> list{};
    list[0] = uint8_t(positions.size());
    if (!positions.empty()) std::memcpy(list.data() + 1, positions.data(), positions.size_bytes());
    return detail::zero_or("updateDIMMWearLevel", updateDIMMWearLevel(list.data()), kMeaning);
}
// Stores the wear of each listed module found by FQDD (the others are skipped).
inline Result update_wear_by_fqdd(std::span<const DimmWearEntry> entries) noexcept {
    if (entries.size() > kMostEntries)
        return Result::failure("updateDIMMWearLevelUsingFQDD", 1, "more than 255 entries");
    std::array<uint8_t, 1 + kMostEntries * sizeof(DimmWearEntry)> list{};
    list[0] = uint8_t(entries.size());
    if (!entries.empty()) std::memcpy(list.data() + 1, entries.data(), entries.size_bytes());
    return detail::zero_or("updateDIMMWearLevelUsingFQDD", updateDIMMWearLevelUsingFQDD(list.data()), kMeaning);
}
// The wear report: room for the most entries a count byte can announce.
struct WearReport {
    std::array<uint8_t, 1 + kMostEntries * sizeof(DimmWearEntry)> bytes{};
    size_t size() const noexcept { return bytes[0]; }
    DimmWearEntry operator[](size_t i) const noexcept {
        DimmWearEntry entry{};
        if (i < size()) std::memcpy(&entry, bytes.data() + 1 + i * sizeof entry, sizeof entry);
        return entry;
    }
};
inline Result read_wear(WearReport& report) noexcept {
    return detail::zero_or("readDIMMWearLevel", readDIMMWearLevel(report.bytes.data(), uint32_t(report.bytes.size())),
                           "the inventory is unreadable");
}
}  // namespace dimm

// --------------------------------------------------------------------- SDC

namespace sdc {

inline constexpr uint32_t kMask = SDC_RING_SIZE - 1;

// The ring's rules, from the header's three words.
inline constexpr bool indexes_valid(const SdcHeader& h) noexcept {
    return h.Head < SDC_RING_SIZE && h.Tail < SDC_RING_SIZE;
}
inline constexpr bool is_full(const SdcHeader& h) noexcept { return h.Head == ((h.Tail + 1) & kMask); }
inline constexpr bool is_empty(const SdcHeader& h) noexcept { return h.Head == 0 && h.Tail == 0 && h.Written == 0; }
// What an export returns: the whole ring when full, else indexes 0 to Tail.
inline constexpr uint32_t content_size(const SdcHeader& h) noexcept {
    return is_full(h) ? SDC_RING_SIZE : is_empty(h) ? 0 : h.Tail + 1;
}
inline constexpr uint32_t ring_distance(uint32_t from, uint32_t to) noexcept { return (to - from) & kMask; }

// The header from its 220 stored bytes (little-endian fields).
inline SdcHeader decode_header(const std::byte* at) noexcept {
    SdcHeader h{};
    h.Head = load_le<uint32_t>(at);
    h.Tail = load_le<uint32_t>(at + 4);
    h.Written = load_le<uint32_t>(at + 8);
    for (size_t i = 0; i < SDC_MAX_APPS; ++i) {
        const std::byte* slot = at + offsetof(SdcHeader, SDCAppTable) + i * sizeof(SdcAppEntry);
        std::memcpy(h.SDCAppTable[i].Name, slot, SDC_APP_NAME_SIZE);
        h.SDCAppTable[i].iLast = load_le<uint32_t>(slot + SDC_APP_NAME_SIZE);
    }
    std::memcpy(h.Signature, at + offsetof(SdcHeader, Signature), sizeof h.Signature);
    return h;
}
// A locked read of the header.
inline Expected<SdcHeader> read_header() noexcept {
    std::array<std::byte, SDC_HEADER_SIZE> bytes{};
    if (Result r = read(SHM_SEC_SDC, SDC_HEADER_OFFSET, bytes); !r) return r;
    return decode_header(bytes.data());
}

// Where the writer stands in the byte stream, followed from one header to the
// next: end() counts the bytes written since the ring was last seen empty or
// cleared. The header keeps ring indexes only, so a writer that went round a
// whole number of times more between two headers looks the same as one that
// did not: end() is a lower bound. Headers must have valid indexes.
class WriterTrack {
public:
    // Takes a new header; true when it shows a clear since the last one: the
    // ring went back to empty, Tail went back while filling, or a full ring
    // is filling again.
    bool advance(const SdcHeader& h) noexcept {
        bool cleared = false;
        uint64_t next = 0;
        if (is_full(h)) {
            // The smallest count at or past the last one (and a whole ring at
            // least) whose ring index is that of Tail + 1.
            const uint64_t base = seen_ && end_ > SDC_RING_SIZE ? end_ : SDC_RING_SIZE;
            const uint64_t index = (uint64_t(h.Tail) + 1) & kMask;
            next = base + ((index - base) & kMask);
        } else if (is_empty(h)) {
            cleared = seen_ && end_ != 0;
        } else {
            next = uint64_t(h.Tail) + 1;
            cleared = seen_ && (was_full_ || next < end_);
        }
        seen_ = true;
        was_full_ = is_full(h);
        end_ = next;
        return cleared;
    }
    uint64_t end() const noexcept { return end_; }  // one past the newest byte
    uint64_t oldest(const SdcHeader& h) const noexcept { return end_ - content_size(h); }

private:
    bool seen_ = false;
    bool was_full_ = false;
    uint64_t end_ = 0;
};

// Meanings of the failures the consumer finds itself (code 0).
namespace meaning {
inline constexpr const char* kIndexesOutOfRange =
    "the SDC header's Head/Tail are out of range: the ring cannot be followed";
inline constexpr const char* kSlotLost =
    "the slot no longer holds this consumer's name (unregistered or taken by another name)";
inline constexpr const char* kPositionChanged =
    "the slot's read position changed during the poll: the delivered bytes cannot be told";
inline constexpr const char* kBadName = "an application name is 1 to 20 bytes without a NUL";
inline constexpr const char* kClosed = "the consumer is closed";
inline constexpr const char* kNoMemory = "no memory for the consumer's buffer";
}  // namespace meaning

namespace detail {
inline bool slot_holds(const std::byte* slot, const char* name) noexcept {
    return slot[0] != std::byte{0} &&
           std::strncmp(name, reinterpret_cast<const char*>(slot), SDC_APP_NAME_SIZE) == 0;
}
inline std::byte* slot_at(std::span<std::byte> section, int32_t id) noexcept {
    return section.data() + SDC_HEADER_OFFSET + offsetof(SdcHeader, SDCAppTable) + size_t(id) * sizeof(SdcAppEntry);
}
struct Name {
    std::array<char, SDC_APP_NAME_SIZE + 1> text{};
    bool set(std::string_view name) noexcept {
        if (name.empty() || name.size() > SDC_APP_NAME_SIZE - 1 || name.find('\0') != name.npos) return false;
        text = {};
        std::memcpy(text.data(), name.data(), name.size());
        return true;
    }
};
}  // namespace detail

// Frees slot `id` (its 25 bytes zeroed) if it still holds `name`, compared
// and written under section 26's lock: true when freed, false when it holds
// something else.
inline Expected<bool> release_slot(int32_t id, std::string_view name) noexcept {
    detail::Name z;
    if (!z.set(name)) return Result::failure("Vond_shm_periodic_register_sdc", 0, meaning::kBadName);
    if (id < 0 || id >= SDC_MAX_APPS) return false;
    Expected<SectionLock> lock = SectionLock::take(SHM_SEC_SDC);
    if (!lock) return lock.result();
    std::byte* slot = detail::slot_at(lock->bytes(), id);
    if (!detail::slot_holds(slot, z.text.data())) return false;
    std::memset(slot, 0, sizeof(SdcAppEntry));
    return true;
}

// One poll of a Consumer: the bytes delivered, where they stand in the
// stream, and what happened to the stream since the previous poll.
struct Poll {
    std::span<const std::byte> data;  // in the consumer's buffer, until its next poll
    uint64_t offset = 0;  // stream position of data[0] (bytes since the ring was last seen empty)
    // The ring was cleared: data is what it holds now, as its header says.
    bool cleared = false;
    // At least this many bytes were overwritten before they were read (a
    // lower bound: whole laps between two polls cannot be seen).
    uint64_t overrun = 0;
    // The slot's read position was not where this consumer left it (another
    // poller of the name, a restore, a repair) or named no ring index: data
    // starts again at the ring's oldest byte and may repeat bytes.
    bool moved = false;
    uint32_t expected_position = 0;  // with moved: where this consumer left it
    uint32_t found_position = 0;     // and where it was found
};

// A registered SDC application (one of the eight slots), delivering exactly
// the bytes written since its previous poll, in order. The library's own poll
// counts only Tail + 1 bytes after the writer went round the ring's end,
// while its buffer holds the older bytes up to the end ahead of them; the
// consumer delivers them all. It follows the header from poll to poll: after
// a clear the library's poll would compare the new Tail with a stale position
// and hand over old bytes, so the consumer then reads the ring's content as
// the header describes it (indexes 0 to Tail: a first write of n > 1 bytes
// into an empty ring comes with one byte it did not write) under section
// 26's lock and moves its position to Tail. A clear followed by more than a
// ring of writes before the next poll looks like an overrun.
//
// Destroying a consumer keeps its slot (and position) in the store, for the
// next run of the same program; close() frees it.
class Consumer {
public:
    // Registers `name` (1 to 20 bytes) or continues its registration. A new
    // registration starts at the ring's oldest byte.
    static Expected<Consumer> open(std::string_view name) noexcept {
        Consumer c;
        if (!c.name_.set(name)) return Result::failure("Vond_shm_periodic_register_sdc", 0, meaning::kBadName);
        int32_t id = -1;
        const int32_t r = Vond_shm_periodic_register_sdc(c.name_.text.data(), &id);
        if (r != 0 || id < 0)
            return Result::failure("Vond_shm_periodic_register_sdc", r,
                                   "all 8 application slots are taken, or the SDC header is unreadable or "
                                   "out of range");
        c.id_ = id;
        c.buffer_.reset(new (std::nothrow) std::byte[SDC_RING_SIZE]);
        if (c.buffer_ == nullptr) return Result::failure("Vond_shm_periodic_get_sdc", 0, meaning::kNoMemory);
        const Expected<SdcHeader> h = c.header_now();
        if (!h) return h.result();
        c.writer_.advance(*h);
        // On an empty ring a slot's position 0 stands for index 0, which a
        // poll never delivers: its first byte is that at index 1.
        c.expected_ = h->SDCAppTable[id].iLast;
        c.delivered_ = is_empty(*h) ? 1 : c.writer_.end() - ring_distance(c.expected_, h->Tail);
        return c;
    }
    // A moved-from consumer is closed (it neither polls nor frees the slot).
    Consumer(Consumer&&) noexcept = default;
    Consumer& operator=(Consumer&&) noexcept = default;

    int32_t id() const noexcept { return id_; }
    std::string_view name() const noexcept { return name_.text.data(); }
    // The header the last call read.
    const SdcHeader& header() const noexcept { return header_; }
    // Totals since open: polls that saw a clear, bytes lost, moved positions.
    uint64_t clears() const noexcept { return clears_; }
    uint64_t overrun() const noexcept { return overrun_; }
    uint64_t moves() const noexcept { return moves_; }

    // The bytes written since the previous poll, with what happened.
    Expected<Poll> poll() noexcept {
        if (closed_ || buffer_ == nullptr)
            return Result::failure("Vond_shm_periodic_get_sdc", 0, meaning::kClosed);
        const Expected<SdcHeader> h = header_now();
        if (!h) return h.result();
        const bool cleared = writer_.advance(*h);
        const uint32_t last = h->SDCAppTable[id_].iLast;
        const bool behind_tail = !is_full(*h) && last > h->Tail;  // only a clear moves Tail back behind it
        const bool moved = last != expected_ || last >= SDC_RING_SIZE;
        if (cleared || behind_tail || moved) {
            const uint32_t expected = expected_;
            Expected<Poll> p = resync();
            if (!p) return p;
            p->cleared = p->cleared || cleared || behind_tail;
            p->moved = moved;
            if (moved) p->expected_position = expected, p->found_position = last;
            return counted(std::move(p));
        }
        uint32_t length = 0;
        if (const int32_t r = Vond_shm_periodic_get_sdc(&length, buffer_.get(), uint32_t(id_)); r != 0)
            return Result::failure("Vond_shm_periodic_get_sdc", r,
                                   "header unreadable or out of range, slot not registered, position out of "
                                   "range, or a section access failed");
        const Expected<SdcHeader> after = header_now();
        if (!after) return after.result();
        if (writer_.advance(*after)) {
            // Cleared between the header read and the poll: its bytes may be
            // old content. They are dropped and the ring read afresh.
            Expected<Poll> p = resync();
            if (p) p->cleared = true;
            return counted(std::move(p));
        }
        return counted(account(last, length, *after));
    }

    // Frees the slot if it still holds this name (false when it holds
    // something else, or the consumer was closed or moved from before). No
    // poll after; a close whose lock failed leaves the consumer open.
    Expected<bool> close() noexcept {
        if (closed_ || buffer_ == nullptr) return false;
        Expected<bool> released = release_slot(id_, name());
        if (released) closed_ = true;
        return released;
    }

private:
    Consumer() noexcept = default;

    Expected<Poll> counted(Expected<Poll> p) noexcept {
        if (p) {
            clears_ += p->cleared;
            overrun_ += p->overrun;
            moves_ += p->moved;
        }
        return p;
    }

    Expected<SdcHeader> header_now() noexcept {
        const Expected<SdcHeader> h = read_header();
        if (!h) return h;
        header_ = *h;
        if (!indexes_valid(*h)) return Result::failure("Vond_shm_memread", 0, meaning::kIndexesOutOfRange);
        return h;
    }

    // Under section 26's lock: the ring's whole content, as the header
    // describes it, and the slot's position moved to Tail.
    Expected<Poll> resync() noexcept {
        Poll p;
        {
            Expected<SectionLock> lock = SectionLock::take(SHM_SEC_SDC);
            if (!lock) return lock.result();
            const std::span<std::byte> section = lock->bytes();
            if (section.size() < size_t(SDC_HEADER_OFFSET) + SDC_HEADER_SIZE)
                return Result::failure("Vond_shm_get_shm", 0, "section 26 is smaller than the ring and its header");
            const SdcHeader h = decode_header(section.data() + SDC_HEADER_OFFSET);
            header_ = h;
            if (!indexes_valid(h)) return Result::failure("Vond_shm_memread", 0, meaning::kIndexesOutOfRange);
            p.cleared = writer_.advance(h);
            std::byte* slot = detail::slot_at(section, id_);
            if (!detail::slot_holds(slot, name_.text.data()))
                return Result::failure("Vond_shm_periodic_get_sdc", 0, meaning::kSlotLost);
            const uint32_t count = content_size(h);
            const uint32_t oldest = is_full(h) ? h.Head : 0;
            const uint32_t first = count < SDC_RING_SIZE - oldest ? count : SDC_RING_SIZE - oldest;
            std::memcpy(buffer_.get(), section.data() + oldest, first);
            std::memcpy(buffer_.get() + first, section.data(), count - first);
            store_le<uint32_t>(slot + SDC_APP_NAME_SIZE, h.Tail);
            p.data = {buffer_.get(), count};
            p.offset = writer_.oldest(h);
            expected_ = h.Tail;
            delivered_ = is_empty(h) ? 1 : writer_.end();
        }
        return p;
    }

    // The library's poll moved the position from `before` to the slot's
    // iLast in `after`: how many bytes its buffer holds, and what was lost.
    Expected<Poll> account(uint32_t before, uint32_t length, const SdcHeader& after) noexcept {
        const uint32_t now = after.SDCAppTable[id_].iLast;
        uint32_t count = 0;
        if (length == 0) count = 0;
        else if (now > before && length == now - before) count = length;
        else if (now < before && length == now + 1) count = SDC_RING_SIZE + now - before;  // went round the end
        else return Result::failure("Vond_shm_periodic_get_sdc", 0, meaning::kPositionChanged);
        expected_ = now;
        // Where the poll ended (its Tail, now the slot's position) in the
        // stream; what lies between the last delivery and these bytes was
        // overwritten before it was read.
        const uint64_t poll_end = writer_.end() - ring_distance(now, after.Tail);
        Poll p;
        p.data = {buffer_.get(), count};
        p.offset = poll_end - count;
        p.overrun = poll_end > delivered_ + count ? poll_end - delivered_ - count : 0;
        delivered_ = is_empty(after) ? 1 : poll_end;
        return p;
    }

    detail::Name name_;
    int32_t id_ = -1;
    bool closed_ = false;
    std::unique_ptr<std::byte[]> buffer_;  // SDC_RING_SIZE bytes: a poll's or the whole ring's
    WriterTrack writer_;
    SdcHeader header_{};
    uint32_t expected_ = 0;   // where this consumer left the slot's position
    uint64_t delivered_ = 0;  // stream position after the last byte delivered
    uint64_t clears_ = 0, overrun_ = 0, moves_ = 0;
};

}  // namespace sdc

}  // namespace libshm

#endif  // LIBSHM_HPP
