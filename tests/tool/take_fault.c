/* A preloaded stand-in for semtimedop() that makes one take of a section lock
 * fail, for the tool's tests: SHM_TEST_FAIL_TAKE=N makes the Nth take of a
 * member of the section set (key 77777812) by this process fail with
 * SHM_TEST_FAIL_ERRNO (EAGAIN by default: a wait that reached its time
 * limit, after SHM_TEST_FAIL_DELAY_MS milliseconds). Every other call is the
 * C library's. */
#define _GNU_SOURCE
#include <dlfcn.h>
#include <errno.h>
#include <stdlib.h>
#include <sys/sem.h>
#include <time.h>

int semtimedop(int id, struct sembuf* ops, size_t count, const struct timespec* timeout) {
    static int (*real)(int, struct sembuf*, size_t, const struct timespec*);
    static int takes;
    /* dlvsym: the store library defines a dlsym of its own that always fails. */
#if defined(__arm__)
    const char* version = "GLIBC_2.4";
#else
    const char* version = "GLIBC_2.3.3";
#endif
    if (real == NULL)
        real = (int (*)(int, struct sembuf*, size_t, const struct timespec*))dlvsym(RTLD_NEXT, "semtimedop", version);
    const char* nth = getenv("SHM_TEST_FAIL_TAKE");
    if (nth != NULL && count == 1 && ops[0].sem_op < 0 && id == semget(77777812, 0, 0) && ++takes == atoi(nth)) {
        const char* delay = getenv("SHM_TEST_FAIL_DELAY_MS");
        const long ms = delay != NULL ? atol(delay) : 0;
        const struct timespec pause = {ms / 1000, ms % 1000 * 1000000};
        nanosleep(&pause, NULL);
        const char* error = getenv("SHM_TEST_FAIL_ERRNO");
        errno = error != NULL ? atoi(error) : EAGAIN;
        return -1;
    }
    return real(id, ops, count, timeout);
}
