// The PLC simulator on its own: replies, error replies, stream splitting,
// fault injection and the line time it keeps. Its two servers are exercised by
// the end-to-end tests over both wires.
#include "xbc_sim.h"

#include <gtest/gtest.h>

using namespace xbcsim;

namespace {

// Request frame from the characters between STX and the checksum. The
// replies below, worked out by hand, would not come to a wrong one.
QByteArray request(const QByteArray &body)
{
    return '\x02' + body + hexPair(byteSum(body, 0, body.size())) + '\x03';
}

bool replyChecksumValid(const QByteArray &reply)
{
    const int n = reply.size();
    return n >= 4 && reply.mid(n - 3, 2) == hexPair(byteSum(reply, 1, n - 3));
}

} // namespace

TEST(SimWire, AnswersReadsWritesAndBitMasks)
{
    Memory mem = makeMemory();
    setWordAt(mem, AREA_D, 100, 0x1234);
    setWordAt(mem, AREA_D, 101, 0xABCD);
    // Each word as its low byte pair, then its high byte pair, both ways.
    EXPECT_EQ(answerFrame(mem, request("raC8000004")), QByteArray("\x06r3412CDAB46\x04"));
    EXPECT_EQ(answerFrame(mem, request("wa1400000434127856")), QByteArray("\x06w77\x04"));
    EXPECT_EQ(wordAt(mem, AREA_D, 10), 0x1234);
    EXPECT_EQ(wordAt(mem, AREA_D, 11), 0x5678);
    // "o" sets the mask bits, "n" keeps only them; TX 35 is bit 3 of word 2.
    setWordAt(mem, AREA_M, 2, 0x00F0);
    answerFrame(mem, request("oi0400002001"));
    answerFrame(mem, request("ni040000EFFF"));
    EXPECT_EQ(wordAt(mem, AREA_M, 2), 0x01E0);
    setBitAt(mem, AREA_TX, 35, true);
    EXPECT_EQ(answerFrame(mem, request("rl04000002")), QByteArray("\x06r08003A\x04"));
}

TEST(SimWire, RefusesBadRequestsWithNak)
{
    const struct {
        QByteArray frame;
        int error;
    } cases[] = {
        {"\x02raC800000473\x03", ERR_CHECKSUM}, // 72 is right
        {"\x02ra0E0000026a\x03", ERR_CHECKSUM}, // its checksum in lower case
        {request("xa00000002"), ERR_COMMAND},
        {request("rz00000002"), ERR_AREA},
        {request("raFEFF0004"), ERR_RANGE},     // past the end of D
        {request("wa000000043412"), ERR_COUNT}, // less data than its count
        {request("ra00000102"), ERR_MALFORMED}, // middle field not 00
        {request("raC8000004").chopped(1), ERR_MALFORMED},
    };
    // NAK, the command, the error code, the checksum, EOT; nothing written.
    Memory mem = makeMemory();
    EXPECT_EQ(answerFrame(mem, request("wa000000043412")), QByteArray("\x15w06DD\x04"));
    for (const auto &c : cases)
        EXPECT_EQ(answerFrame(mem, c.frame), nakReply(c.frame[1], c.error)) << c.frame.constData();
    EXPECT_EQ(wordAt(mem, AREA_D, 0), 0);
}

TEST(SimWire, SplitsAStreamIntoFrames)
{
    FrameSplitter s;
    const QByteArray a = request("raC8000004");
    const QByteArray b = request("oi0400002000");
    // Noise before, a frame torn across two chunks, two frames in one chunk.
    EXPECT_TRUE(takeFrames(s, "xyz" + a.left(5)).isEmpty());
    EXPECT_EQ(takeFrames(s, a.mid(5) + b + a.left(3)), (QList<QByteArray>{a, b}));
    EXPECT_EQ(takeFrames(s, b), QList<QByteArray>{b}); // a new STX drops the torn frame
    // An endless frame comes out once, empty; what follows up to an STX is noise.
    const QByteArray endless = '\x02' + QByteArray(MAX_REQUEST_BYTES + 10, 'A') + '\x03';
    EXPECT_EQ(takeFrames(s, endless + a), (QList<QByteArray>{QByteArray(), a}));
}

TEST(SimFaults, EachSpoilsTheReplyItsOwnWayAndRepeatsFromTheSeed)
{
    const QByteArray reply = ackReply('r', "3412CDAB");
    const struct {
        const char *spec;
        int chunks;
        bool framed; // ACK ... EOT kept
        bool checksumValid;
    } cases[] = {
        {"seed=3", 1, true, true},
        {"drop=100,seed=3", 0, false, false},
        {"corrupt=100,seed=3", 1, true, false},
        {"truncate=100,seed=3", 1, false, false},
        {"double=100,seed=3", 2, true, true},
    };
    for (const auto &c : cases) {
        SCOPED_TRACE(c.spec);
        FaultConfig config;
        ASSERT_TRUE(parseFaultSpec(QString::fromLatin1(c.spec), config).isEmpty());
        FaultState state, again;
        resetFaults(state, config);
        resetFaults(again, config);
        for (int i = 0; i < 50; ++i) {
            const QList<QByteArray> out = applyFaults(state, reply);
            ASSERT_EQ(out, applyFaults(again, reply));
            ASSERT_EQ(out.size(), c.chunks);
            for (const QByteArray &chunk : out) {
                const bool framed = chunk.startsWith('\x06') && chunk.endsWith('\x04') &&
                                    chunk.size() == reply.size();
                EXPECT_EQ(framed, c.framed);
                EXPECT_EQ(framed && replyChecksumValid(chunk), c.checksumValid);
                EXPECT_EQ(chunk.count('\x04'), framed ? 1 : 0); // no early EOT
            }
        }
    }
    FaultConfig c;
    for (const char *spec : {"drop", "drop=x", "drop=101", "jitter=5", "corrupt=-1"})
        EXPECT_FALSE(parseFaultSpec(QString::fromLatin1(spec), c).isEmpty()) << spec;
}

TEST(SimLine, CountsEveryBitOfEveryCharacter)
{
    const struct {
        const char *settings;
        int characters;
        qint64 ns; // rounded up: a reply never leaves early
    } cases[] = {
        {"9600,8,NONE,1", 23, 23958334},  // 10 bits a character
        {"9600,7,even,2", 23, 26354167},  // 11
        {"115200,8,ODD,1.5", 10, 998264}, // 11.5
    };
    for (const auto &c : cases) {
        LineSettings line;
        ASSERT_TRUE(parseLineSettings(QLatin1String(c.settings), line).isEmpty()) << c.settings;
        EXPECT_EQ(lineTimeNs(line, c.characters), c.ns) << c.settings;
    }
    LineSettings line;
    for (const char *bad :
         {"9600", "9600,9,NONE,1", "9600,8,NOPE,1", "9600,8,NONE,3", "0,8,NONE,1"})
        EXPECT_FALSE(parseLineSettings(QLatin1String(bad), line).isEmpty()) << bad;
}

TEST(SimLine, RepliesWaitForTheLineFromTheRequestsFirstByte)
{
    Simulator sim;
    ASSERT_TRUE(parseLineSettings(QStringLiteral("9600,8,NONE,1"), sim.line).isEmpty());
    sim.line.scanMs = 5;
    const QByteArray read = request("raC8000002"); // 14 characters; its reply 9
    const qint64 exchange = lineTimeNs(sim.line, 14) + 5000000 + lineTimeNs(sim.line, 9);
    const qint64 t0 = 1000000000;
    Connection link;
    // A request torn across two reads counts from its first byte; the next one,
    // come meanwhile, waits until the line is free of the first reply.
    EXPECT_TRUE(handleIncoming(sim, link, read.left(5), t0).isEmpty());
    const QList<Outgoing> out = handleIncoming(sim, link, read.mid(5) + read, t0 + 1000000);
    ASSERT_EQ(out.size(), 2);
    EXPECT_EQ(out[0].dueNs, t0 + exchange);
    EXPECT_EQ(out[1].dueNs, t0 + 2 * exchange);
}
