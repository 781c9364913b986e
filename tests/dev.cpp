// The device layer on a driver that counts its calls.
#include "bench/standin/countingdriver.h"
#include "tests/tasks.h"

namespace
{

using namespace countingdriver;

DEVCB *AddDevice(UInt32 instance)
{
    auto *pDev = static_cast<struct DeviceControlBlock *>(low_calloc(sizeof(DEVCB)));
    dev_init(pDev, "Ser", instance, Open, Close, Read, Write, Ioctl);
    dev_add(pDev);
    return pDev;
}

UInt32 OpenDevice(UInt32 instance)
{
    UInt32 devid = 0;
    EXPECT_EQ(0u, dev_open("Ser", instance, &devid));
    return devid;
}

// With stale results in it.
IORB Request(UserCompletionFuncT pUserCompFunc = nullptr)
{
    static char buffer[4];
    IORB iorb{};
    EXPECT_EQ(0u, iorb_init(&iorb, buffer, nullptr, 1, pUserCompFunc, 0));
    iorb.err = iorb.actLen = 77;
    return iorb;
}

TEST(DeviceTable, FindsTheFirstOfNameAndInstance)
{
    DEVCB *first = AddDevice(1), *second = AddDevice(2), *duplicate = AddDevice(1);
    UInt32 devid = 5;
    EXPECT_EQ(kDevNotFound, dev_open("Ser", 9, &devid));
    EXPECT_EQ(kDevNotFound, dev_open("Se", 1, &devid));
    EXPECT_EQ(5u, devid);
    EXPECT_EQ(first, gpDEVCBHead);
    EXPECT_EQ(duplicate, gpDEVCBTail);
    EXPECT_EQ(low_id(first), OpenDevice(1));
    EXPECT_STREQ("Ser", dev_name(low_id(first)));
    dev_delete(first);
    EXPECT_EQ(low_id(duplicate), OpenDevice(1));
    dev_delete(duplicate);
    dev_delete(duplicate); // not there any more: nothing happens
    EXPECT_EQ(kDevNotFound, dev_open("Ser", 1, &devid));
    EXPECT_EQ(low_id(second), OpenDevice(2));
}

TEST(DeviceTable, OpensAndClosesOnce)
{
    DEVCB *pDev = AddDevice(1);
    UInt32 devid = openResult = 6;
    EXPECT_EQ(6u, dev_open("Ser", 1, &devid));
    EXPECT_EQ(6u, devid);
    EXPECT_EQ(0u, pDev->state);
    openResult = 0;
    devid = OpenDevice(1);
    EXPECT_EQ(devid, OpenDevice(1));
    EXPECT_EQ(2, opens);
    closeResult = 3;
    EXPECT_EQ(3u, dev_close(devid)); // closed all the same
    EXPECT_EQ(0u, dev_close(devid));
    EXPECT_EQ(1, closes);
    pDev->open = pDev->close = nullptr;
    EXPECT_EQ(0u, dev_close(OpenDevice(1)));
    EXPECT_EQ(0u, pDev->state);
}

TEST(Requests, SayWhyTheyDoNotReachTheDriver)
{
    DEVCB *pDev = AddDevice(1);
    const UInt32 devid = low_id(pDev);
    IORB read = Request(), write = Request(), control = Request();
    dev_write(devid, &write);
    dev_ioctl(devid, &control, 3);
    EXPECT_EQ("dev_read: not open\n", Printed([&] { dev_read(devid, &read); }));
    for (const IORB &iorb : {read, write, control}) {
        EXPECT_EQ(kDevNotOpen, iorb.err);
        EXPECT_EQ(0u, iorb.actLen);
    }
    OpenDevice(1);
    write.reqLen = 0;
    dev_write(devid, &write);
    pDev->read = nullptr;
    EXPECT_EQ("dev_read: no read routine\n", Printed([&] { dev_read(devid, &read); }));
    for (const IORB &iorb : {read, write}) {
        EXPECT_EQ(0u, iorb.err);
        EXPECT_EQ(0u, iorb.actLen);
    }
    for (const int calls : {+reads, writes, ioctls})
        EXPECT_EQ(0, calls);
}

TEST(Requests, WithACompletionAreQueuedButForWritesAndTheFirstControl)
{
    DEVCB *pDev = AddDevice(1);
    const UInt32 devid = OpenDevice(1);
    const IORB request = Request(Completed);
    IORB read = request, write = request, first = request, second = request;
    dev_read(devid, &read);
    dev_write(devid, &write);
    dev_ioctl(devid, &first, 1);
    EXPECT_EQ(1, ioctls);
    iorb_list_enqueue(&pDev->ioctlIORBs, &first);
    dev_ioctl(devid, &second, 2);
    EXPECT_EQ(1, ioctls);
    EXPECT_EQ(2u, pDev->ioctlIORBs.pTail->ctlCode);
    EXPECT_EQ(&read, pDev->readIORBs.pTail);
    EXPECT_EQ(0, reads);
    EXPECT_EQ(1, writes);
    pDev->flags = 1;
    OpenDevice(1); // forgets them
    EXPECT_EQ(0u, pDev->flags);
    EXPECT_EQ(0, iorb_list_avail(&pDev->readIORBs));
    EXPECT_EQ(0, iorb_list_avail(&pDev->ioctlIORBs));
    EXPECT_EQ(nullptr, pDev->readIORBs.pHead);
    EXPECT_EQ(0, completions);
}

TEST(Requests, CarryTheCallingTask)
{
    AddDevice(1);
    IORB write = Request();
    const UInt32 tid = StartTask("call", [&, devid = OpenDevice(1)] { dev_write(devid, &write); });
    EXPECT_TRUE(Eventually([] { return NumTasks() == 0; }));
    dev_read(OpenDevice(1), &write); // which keeps a task that is given
    EXPECT_EQ(tid, write.taskID);
}

TEST(RequestQueue, KeepsItsOrderThroughRemovals)
{
    struct IORequestBlockList list {
    };
    ASSERT_EQ(0u, iorb_list_alloc(&list, 5));
    IORB *block = list.pHead;
    for (const int i : {0, 2, 4, 4}) // head, middle, tail, and one that is gone
        iorb_list_extract(&list, &block[i]);
    iorb_list_enqueue(&list, &block[2]);
    EXPECT_EQ(3, iorb_list_avail(&list));
    for (const int i : {1, 3, 2})
        EXPECT_EQ(&block[i], iorb_list_dequeue(&list));
    EXPECT_EQ(nullptr, iorb_list_dequeue(&list));
    iorb_list_enqueue(&list, block);
    iorb_list_free(&list);
    EXPECT_EQ(0, iorb_list_avail(&list));
}

TEST(CompletionTask, ServesQueuedReadsWhenDataArrives)
{
    int ends[2];
    ASSERT_EQ(0, pipe(ends));
    DEVCB *pDev = AddDevice(1);
    AddDevice(2); // which is not served
    const UInt32 devid = OpenDevice(1);
    pDev->fd = ends[0];
    struct DeviceIORequestBlock first = Request(Completed), second = Request(Completed);
    dev_read(devid, &first);
    add_dev_to_comp_task(pDev);
    add_dev_to_comp_task(pDev); // no second task
    tm_wkafter(5);
    EXPECT_EQ(0, reads);
    ASSERT_EQ(2, write(ends[1], "ab", 2));
    ASSERT_TRUE(Eventually([] { return completions == 1; }));
    EXPECT_EQ(1u, first.actLen);
    dev_read(devid, &second); // the second byte has waited for it
    ASSERT_TRUE(Eventually([] { return completions == 2; }));
    EXPECT_EQ('b', second.pBuffer[0]);
    IORB third = Request(); // queued by hand: nobody is to be told
    iorb_list_enqueue(&pDev->readIORBs, &third);
    ASSERT_EQ(1, write(ends[1], "c", 1));
    EXPECT_TRUE(Eventually([] { return reads == 3; }));
    UInt32 tid = 0;
    ASSERT_EQ(0u, t_ident("devc", 0, &tid));
    EXPECT_EQ(55u, low_pointer<TCB>(tid)->priority);
    t_delete(tid);
    EXPECT_EQ(kTaskNotFound, t_ident("devc", 0, &tid));
    const pollfd list[] = {{3, POLLIN, 0}, {4, POLLIN, POLLIN}, {5, POLLIN, POLLHUP}};
    EXPECT_EQ(0, UFD_ISSET(3, nullptr, 0));
    EXPECT_EQ(0, UFD_ISSET(3, list, 3));
    EXPECT_EQ(1, UFD_ISSET(4, list, 3));
    EXPECT_EQ(0, UFD_ISSET(5, list, 2));
}

TEST(DeviceAssertion, StopsTheProgram)
{
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    AddDevice(1);
    const UInt32 devid = OpenDevice(1);
    IORBList list{};
    IORB iorb = Request(), linked = Request(), bare{};
    linked.pPrevious = &iorb;
    EXPECT_DEATH(dev_close(0), "Assertion failed: pDev, file .*dev.cpp, line .*, function dev_close");
    EXPECT_DEATH(dev_read(0, &iorb), "failed: pDev,");
    EXPECT_DEATH(dev_read(devid, nullptr), "failed: pIORB,");
    EXPECT_DEATH(dev_write(devid, &bare), "failed: pIORB->pBuffer,");
    EXPECT_DEATH(dev_ioctl(devid, nullptr, 1), "failed: pIORB,");
    EXPECT_DEATH(iorb_list_enqueue(nullptr, &iorb), "failed: pIORBList,");
    EXPECT_DEATH(iorb_list_enqueue(&list, &linked), "failed: pIORB->pPrevious == \\(\\(void \\*\\)0\\),");
    linked.pNext = &iorb;
    EXPECT_DEATH(iorb_list_enqueue(&list, &linked), "failed: pIORB->pNext == \\(\\(void \\*\\)0\\),");
    EXPECT_DEATH(iorb_list_alloc(&list, 0), "failed: numIORBs > 0,");
    UInt32 id = 0;
    DEVCB dev{};
    EXPECT_DEATH(dev_init(&dev, nullptr, 1, nullptr, nullptr, nullptr, nullptr, nullptr), "failed: name,");
    EXPECT_DEATH(dev_open(nullptr, 1, &id), "failed: name,");
    EXPECT_DEATH(dev_open("Ser", 1, nullptr), "failed: devid_out,");
    low_pointer<DEVCB>(devid)->ioctl = nullptr;
    EXPECT_DEATH(dev_ioctl(devid, &iorb, 1), "failed: pDev->ioctl,");
    EXPECT_DEATH(UFD_ISSET(3, nullptr, 1), "failed: pPollList,");
}

} // namespace
