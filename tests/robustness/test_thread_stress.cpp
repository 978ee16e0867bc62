// A screen thread reading, writing and asking for condition reads while the
// communication thread runs the exchange loop. Run under ThreadSanitizer in the
// test command; here it also checks that no write is lost and values converge.
#include "test_support.h"

#include <QElapsedTimer>

#include <atomic>

using namespace xbc_test;

namespace {

std::atomic<int> conditionReadsDone{0};
std::atomic<int> callbackReads{0};

void screenCallback(int id, int station, const QString &name, int address)
{
    if (id == -1 && station == -1) {
        conditionReadsDone++;
        return;
    }
    // The driver's lock is not held here: reading back must not deadlock.
    unsigned char out[2];
    intf_getData(station, name, address, 1, out);
    callbackReads++;
}

using ThreadStress = DriverTest;

TEST_F(ThreadStress, ScreenAndCommunicationThreadsShareTheDriver)
{
    reset("1#0#0#3#32");
    intf_setAddrValueChangeCallBack(screenCallback);
    watch("D_W 0 100, M_bit 0 128, TX 0 40");

    std::atomic<bool> stop{false};
    int lastWritten[100] = {};
    std::thread screen([&] {
        QElapsedTimer clock;
        clock.start();
        for (int i = 0; clock.elapsed() < 1500 && i < 20000; ++i) {
            const int a = i % 100, value = 1 + i;
            unsigned char word[2] = {(unsigned char)(value & 0xFF), (unsigned char)(value >> 8)};
            intf_setData(1, QStringLiteral("D_W"), a, 1, word, i);
            lastWritten[a] = value & 0xFFFF;
            unsigned char bitValue[1] = {(unsigned char)(i & 1)};
            intf_setData(1, QStringLiteral("M_bit"), 100 + i % 20, 1, bitValue, i);
            unsigned char out[64];
            intf_getData(1, QStringLiteral("D_W"), 0, 32, out);
            intf_getData(1, QStringLiteral("TX"), 0, 40, out);
            if (i % 50 == 0)
                intf_addConditionRead(key(1, "D_W", 200 + i % 7, 5), i);
            if (i % 8 == 0)
                std::this_thread::yield();
        }
        stop = true;
    });
    std::thread communication([&] {
        while (!stop)
            plc.exchange();
    });
    screen.join();
    communication.join();
    plc.drain(2);

    EXPECT_TRUE(driver.writeList.isEmpty());
    EXPECT_GT(conditionReadsDone.load(), 0);
    EXPECT_GT(callbackReads.load(), 0);
    // No faults: the last value written to every word reached the PLC and is shown.
    for (int a = 0; a < 100; ++a) {
        if (lastWritten[a] == 0)
            continue;
        EXPECT_EQ(plc.word(AREA_D, a), lastWritten[a]) << a;
        EXPECT_EQ(word16(1, "D_W", a), lastWritten[a]) << a;
    }
}

} // namespace
