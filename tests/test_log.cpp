// Message routing: hook, system log or nothing, by level and recursion
// counter; the per-thread record. (The error-text rule: test_sem.cpp.)
#include <gtest/gtest.h>
#include <pthread.h>

#include <thread>

#include "harness.h"

namespace {

// A level-1 and a level-9 message, both from calls that hold no lock.
void log_level_one() {
    char byte = 0;
    Vond_shm_memwrite(40, &byte, 0, 1);  // "bad sec id=40" at level 1
}
void log_level_nine() { Vond_shm_memset(1, 0, 0, 0); }  // "enter" at level 9

TEST(Log, UnderALockSeriousLevelsGoToSyslogOthersAreDroppedElseAllGoToTheHook) {
    test::install_hook();
    test::SyslogCapture syslog_socket;
    ASSERT_EQ(Vond_shm_init_shm(), 0);
    test::clear_messages();
    ASSERT_EQ(Vond_shm_lock_shm(5), 0);
    log_level_one();
    log_level_nine();
    ASSERT_EQ(Vond_shm_unlock_shm(5), 0);
    EXPECT_TRUE(test::messages().empty());
    const auto lines = syslog_socket.drain();
    ASSERT_EQ(lines.size(), 1u);
    // LOG_LOCAL2 | LOG_CRIT = 146, ident "L1,S37" with the pid.
    EXPECT_EQ(lines[0].rfind("<146>", 0), 0u) << lines[0];
    EXPECT_NE(lines[0].find("L1,S37["), std::string::npos) << lines[0];
    EXPECT_NE(lines[0].find(".Vond_shm_memwrite: bad sec id=40"), std::string::npos) << lines[0];

    log_level_one();  // lock released: every level back to the hook, none to syslog
    log_level_nine();
    const auto got = test::messages();
    ASSERT_EQ(got.size(), 2u);
    EXPECT_EQ(got[0].text.rfind("access.cpp.", 0), 0u) << got[0].text;
    EXPECT_EQ(test::count(1, "Vond_shm_memwrite", "bad sec id=40\n"), 1);
    EXPECT_EQ(test::count(9, "Vond_shm_memset", "enter\n"), 1);
    EXPECT_TRUE(syslog_socket.drain(100).empty());
}

TEST(Log, WithoutHookNothingIsLoggedAnywhere) {
    (void)SHML_get_per_thread_data();
    ASSERT_EQ(SHML_vondprintf, nullptr);  // the lookup found no hook in a linked program
    test::SyslogCapture syslog_socket;
    ASSERT_EQ(Vond_shm_init_shm(), 0);
    log_level_one();
    ASSERT_EQ(Vond_shm_lock_shm(5), 0);
    log_level_one();
    ASSERT_EQ(Vond_shm_unlock_shm(5), 0);
    EXPECT_TRUE(syslog_socket.drain(100).empty());
}

int g_hook_calls = 0;
int reentrant_hook(int32_t, int32_t, const char*, ...) {
    char byte;
    ++g_hook_calls;
    Vond_shm_memread(1, &byte, 60, 1);  // three range messages, logged under the lock
    return 0;
}

TEST(Log, HookThatReadsTheStoreSendsItsMessagesToSyslog) {
    ASSERT_EQ(Vond_shm_init_shm(), 0);
    SHML_vondprintf = reentrant_hook;
    test::SyslogCapture syslog_socket;
    log_level_one();
    EXPECT_EQ(g_hook_calls, 1);
    const auto lines = syslog_socket.drain();
    ASSERT_EQ(lines.size(), 3u);
    for (const std::string& line : lines) EXPECT_NE(line.find("Vond_shm_memread_unlocked: "), std::string::npos);
    EXPECT_EQ(SHML_get_per_thread_data()->recursion, 0);
}

TEST(Log, RecursionCounterFollowsLocksAndNeverGoesNegative) {
    ASSERT_EQ(Vond_shm_init_shm(), 0);
    SHML_per_thread_data* record = SHML_get_per_thread_data();
    ASSERT_EQ(Vond_shm_sem_get(gShmSecSemId, 0), 0);
    EXPECT_EQ(record->recursion, 1);
    ASSERT_EQ(Vond_shm_sem_put(gShmSecSemId, 0), 0);
    EXPECT_EQ(record->recursion, 0);
    SHML_decrement_recursion();
    EXPECT_EQ(record->recursion, 0);
    std::thread([&] {
        SHML_decrement_recursion();
        EXPECT_EQ(SHML_get_per_thread_data()->recursion, 0);
        EXPECT_NE(SHML_get_per_thread_data(), record);
    }).join();
}

int g_counted = 0;
int counting_hook(int32_t, int32_t, const char*, ...) { return ++g_counted, 0; }

TEST(Log, NoKeyMeansNoRecordsAndNoMessages) {
    pthread_key_t key;  // every thread-specific key used up before the library's first call
    while (pthread_key_create(&key, nullptr) == 0) {
    }
    SHML_vondprintf = counting_hook;
    SHML_increment_recursion();
    EXPECT_EQ(SHML_get_per_thread_data(), nullptr);
    log_level_one();
    EXPECT_EQ(g_counted, 0);
    EXPECT_NE(SHML_vondprintf, nullptr);  // the lookup never ran, the pointer is untouched
}

}  // namespace
