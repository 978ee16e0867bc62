// xbc-host --capture against a separately started xbc-plc-sim, decoded by
// tshark with the dissector, and compared frame by frame with what
// the capture file holds, worked out independently (capture_oracle.h).
#include "capture.h"
#include "capture_oracle.h"
#include "frame_text.h"
#include "sim_process.h"
#include "xbc_sim.h"

#include <pcap/pcap.h>

#include <QFile>
#include <QProcess>
#include <QRegularExpression>
#include <QTemporaryDir>

#include <gtest/gtest.h>

#include <algorithm>

using namespace capturetest;
using namespace xbctest;

namespace {

enum { START_TIMEOUT_MS = 10000, RUN_TIMEOUT_MS = 60000 };
const double RESPONSE_TIME_TOLERANCE_S = 2e-6; // pcap keeps microseconds

QString processOutput(QProcess &p)
{
    return QString::fromLocal8Bit(p.readAllStandardOutput());
}

// Space-separated words, for argument and field lists.
QStringList words(const char *s)
{
    return QString::fromLatin1(s).split(QLatin1Char(' '), Qt::SkipEmptyParts);
}

// The simulator as its own process; empty error text once it listens.
QString startSimulator(SimProcess &sim, const char *args, bool pty)
{
    sim.program = QStringLiteral(XBC_SIM_PATH);
    sim.args = words(args);
    sim.pty = pty;
    QString error;
    startSim(sim, &error);
    return error;
}

struct ProgramRun {
    int exitCode = -1;
    QString out;
    QString err;
};

ProgramRun runProgram(const QString &program, const QStringList &args,
                      const QProcessEnvironment &env = QProcessEnvironment::systemEnvironment())
{
    QProcess p;
    p.setProcessEnvironment(env);
    p.start(program, args);
    ProgramRun r;
    if (!p.waitForStarted(START_TIMEOUT_MS) || !p.waitForFinished(RUN_TIMEOUT_MS)) {
        p.kill();
        p.waitForFinished();
        r.err = QStringLiteral("%1 did not run to its end").arg(program);
        return r;
    }
    r.exitCode = p.exitStatus() == QProcess::NormalExit ? p.exitCode() : -1;
    r.out = processOutput(p);
    r.err = QString::fromLocal8Bit(p.readAllStandardError());
    return r;
}

// tshark with the dissector and nothing from the user's own set-up (an
// installed copy of the dissector would register the protocol twice).
ProgramRun runTshark(const QString &pcap, const QStringList &args, const QTemporaryDir &home)
{
    QProcessEnvironment env = QProcessEnvironment::systemEnvironment();
    env.insert(QStringLiteral("HOME"), home.path());
    env.insert(QStringLiteral("XDG_CONFIG_HOME"), home.path());
    ProgramRun r = runProgram(QStringLiteral(XBC_TSHARK_PATH),
                              QStringList{QStringLiteral("-r"), pcap, QStringLiteral("-X"),
                                          QStringLiteral("lua_script:" XBC_DISSECTOR_PATH)} +
                                  args,
                              env);
    QStringList errLines;
    for (const QString &line : r.err.split(QLatin1Char('\n'), Qt::SkipEmptyParts))
        if (!line.startsWith(QLatin1String("Running as user"))) // tshark's note under root
            errLines << line;
    r.err = errLines.join(QLatin1Char('\n'));
    return r;
}

QStringList fieldArgs(const QStringList &fields)
{
    QStringList args =
        words("-T fields -E header=y -E occurrence=a -E aggregator=, -e frame.number");
    for (const QString &f : fields)
        args << QStringLiteral("-e") << f;
    return args;
}

QString describe(const Fields &f)
{
    QStringList parts;
    for (auto it = f.begin(); it != f.end(); ++it)
        parts << it.key() + QLatin1Char('=') + it.value();
    return parts.join(QStringLiteral(" "));
}

// Runs tshark over the capture and compares every frame with the oracle.
// Returns the records for further checks.
QVector<Record> expectDecodedAsOracle(const QString &pcap)
{
    QVector<Record> records;
    const QString error = readCapture(pcap, records);
    EXPECT_TRUE(error.isEmpty()) << error.toStdString();
    const QVector<Fields> expected = expectedFields(records);
    QTemporaryDir home;
    const QStringList fields = comparedFields();
    const ProgramRun t = runTshark(pcap, fieldArgs(fields), home);
    EXPECT_EQ(t.exitCode, 0) << t.err.toStdString();
    EXPECT_TRUE(t.err.isEmpty()) << "tshark said: " << t.err.toStdString();
    const QVector<Fields> shown = parseTsharkFields(t.out, fields);
    EXPECT_EQ(shown.size(), records.size());
    for (int i = 0; i < records.size() && i < shown.size(); ++i) {
        Fields want = expected[i];
        Fields got = shown[i];
        const QString key = QStringLiteral("xbc.response_time");
        if (want.contains(key) && got.contains(key)) {
            EXPECT_NEAR(want.take(key).toDouble(), got.take(key).toDouble(),
                        RESPONSE_TIME_TOLERANCE_S)
                << "frame " << i + 1;
        }
        EXPECT_EQ(describe(got).toStdString(), describe(want).toStdString())
            << "frame " << i + 1 << ": " << xbctrace::printable(records[i].bytes).toStdString();
        EXPECT_EQ(records[i].dissector, QStringLiteral("xbc")) << "frame " << i + 1;
    }
    return records;
}

int framesSentOf(const QString &hostOutput)
{
    const QRegularExpressionMatch m =
        QRegularExpression(QStringLiteral("summary: frames sent (\\d+)")).match(hostOutput);
    return m.hasMatch() ? m.captured(1).toInt() : -1;
}

template <typename Pred> int countWhere(const QVector<Record> &records, Pred pred)
{
    return int(std::count_if(records.begin(), records.end(), pred));
}

bool isSent(const Record &r)
{
    return r.direction == DIRECTION_SENT;
}

bool isTimeout(const Record &r)
{
    return !isSent(r) && r.bytes.isEmpty();
}

// A capture of xbc-host against the simulator over TCP: returns the records
// after the frame-by-frame comparison, and checks the host's own count.
QVector<Record> captureOverTcp(const QString &pcap, const char *simArgs, const char *hostArgs,
                               quint16 *simPort = nullptr)
{
    SimProcess sim;
    const QString error = startSimulator(sim, simArgs, false);
    EXPECT_TRUE(error.isEmpty()) << error.toStdString();
    if (!error.isEmpty())
        return {};
    if (simPort)
        *simPort = sim.port;
    const QString port = QString::number(sim.port);
    const ProgramRun host =
        runProgram(QStringLiteral(XBC_HOST_PATH),
                   QStringList{QStringLiteral("--tcp"), QStringLiteral("127.0.0.1:") + port,
                               QStringLiteral("--capture"), pcap} +
                       words(hostArgs));
    stopSim(sim);
    EXPECT_EQ(host.exitCode, 0) << host.out.toStdString() << host.err.toStdString();
    const QVector<Record> records = expectDecodedAsOracle(pcap);
    EXPECT_EQ(countWhere(records, isSent), framesSentOf(host.out)) << host.out.toStdString();
    return records;
}

bool checksumWrong(const Record &r)
{
    const QByteArray &b = r.bytes;
    const int end = r.direction == DIRECTION_SENT ? xbcsim::ETX : xbcsim::EOT;
    return b.size() >= 4 && b[b.size() - 1] == end &&
           b.mid(b.size() - 3, 2) != xbcsim::hexPair(xbcsim::byteSum(b, 1, b.size() - 3));
}

QByteArray withChecksum(char start, const QByteArray &body, char end)
{
    const QByteArray frame = start + body;
    return frame + xbcsim::hexPair(xbcsim::byteSum(frame, 1, frame.size())) + end;
}

QByteArray request(const QByteArray &body)
{
    return withChecksum(xbcsim::STX, body, xbcsim::ETX);
}

QByteArray ackReply(const QByteArray &body)
{
    return withChecksum(xbcsim::ACK, body, xbcsim::EOT);
}

} // namespace

TEST(Capture, TcpRunDecodesFrameByFrame)
{
    QTemporaryDir dir;
    quint16 simPort = 0;
    const QVector<Record> records =
        captureOverTcp(dir.filePath(QStringLiteral("run.pcap")),
                       "--set D_W:100=1000 --set D_W:101=2000 --blink TX:7 --period 100",
                       "--watch D_W:100:3 --watch M_bit:35.3 --watch TX:7 --write D_W:100=1234,5"
                       " --write M_bit:35.3=1 --duration 1.5",
                       &simPort);
    ASSERT_GT(records.size(), 6);
    // Both writes went out as the driver builds them, and the capture holds
    // them byte for byte.
    int wordWrites = 0, bitSets = 0;
    for (const Record &r : records) {
        if (r.direction == DIRECTION_SENT)
            EXPECT_EQ(r.destinationPort, simPort);
        else
            EXPECT_EQ(r.sourcePort, simPort);
        EXPECT_TRUE(r.hasPorts);
        wordWrites += r.bytes == request("wa" + xbcsim::hex16(200) + "0004" + xbcsim::hex16(1234) +
                                         xbcsim::hex16(5));
        bitSets += r.bytes == request("oi" + xbcsim::hex16(70) + "00" + xbcsim::hex16(1 << 3));
    }
    EXPECT_EQ(wordWrites, 1);
    EXPECT_EQ(bitSets, 1);
    EXPECT_EQ(countWhere(records, isTimeout), 0);
    EXPECT_EQ(countWhere(records, checksumWrong), 0);
}

TEST(Capture, FaultyRepliesAreFlagged)
{
    QTemporaryDir dir;
    const QVector<Record> records =
        captureOverTcp(dir.filePath(QStringLiteral("faults.pcap")),
                       "--faults drop=8,corrupt=30,truncate=8,seed=11 --counter D_W:0",
                       "--watch D_W:0:4 --watch M_bit:2.1 --duration 4");
    // The run met every kind of fault; the comparison above found each one
    // decoded and flagged as the oracle expects.
    EXPECT_GT(countWhere(records, isTimeout), 0);
    EXPECT_GT(countWhere(records, checksumWrong), 0);
    EXPECT_GT(countWhere(records,
                         [](const Record &r) {
                             return r.direction == DIRECTION_RECEIVED && !r.bytes.isEmpty() &&
                                    !r.bytes.endsWith(xbcsim::EOT);
                         }),
              0);
}

TEST(Capture, SerialRunOverPseudoTerminal)
{
    QTemporaryDir dir;
    SimProcess sim;
    const QString error = startSimulator(sim, "--set D_W:0=77", true);
    ASSERT_TRUE(error.isEmpty()) << error.toStdString();
    const QString pty = sim.ptyPath;
    const QString pcap = dir.filePath(QStringLiteral("serial.pcap"));
    const ProgramRun host =
        runProgram(QStringLiteral(XBC_HOST_PATH),
                   QStringList{QStringLiteral("--serial"), pty, QStringLiteral("--capture"), pcap} +
                       words("--watch D_W:0:2 --write D_W:1=7 --duration 1"));
    stopSim(sim);
    ASSERT_EQ(host.exitCode, 0) << host.out.toStdString() << host.err.toStdString();
    const QVector<Record> records = expectDecodedAsOracle(pcap);
    ASSERT_GT(records.size(), 2);
    EXPECT_EQ(countWhere(records, isSent), framesSentOf(host.out));
    for (const Record &r : records) {
        EXPECT_FALSE(r.hasPorts); // a serial line has no ports
        EXPECT_TRUE(r.direction == DIRECTION_SENT || r.direction == DIRECTION_RECEIVED);
    }
    EXPECT_TRUE(records.first().bytes == request("ra" + xbcsim::hex16(0) + "0004"));
    EXPECT_EQ(records[1].bytes, ackReply("r" + xbcsim::hex16(77) + xbcsim::hex16(0)));
}

namespace {

// One TCP segment as an IPv4 packet on loopback.
struct Segment {
    bool toPlc = true;
    QByteArray payload;
};

enum : quint16 { PLC_PORT = 8000, PANEL_PORT = 40000 };
enum { IPV4_HEADER_BYTES = 20, TCP_HEADER_BYTES = 20 };

void putBig(QByteArray &out, quint32 v, int bytes)
{
    while (bytes-- > 0)
        out.append(char(v >> (8 * bytes)));
}

QByteArray ipv4TcpPacket(const Segment &s, quint32 seq, quint32 ack)
{
    // IPv4 without options or checksum, loopback to loopback, TCP.
    QByteArray p = QByteArray::fromHex("4500");
    putBig(p, quint32(IPV4_HEADER_BYTES + TCP_HEADER_BYTES + s.payload.size()), 2);
    p += QByteArray::fromHex("00000000 40 06 0000 7f000001 7f000001");
    putBig(p, s.toPlc ? PANEL_PORT : PLC_PORT, 2);
    putBig(p, s.toPlc ? PLC_PORT : PANEL_PORT, 2);
    putBig(p, seq, 4);
    putBig(p, ack, 4);
    // 20-byte header, PSH ACK, full window, no checksum or urgent pointer.
    return p + QByteArray::fromHex("5018 ffff 00000000") + s.payload;
}

void writeTcpCapture(const QString &path, const QVector<Segment> &segments)
{
    pcap_t *dead = pcap_open_dead(DLT_RAW, 65535);
    pcap_dumper_t *dumper = pcap_dump_open(dead, QFile::encodeName(path).constData());
    ASSERT_NE(dumper, nullptr) << pcap_geterr(dead);
    quint32 seqPanel = 1000, seqPlc = 5000;
    int usec = 0;
    for (const Segment &s : segments) {
        const QByteArray packet =
            ipv4TcpPacket(s, s.toPlc ? seqPanel : seqPlc, s.toPlc ? seqPlc : seqPanel);
        (s.toPlc ? seqPanel : seqPlc) += quint32(s.payload.size());
        pcap_pkthdr h{};
        h.ts.tv_sec = 1000;
        h.ts.tv_usec = usec += 1000;
        h.caplen = h.len = bpf_u_int32(packet.size());
        pcap_dump(reinterpret_cast<u_char *>(dumper), &h,
                  reinterpret_cast<const u_char *>(packet.constData()));
    }
    pcap_dump_close(dumper);
    pcap_close(dead);
}

} // namespace

// On TCP port 8000 a frame may come in pieces, or share a segment with the
// next one; each is decoded once, whole, in the segment that completes it.
TEST(Capture, TcpStreamOnPort8000IsCutIntoFrames)
{
    const QByteArray read = request("ra" + xbcsim::hex16(200) + "0004");
    const QByteArray readReply = ackReply("r" + xbcsim::hex16(0x1234) + xbcsim::hex16(7));
    const QByteArray write = request("wa" + xbcsim::hex16(20) + "0002" + xbcsim::hex16(9));
    const QByteArray writeReply = ackReply("w");
    const QByteArray bitSet = request("oi" + xbcsim::hex16(70) + "00" + xbcsim::hex16(8));
    QByteArray badReply = ackReply("o");
    badReply[2] = 'F'; // checksum no longer matches
    QTemporaryDir dir;
    const QString pcap = dir.filePath(QStringLiteral("tcp.pcap"));
    writeTcpCapture(pcap, {{true, read.left(6)},
                           {true, read.mid(6)},
                           {false, readReply.left(3)},
                           {false, readReply.mid(3)},
                           {true, write},
                           {false, writeReply + badReply.left(1)}, // hypothetical: two in one
                           {false, badReply.mid(1)},
                           {true, bitSet}});
    QTemporaryDir home;
    const ProgramRun t =
        runTshark(pcap,
                  fieldArgs(words("xbc.command xbc.word xbc.data xbc.reply xbc.checksum.status"
                                  " xbc.response_to") +
                            dissectorErrorFields()),
                  home);
    EXPECT_EQ(t.exitCode, 0);
    EXPECT_TRUE(t.err.isEmpty()) << t.err.toStdString();
    const QStringList expected{
        QStringLiteral("1"),
        QStringLiteral("2\tr\t100\t\t\tvalid"),
        QStringLiteral("3"),
        QStringLiteral("4\t\t\t0x1234,0x0007\tACK\tvalid\t2"),
        QStringLiteral("5\tw\t10\t0x0009\t\tvalid"),
        QStringLiteral("6\t\t\t\tACK\tvalid\t5"),
        QStringLiteral("7\t\t\t\tACK\twrong\t5"),
        QStringLiteral("8\to\t35\t\t\tvalid"),
    };
    QStringList got;
    for (const QString &line : t.out.split(QLatin1Char('\n'), Qt::SkipEmptyParts)) {
        QString trimmed = line;
        while (trimmed.endsWith(QLatin1Char('\t')))
            trimmed.chop(1);
        if (!trimmed.startsWith(QLatin1String("frame.number")))
            got << trimmed;
    }
    EXPECT_EQ(got.join(QLatin1Char('\n')).toStdString(),
              expected.join(QLatin1Char('\n')).toStdString());
}

namespace {

struct OddRecord {
    const char *what;
    bool sent;
    QByteArray bytes;   // empty: a timeout record
    const char *fields; // "name=value ..." that must show; other xbc fields are not checked
};

} // namespace

// Records no driver sends and no PLC answers still decode without a Lua
// error or a malformed-packet mark, each with its own finding.
TEST(Capture, OddRecordsDecodeWithoutErrors)
{
    const QVector<OddRecord> cases{
        {"timeout before any request", false, QByteArray(), "xbc.timeout=1"},
        {"reply before any request", false, ackReply("r0000"), "xbc.unpaired=1 xbc.data=0"},
        {"lone STX", true, QByteArray(1, xbcsim::STX), "xbc.malformed=1"},
        {"STX ETX", true, QByteArray("\x02\x03"), "xbc.malformed=1"},
        {"no STX", true, QByteArray("hello\x03"), "xbc.malformed=1"},
        {"no ETX", true, request("ra" + xbcsim::hex16(0) + "0002").chopped(1), "xbc.incomplete=1"},
        {"unknown area, checksum not hex", true, QByteArray("\x02rZC8000014??\x03"),
         "xbc.area=Z xbc.checksum.status=wrong xbc.checksum.wrong=1"},
        {"address not hex", true, request("raXY000002"), "xbc.malformed=1"},
        {"mask of two bits", true, request("oi" + xbcsim::hex16(70) + "00" + xbcsim::hex16(3)),
         "xbc.mask=3 xbc.malformed=1"},
        {"clear bit 5", true, request("ni" + xbcsim::hex16(70) + "00" + xbcsim::hex16(0xFFDF)),
         "xbc.bit=5 xbc.mask=65503 xbc.command=n"},
        {"write count and length disagree", true,
         request("wa" + xbcsim::hex16(0) + "0006" + xbcsim::hex16(1)), "xbc.malformed=1"},
        {"bare ACK", false, QByteArray(1, xbcsim::ACK), "xbc.incomplete=1 xbc.length_mismatch=1"},
        {"ACK EOT", false, QByteArray("\x06\x04"), "xbc.length_mismatch=1"},
        {"four-byte reply sums nothing", false,
         QByteArray("\x06"
                    "00\x04"),
         "xbc.checksum.status=valid"},
        {"NAK with error code", false, withChecksum(xbcsim::NAK, "r05", xbcsim::EOT),
         "xbc.reply=NAK xbc.error=5 xbc.nak=1 xbc.checksum.status=valid"},
        {"binary noise", false, QByteArray("\xFF\x00\x7F\x80", 4), "xbc.malformed=1"},
        {"ACK reply data not hex", false, ackReply("rZZZZ"), "xbc.malformed=1"},
    };
    QTemporaryDir dir;
    const QString pcap = dir.filePath(QStringLiteral("odd.pcap"));
    xbchost::Capture capture;
    ASSERT_TRUE(xbchost::openCapture(capture, pcap).isEmpty());
    const xbchost::CaptureEnds serial;
    for (const OddRecord &c : cases) {
        if (c.sent)
            xbchost::recordSent(capture, serial, c.bytes);
        else if (c.bytes.isEmpty())
            xbchost::recordTimeout(capture, serial);
        else
            xbchost::recordReceived(capture, serial, c.bytes);
    }
    xbchost::closeCapture(capture);

    QVector<Record> records;
    ASSERT_TRUE(readCapture(pcap, records).isEmpty());
    ASSERT_EQ(records.size(), cases.size());
    QStringList fields;
    for (const OddRecord &c : cases)
        for (const QString &kv : QString::fromLatin1(c.fields).split(QLatin1Char(' ')))
            if (!fields.contains(kv.section(QLatin1Char('='), 0, 0)))
                fields << kv.section(QLatin1Char('='), 0, 0);
    fields << dissectorErrorFields();
    QTemporaryDir home;
    const ProgramRun t = runTshark(pcap, fieldArgs(fields), home);
    EXPECT_TRUE(t.err.isEmpty()) << t.err.toStdString();
    const QVector<Fields> shown = parseTsharkFields(t.out, fields);
    ASSERT_EQ(shown.size(), cases.size());
    for (int i = 0; i < cases.size(); ++i) {
        EXPECT_EQ(records[i].bytes, cases[i].bytes) << cases[i].what;
        EXPECT_EQ(records[i].direction, cases[i].sent ? DIRECTION_SENT : DIRECTION_RECEIVED);
        for (const QString &error : dissectorErrorFields())
            EXPECT_FALSE(shown[i].contains(error)) << cases[i].what << ": " << error.toStdString();
        for (const QString &kv : QString::fromLatin1(cases[i].fields).split(QLatin1Char(' ')))
            EXPECT_EQ(shown[i].value(kv.section(QLatin1Char('='), 0, 0)).toStdString(),
                      kv.section(QLatin1Char('='), 1).toStdString())
                << cases[i].what;
    }
}
