// The PLC simulator on its own: frame parsing, replies, checksums, error
// replies, stream splitting and fault injection. Its two servers are exercised
// by the end-to-end tests over both wires.
#include "xbc_sim.h"

#include <gtest/gtest.h>

using namespace xbcsim;

namespace {

// Request frame from the characters between STX and the checksum.
QByteArray request(const char *body)
{
    QByteArray b(body);
    unsigned sum = 0;
    for (char c : b)
        sum += quint8(c);
    const QByteArray pair = QByteArray::number(sum & 0xFF, 16).toUpper().rightJustified(2, '0');
    return QByteArray(1, '\x02') + b + pair + QByteArray(1, '\x03');
}

bool replyChecksumValid(const QByteArray &reply)
{
    const int n = reply.size();
    if (n < 4)
        return false;
    unsigned sum = 0;
    for (int i = 1; i < n - 3; ++i)
        sum += quint8(reply[i]);
    const QByteArray pair = QByteArray::number(sum & 0xFF, 16).toUpper().rightJustified(2, '0');
    return reply.mid(n - 3, 2) == pair;
}

} // namespace

TEST(SimWire, AnswersReadsWritesAndBitMasks)
{
    // The helper agrees with a frame whose checksum was worked out by hand.
    ASSERT_EQ(request("raC8000014"), QByteArray("\x02raC800001473\x03"));
    Memory mem = makeMemory();
    setWordAt(mem, AREA_D, 100, 0x1234);
    setWordAt(mem, AREA_D, 101, 0xABCD);
    setWordAt(mem, AREA_M, 2, 0x00F0);

    // Read: each word as its low byte pair, then its high byte pair.
    QByteArray reply = answerFrame(mem, request("raC8000004"));
    EXPECT_EQ(reply, ackReply('r', "3412CDAB"));
    EXPECT_TRUE(reply.startsWith('\x06'));
    EXPECT_TRUE(reply.endsWith('\x04'));
    EXPECT_TRUE(replyChecksumValid(reply));

    // Write: data bytes low byte first per word.
    reply = answerFrame(mem, request("wa1400000434127856"));
    EXPECT_EQ(reply.size(), 5);
    EXPECT_TRUE(replyChecksumValid(reply));
    EXPECT_EQ(wordAt(mem, AREA_D, 10), 0x1234);
    EXPECT_EQ(wordAt(mem, AREA_D, 11), 0x5678);

    // "o" sets the mask bits, "n" keeps only the mask bits.
    answerFrame(mem, request("oi0400002000"));
    EXPECT_EQ(wordAt(mem, AREA_M, 2), 0x00F0 | 0x0020);
    answerFrame(mem, request("oi0400000001"));
    EXPECT_EQ(wordAt(mem, AREA_M, 2), 0x01F0);
    answerFrame(mem, request("ni040000EFFF"));
    EXPECT_EQ(wordAt(mem, AREA_M, 2), 0x01E0);

    // Contacts: TX 35 is bit 3 of word 2 of the TX area.
    setBitAt(mem, AREA_TX, 35, true);
    EXPECT_EQ(answerFrame(mem, request("rl04000002")), ackReply('r', "0800"));
    answerFrame(mem, request("nl040000F7FF"));
    EXPECT_FALSE(bitAt(mem, AREA_TX, 35));
}

TEST(SimWire, RefusesBadRequestsWithNak)
{
    struct Case {
        const char *name;
        QByteArray frame;
        int error;
    };
    QByteArray badSum = request("raC8000004");
    badSum[badSum.size() - 2] = badSum[badSum.size() - 2] == '0' ? '1' : '0';
    // Checksum 6A of this request, written in lower case.
    const QByteArray lowerHex = QByteArray("\x02ra0E0000026a\x03");
    const Case cases[] = {
        {"bad checksum", badSum, ERR_CHECKSUM},
        {"lower-case checksum", lowerHex, ERR_CHECKSUM},
        {"unknown command", request("xa00000002"), ERR_COMMAND},
        {"unknown area", request("rz00000002"), ERR_AREA},
        {"run past the end of D", request("raFEFF0004"), ERR_RANGE},
        {"odd byte address", request("ra01000002"), ERR_RANGE},
        {"odd byte count", request("ra00000003"), ERR_COUNT},
        {"write data shorter than its count", request("wa000000043412"), ERR_COUNT},
        {"read with extra characters", request("ra0000000200"), ERR_MALFORMED},
        {"non-hex address", request("raG0000002"), ERR_MALFORMED},
        {"middle field not 00", request("ra00000102"), ERR_MALFORMED},
        {"too short", QByteArray("\x02r\x03"), ERR_MALFORMED},
        {"no ETX", request("raC8000004").chopped(1), ERR_MALFORMED},
    };
    for (const Case &c : cases) {
        SCOPED_TRACE(c.name);
        Memory mem = makeMemory();
        const QByteArray reply = answerFrame(mem, c.frame);
        ASSERT_GE(reply.size(), 6);
        EXPECT_EQ(reply[0], '\x15');
        EXPECT_EQ(reply.back(), '\x04');
        EXPECT_TRUE(replyChecksumValid(reply));
        EXPECT_EQ(reply.mid(2, 2), hexPair(quint8(c.error)));
        // A refused write changes nothing.
        EXPECT_EQ(wordAt(mem, AREA_D, 0), 0);
    }
}

TEST(SimWire, SplitsAStreamIntoFrames)
{
    FrameSplitter s;
    const QByteArray a = request("raC8000004");
    const QByteArray b = request("oi0400002000");
    // Noise before, a frame torn across two chunks, two frames in one chunk.
    EXPECT_TRUE(takeFrames(s, "xyz" + a.left(5)).isEmpty());
    QList<QByteArray> got = takeFrames(s, a.mid(5) + b + a.left(3));
    ASSERT_EQ(got.size(), 2);
    EXPECT_EQ(got[0], a);
    EXPECT_EQ(got[1], b);
    // A new STX drops the torn frame.
    got = takeFrames(s, b);
    ASSERT_EQ(got.size(), 1);
    EXPECT_EQ(got[0], b);
    // An endless frame is reported once as an empty entry.
    got = takeFrames(s, QByteArray(1, '\x02') + QByteArray(MAX_REQUEST_BYTES + 10, 'A'));
    ASSERT_EQ(got.size(), 1);
    EXPECT_TRUE(got[0].isEmpty());
}

TEST(SimFaults, AreRepeatableFromTheSeed)
{
    FaultConfig c;
    ASSERT_TRUE(
        parseFaultSpec(QStringLiteral("drop=20,corrupt=20,truncate=10,double=10,seed=42"), c)
            .isEmpty());
    const QByteArray reply = ackReply('r', "3412CDAB");
    FaultState one, two;
    resetFaults(one, c);
    resetFaults(two, c);
    for (int i = 0; i < 200; ++i)
        ASSERT_EQ(applyFaults(one, reply), applyFaults(two, reply)) << "reply " << i;
    EXPECT_GT(one.counters.dropped, 10);
    EXPECT_GT(one.counters.corrupted, 10);
    EXPECT_GT(one.counters.truncated, 5);
    EXPECT_GT(one.counters.doubled, 5);
    for (const char *spec : {"drop", "drop=x", "drop=101", "jitter=5", "corrupt=-1"})
        EXPECT_FALSE(parseFaultSpec(QString::fromLatin1(spec), c).isEmpty()) << spec;
}

TEST(SimFaults, EachFaultSpoilsTheReplyItsOwnWay)
{
    const QByteArray reply = ackReply('r', "3412CDAB");
    struct Case {
        const char *spec;
        int chunks;
        bool framed; // ACK ... EOT kept
        bool checksumValid;
    };
    const Case cases[] = {
        {"seed=3", 1, true, true},
        {"drop=100,seed=3", 0, false, false},
        {"corrupt=100,seed=3", 1, true, false},
        {"truncate=100,seed=3", 1, false, false},
        {"double=100,seed=3", 2, true, true},
    };
    for (const Case &c : cases) {
        SCOPED_TRACE(c.spec);
        FaultConfig config;
        ASSERT_TRUE(parseFaultSpec(QString::fromLatin1(c.spec), config).isEmpty());
        FaultState state;
        resetFaults(state, config);
        for (int i = 0; i < 50; ++i) {
            const QList<QByteArray> out = applyFaults(state, reply);
            ASSERT_EQ(out.size(), c.chunks);
            for (const QByteArray &chunk : out) {
                const bool framed = chunk.startsWith('\x06') && chunk.endsWith('\x04') &&
                                    chunk.size() == reply.size();
                EXPECT_EQ(framed, c.framed);
                if (framed) {
                    EXPECT_EQ(replyChecksumValid(chunk), c.checksumValid);
                }
                EXPECT_EQ(chunk.count('\x04'), framed ? 1 : 0); // no early EOT
            }
        }
    }
}

TEST(SimMemory, ParsesLocationsAndRunsLiveChanges)
{
    Location counter, blink, contact;
    ASSERT_TRUE(parseLocation(QStringLiteral("D_W:7"), counter).isEmpty());
    ASSERT_TRUE(parseLocation(QStringLiteral("M_bit:35.3"), blink).isEmpty());
    ASSERT_TRUE(parseLocation(QStringLiteral("TX:2047"), contact).isEmpty());
    EXPECT_EQ(blink.bitAddress, 563);
    Location bad;
    for (const char *text : {"D_W:32768", "M_bit:3.16", "Q_W:1", "TX:2048"})
        EXPECT_FALSE(parseLocation(QString::fromLatin1(text), bad).isEmpty()) << text;

    Memory mem = makeMemory();
    LiveConfig live;
    live.counters = {counter};
    live.blinks = {blink, contact};
    stepLive(mem, live);
    EXPECT_EQ(wordAt(mem, AREA_D, 7), 1);
    EXPECT_EQ(wordAt(mem, AREA_M, 35), 0x0008);
    EXPECT_TRUE(bitAt(mem, AREA_TX, 2047));
    stepLive(mem, live);
    EXPECT_EQ(wordAt(mem, AREA_D, 7), 2);
    EXPECT_EQ(wordAt(mem, AREA_M, 35), 0);
}
