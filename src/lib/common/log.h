// The one message routine of the library. Every message goes through SHM_LOG,
// which supplies the source file's base name, the line and the function name
// for the "%s.%d.%s: " prefix that every format carries:
//
//     SHM_LOG(1, "Invalid sec_id=%d.\n", sec_id);
//
// The routine decides between the host's hook, the system log and nothing;
// call sites never repeat that decision.
#pragma once

#include <syslog.h>

#include <cstdint>

#include "constants.h"
#include "libshm.h"

namespace shm {

// The base name of a source path, cached per source file: the cache pointer
// lives in each translation unit (see shm_source_name below).
// Threads racing on the first message all store the same pointer.
inline const char* source_name(const char*& cache, const char* path) {
    const char* name = __atomic_load_n(&cache, __ATOMIC_RELAXED);
    if (name == nullptr) {
        name = path;
        for (const char* p = path; *p != '\0'; ++p)
            if (*p == '/') name = p + 1;
        __atomic_store_n(&cache, name, __ATOMIC_RELAXED);
    }
    return name;
}

// The calling thread's logging record, as SHML_get_per_thread_data gives it,
// looked up directly once the one-time initialisation has finished: the lock
// paths move the recursion counter without the exported call and its
// pthread_once. nullptr when the thread has no record.
SHML_per_thread_data* thread_record();

// The recursion counter: raised while the thread holds a store lock or runs
// the hook, never lowered below 0. A missing record is left alone.
inline void raise_recursion(SHML_per_thread_data* record) {
    if (record != nullptr) ++record->recursion;
}
inline void lower_recursion(SHML_per_thread_data* record) {
    if (record != nullptr && --record->recursion < 0) record->recursion = 0;
}
inline void raise_recursion() { raise_recursion(thread_record()); }
inline void lower_recursion() { lower_recursion(thread_record()); }

// Opens the system log under the ident of one level ("L1,S37"). The ident
// buffer must outlive the message, since openlog keeps the pointer.
void open_level_log(char (&ident)[32], int32_t level);

#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wformat-nonliteral"
#pragma GCC diagnostic ignored "-Wformat-security"
template <typename... Args>
void log_message(int32_t level, const char* format, const char* file, int line,
                 const char* function, Args... args) {
    SHML_per_thread_data* record = SHML_get_per_thread_data();
    if (record == nullptr) return;
    SHML_vondprintf_fn hook = __atomic_load_n(&SHML_vondprintf, __ATOMIC_RELAXED);
    if (hook == nullptr) return;  // no hook: nothing is logged anywhere

    if (record->recursion > 0) {
        // Inside a store lock or inside the hook: only the serious levels
        // reach the system log, the rest is dropped.
        if (level >= 1 && level <= 3) {
            char ident[32];
            open_level_log(ident, level);
            syslog(level + 1, format, file, line, function, args...);
            closelog();
        }
        return;
    }
    raise_recursion(record);
    hook(level, kModule, format, file, line, function, args...);
    lower_recursion(record);
}
#pragma GCC diagnostic pop

// Lets the compiler check every format against its arguments; never called.
[[gnu::format(printf, 1, 2)]] inline void check_format(const char*, ...) {}

// The text of an error number as the library prints it: the buffer starts as
// "invalid error number" and is handed to the GNU strerror_r, which writes
// into it only for unknown numbers.
struct ErrorText {
    char text[80];
};
ErrorText error_text(int error_number);

}  // namespace shm

// One cache per source file, set on the file's first message.
[[maybe_unused]] static const char* shm_source_name = nullptr;

#define SHM_LOG(level, format, ...) SHM_LOG_AS(__func__, level, format __VA_OPT__(, ) __VA_ARGS__)

// The same for a helper that logs on behalf of an exported call, under that
// call's name.
#define SHM_LOG_AS(function, level, format, ...)                                          \
    do {                                                                                  \
        if (false) shm::check_format("%s.%d.%s: " format, "", 0, "" __VA_OPT__(, ) __VA_ARGS__); \
        shm::log_message((level), "%s.%d.%s: " format,                                    \
                         shm::source_name(shm_source_name, __FILE__), __LINE__,          \
                         (function)__VA_OPT__(, ) __VA_ARGS__);                           \
    } while (false)

// A system error, as "what: number text" by the error-text rule above. `what`
// ends in its own line feed, as the library's error messages do.
#define SHM_LOG_ERRNO(level, what, error_number) SHM_LOG_ERRNO_AS(__func__, level, what, error_number)

// The same under another function's name.
#define SHM_LOG_ERRNO_AS(function, level, what, error_number)                      \
    do {                                                                           \
        const int shm_error_number_ = (error_number);                              \
        const shm::ErrorText shm_error_text_ = shm::error_text(shm_error_number_); \
        SHM_LOG_AS(function, level, "%s: %d %s\n", what, shm_error_number_,        \
                   shm_error_text_.text);                                          \
    } while (false)
