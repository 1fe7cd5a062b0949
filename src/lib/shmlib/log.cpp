// Logging state: the hook lookup, the per-thread record with its recursion
// counter, the system-log ident and the error-text rule.
#include <dlfcn.h>
#include <pthread.h>
#include <sched.h>
#include <syslog.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "common/export.h"
#include "common/log.h"

SHM_EXPORT_DATA SHML_vondprintf_fn SHML_vondprintf = nullptr;

namespace {

pthread_once_t g_once = PTHREAD_ONCE_INIT;
pthread_key_t g_key;
int g_key_ready = 0;

// Set once initialise_once has finished with the key created: from then on
// pthread_once has nothing left to do or to wait for.
int g_initialised = 0;

void free_record(void* record) {
    if (record != nullptr) std::free(record);
}

void store_hook(void* symbol) {
    __atomic_store_n(&SHML_vondprintf, reinterpret_cast<SHML_vondprintf_fn>(symbol),
                     __ATOMIC_RELAXED);
}

// dlopen, dlsym and dlclose are called through the dynamic linker, so the
// process's symbol resolution decides whether these are the system's or the
// library's own fail-only definitions.
void find_hook() {
    if (void* self = dlopen(nullptr, shm::kHookSelfFlags)) {
        void* symbol = dlsym(self, shm::kHookSymbol);
        dlclose(self);
        if (symbol != nullptr) {
            store_hook(symbol);
            return;
        }
    }
    void* library = dlopen(shm::kHookLibrary, shm::kHookLibraryFlags);
    if (library == nullptr) {
        store_hook(nullptr);
        return;
    }
    void* symbol = dlsym(library, shm::kHookSymbol);
    dlclose(library);
    store_hook(symbol);
}

void initialise_once() {
    for (int attempt = 0; attempt < shm::kKeyCreateAttempts; ++attempt) {
        if (pthread_key_create(&g_key, free_record) == 0) {
            __atomic_store_n(&g_key_ready, 1, __ATOMIC_RELEASE);
            find_hook();
            __atomic_store_n(&g_initialised, 1, __ATOMIC_RELEASE);
            return;
        }
        sched_yield();
    }
}

}  // namespace

SHM_EXPORT SHML_per_thread_data* SHML_get_per_thread_data(void) {
    pthread_once(&g_once, initialise_once);
    if (__atomic_load_n(&g_key_ready, __ATOMIC_ACQUIRE) == 0) return nullptr;
    auto* record = static_cast<SHML_per_thread_data*>(pthread_getspecific(g_key));
    if (record != nullptr) return record;
    record = static_cast<SHML_per_thread_data*>(std::calloc(1, sizeof *record));
    if (record == nullptr) return nullptr;
    if (pthread_setspecific(g_key, record) != 0) {
        std::free(record);
        return nullptr;
    }
    return record;
}

SHM_EXPORT void SHML_increment_recursion(void) { shm::raise_recursion(); }

SHM_EXPORT void SHML_decrement_recursion(void) { shm::lower_recursion(); }

namespace shm {

SHML_per_thread_data* thread_record() {
    if (__atomic_load_n(&g_initialised, __ATOMIC_ACQUIRE) != 0) {
        if (void* record = pthread_getspecific(g_key))
            return static_cast<SHML_per_thread_data*>(record);
    }
    return SHML_get_per_thread_data();
}

void open_level_log(char (&ident)[32], int32_t level) {
    std::memset(ident, 0, sizeof ident);
    std::snprintf(ident, sizeof ident, "L%d,S%d", level, kModule);
    openlog(ident, kSyslogOptions, kSyslogFacility);
}

ErrorText error_text(int error_number) {
    ErrorText result{};
    static constexpr char kUnknown[] = "invalid error number";
    std::memcpy(result.text, kUnknown, sizeof kUnknown);
    // The GNU form returns its text instead of writing it for known numbers;
    // the buffer, not the return value, is what gets printed.
    char* ignored = strerror_r(error_number, result.text, sizeof result.text);
    (void)ignored;
    result.text[sizeof result.text - 1] = '\0';
    return result;
}

}  // namespace shm
