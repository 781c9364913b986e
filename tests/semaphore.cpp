#include "Common/OS/linux/psosapi/semaphore.h"

#include "Common/OS/linux/oslinux.h"

#include "tests/tasks.h"

#include <cerrno>

// The misuse of mutexes is what is tested here.
extern "C" const char *__tsan_default_options() // NOLINT(bugprone-reserved-identifier)
{
    return "report_mutex_bugs=0:report_destroy_locked=0";
}

namespace
{

void InAThread(const std::function<void()> &body)
{
    std::thread(body).join();
}

TEST(Semaphores, AreTakenAndGivenBack)
{
    UInt32 smid = 0;
    for (void *block : {low_calloc(sizeof(SMCB)), low_calloc(sizeof(SMCB))})
        low_free(std::memset(block, 1, sizeof(SMCB))); // used before, to the last byte
    EXPECT_EQ(*static_cast<char *>(low_calloc(sizeof(SMCB))), 0);
    low_free(nullptr);
    ASSERT_EQ(sm_create("ab", 7, 0xFFFF, &smid), 0u);
    EXPECT_EQ(std::memcmp(low_pointer<char>(smid), "SEMAab\0", 8), 0);
    EXPECT_EQ(sm_p(smid, kSmNoWait, 0), 0u);
    EXPECT_EQ(sm_p(smid, kSmNoWait, 0), kSmNotAvailable) << "counts above 1 are not kept";
    EXPECT_EQ(sm_v(smid), 0u);
    EXPECT_EQ(rsm_p(smid, 0xFFFFFFFE), 0u) << "only bit 0 counts";
    InAThread([&] { EXPECT_EQ(rsm_p(smid, kSmNoWait), kSmNotAvailable); });
    EXPECT_EQ(rsm_v(smid), 0u);
    EXPECT_EQ(sm_delete(smid), 0u);
    EXPECT_EQ(sm_create(nullptr, 0, 0, nullptr), 0u);
}

TEST(Semaphores, WaitWithoutLimitWhateverTheyAreTold)
{
    UInt32 smid = 0;
    ASSERT_EQ(sm_create("waits", 0, 0, &smid), 0u);
    EXPECT_EQ(std::memcmp(low_pointer<char>(smid), "SEMAwait", 8), 0);
    std::atomic<bool> taken = false;
    std::thread waiter([&] {
        EXPECT_EQ(sm_p(smid, 0, 1), 0u);
        taken = true;
        EXPECT_EQ(sm_v(smid), 0u);
    });
    std::this_thread::sleep_for(std::chrono::milliseconds(50));
    EXPECT_FALSE(taken) << "one tick is over, the semaphore is held";
    EXPECT_EQ(sm_v(smid), 0u);
    waiter.join();
    EXPECT_TRUE(taken);
}

void ExpectNotFound(UInt32 smid)
{
    for (const UInt32 result : {sm_p(smid, 0, 0), sm_p(smid, kSmNoWait, 0), sm_v(smid), sm_delete(smid)})
        ASSERT_EQ(result, kSmNotFound);
}

TEST(Semaphores, AreNotFoundByAnIdentifierOfAnythingElse)
{
    UInt32 smid = 0, other = 0;
    ASSERT_EQ(sm_create("good", 1, 0, &smid), 0u);
    auto *smcb = low_pointer<SMCB>(smid);
    smcb->signature = FourCharacters("AMES");
    ExpectNotFound(0);
    ExpectNotFound(smid);
    EXPECT_EQ(SemaphoreHold(smid).result(), kSmNotFound);
    smcb->signature = FourCharacters("SEMA");
    EXPECT_EQ(sm_delete(smid), 0u) << "it was neither taken nor deleted";
    for (int i = 0; i < 1024; i++) { // for so long nobody gets the identifier
        ASSERT_EQ(sm_create("strg", 1, 0, &other), 0u);
        ExpectNotFound(smid);
        ASSERT_EQ(sm_delete(other), 0u);
    }
    ASSERT_EQ(sm_create("n", 1, 0, &other), 0u);
    EXPECT_EQ(other, smid);
    EXPECT_EQ(std::memcmp(low_pointer<char>(other), "SEMAn\0\0", 8), 0);
    EXPECT_EQ(sm_p(other, kSmNoWait, 0), 0u);
}

TEST(SemaphoresDeathTest, StopOnMisuse)
{
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    UInt32 smid = 0;
    ASSERT_EQ(sm_create("dead", 0, 0, &smid), 0u);
    EXPECT_DEATH(InAThread([&] { sm_v(smid); }), "failed: pthread_mutex_unlock\\(&smcb->mutex\\) == 0, .*function sm_v")
        << "and so it is a mutex with priority inheritance";
    EXPECT_DEATH(sm_delete(smid), "failed: pthread_mutex_destroy\\(&smcb->mutex\\) == 0, .*function sm_delete");
}

TEST(InterruptLock, NestsAfterInitialisation)
{
    os_init();
    EXPECT_EQ(interruptsOff(), 1u);
    EXPECT_EQ(interruptsOff(), 2u);
    EXPECT_DEATH(interruptsRestore(1), "failed: intsoffcount == oldie,");
    EXPECT_EQ(interruptsRestore(2), 0);
    EXPECT_EQ(interruptsRestore(1), 0);
    for (pthread_mutex_t *mutex : {&tcblistmutex, &tmcblistmutex})
        EXPECT_EQ(pthread_mutex_unlock(mutex), EPERM) << "only with priority inheritance it knows its owner";
}

TEST(InterruptLockDeathTest, StopsOnMisuse)
{
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    EXPECT_DEATH(interruptsRestore(0), "Assertion failed: 0, .*function interruptsRestore");
    EXPECT_DEATH(interruptsRestore(interruptsOff() + 1), "failed: intsoffcount == oldie,");
    EXPECT_DEATH(InAThread([depth = interruptsOff()] { interruptsRestore(depth); }),
                 "failed: intsoffthread == pthread_self\\(\\),");
}

} // namespace
