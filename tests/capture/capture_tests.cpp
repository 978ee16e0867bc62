// Captures decoded by tshark with the dissector and compared with fixed
// expected frames: xbc-host --capture against xbc-plc-sim (its seeded faults
// make a run repeat frame for frame), a TCP stream cut into segments, and
// records no driver sends.
#include "capture.h"
#include "sim_process.h"
#include "xbc_sim.h"

#include <QFile>
#include <QRegularExpression>
#include <QTemporaryDir>

#include <gtest/gtest.h>

namespace {

enum { RUN_TIMEOUT_MS = 60000 };

QStringList words(const char *s)
{
    return QString::fromLatin1(s).split(QLatin1Char(' '), Qt::SkipEmptyParts);
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
    if (!p.waitForFinished(RUN_TIMEOUT_MS)) {
        p.kill();
        p.waitForFinished();
        r.err = QStringLiteral("%1 did not run to its end").arg(program);
        return r;
    }
    r.exitCode = p.exitStatus() == QProcess::NormalExit ? p.exitCode() : -1;
    r.out = QString::fromLocal8Bit(p.readAllStandardOutput());
    r.err = QString::fromLocal8Bit(p.readAllStandardError());
    return r;
}

// Marks of a dissector that failed: a Lua error, an exception, a bug report.
const char *const ERROR_FIELDS = "_ws.lua.error _ws.malformed.expert _ws.malformed.dissector_bug";
// What a frame of a real run is compared on.
const char *const RUN_FIELDS = "xbc.command xbc.area xbc.word xbc.count xbc.data xbc.mask xbc.bit"
                               " xbc.checksum.status xbc.reply xbc.error xbc.response_to"
                               " xbc.timeout xbc.length_mismatch xbc.incomplete";

// One line per frame: "name=value" of every field shown ("xbc." left out),
// in the order asked for. Records that tshark or the dissector could not
// take fail the test.
QStringList decodedFrames(const QString &pcap, const QString &fields)
{
    QTemporaryDir home; // nothing of the user's set-up, no installed dissector
    QProcessEnvironment env = QProcessEnvironment::systemEnvironment();
    env.insert(QStringLiteral("HOME"), home.path());
    env.insert(QStringLiteral("XDG_CONFIG_HOME"), home.path());
    const QStringList names = words("xbc.direction") + fields.split(QLatin1Char(' '));
    QStringList args{QStringLiteral("-r"), pcap, QStringLiteral("-X"),
                     QStringLiteral("lua_script:" XBC_DISSECTOR_PATH)};
    args << words("-T fields -E occurrence=a -E aggregator=,");
    for (const QString &n : names + words(ERROR_FIELDS))
        args << QStringLiteral("-e") << n;
    const ProgramRun t = runProgram(QStringLiteral(XBC_TSHARK_PATH), args, env);
    EXPECT_EQ(t.exitCode, 0) << t.err.toStdString();
    for (const QString &line : t.err.split(QLatin1Char('\n'), Qt::SkipEmptyParts))
        EXPECT_TRUE(line.startsWith(QLatin1String("Running as user"))) << line.toStdString();
    QStringList frames;
    for (const QString &line : t.out.split(QLatin1Char('\n'), Qt::SkipEmptyParts)) {
        const QStringList cells = line.split(QLatin1Char('\t'));
        for (int i = names.size(); i < cells.size(); ++i)
            EXPECT_TRUE(cells[i].isEmpty()) << "frame " << frames.size() + 1 << ": dissector error";
        QStringList shown;
        for (int i = 0; i < names.size() && i < cells.size(); ++i)
            if (!cells[i].isEmpty())
                shown << names[i].section(QLatin1Char('.'), 1) + QLatin1Char('=') + cells[i];
        frames << shown.join(QLatin1Char(' '));
    }
    return frames;
}

// A run of xbc-host against the simulator, frame by frame as it starts.
struct CaptureRun {
    const char *name;
    bool pty;
    bool writeFails; // xbc-host may exit 1 for it
    const char *simArgs;
    const char *hostArgs;
    std::vector<const char *> firstFrames;
};

const CaptureRun RUNS[] = {
    {"Tcp",
     false,
     false,
     "--set D_W:100=1000 --set D_W:101=2000 --set TX:7=1",
     "--watch D_W:100:3 --watch M_bit:35.3 --watch TX:7 --write D_W:100=1234,5"
     " --write M_bit:35.3=1 --duration 0.5",
     {
         "direction=0 command=r area=i word=35 count=2 checksum.status=valid",
         "direction=1 data=0x0000 checksum.status=valid reply=ACK response_to=1",
         "direction=0 command=r area=a word=100 count=6 checksum.status=valid",
         "direction=1 data=0x03e8,0x07d0,0x0000 checksum.status=valid reply=ACK response_to=3",
         "direction=0 command=r area=l word=0 count=2 checksum.status=valid",
         "direction=1 data=0x0080 checksum.status=valid reply=ACK response_to=5",
         // The writes once the first poll cycle is done.
         "direction=0 command=w area=a word=100 count=4 data=0x04d2,0x0005 checksum.status=valid",
         "direction=1 checksum.status=valid reply=ACK response_to=7",
         "direction=0 command=o area=i word=35 mask=0x0008 bit=3 checksum.status=valid",
         "direction=1 checksum.status=valid reply=ACK response_to=9",
         "direction=0 command=r area=i word=35 count=2 checksum.status=valid",
         "direction=1 data=0x0008 checksum.status=valid reply=ACK response_to=11",
         "direction=0 command=r area=a word=100 count=6 checksum.status=valid",
         "direction=1 data=0x04d2,0x0005,0x0000 checksum.status=valid reply=ACK response_to=13",
     }},
    {"TcpFaults",
     false,
     true,
     "--faults drop=10,corrupt=15,truncate=10,seed=3 --set D_W:1=4660 --set M_W:2=2",
     "--watch D_W:0:4 --watch M_bit:2.1 --write D_W:3=7 --duration 2",
     {
         "direction=0 command=r area=i word=2 count=2 checksum.status=valid",
         "direction=1 data=0x0d02 checksum.status=wrong reply=ACK response_to=1",
         "direction=0 command=r area=i word=2 count=2 checksum.status=valid",
         "direction=1 data=0x0002 checksum.status=valid reply=ACK response_to=3",
         "direction=0 command=r area=a word=0 count=8 checksum.status=valid",
         "direction=1 data=0x0000,0x1234,0x0000,0x0000 checksum.status=valid reply=ACK"
         " response_to=5",
         // The write: its reply dropped, then cut short twice; it is abandoned,
         // and the PLC holds it all the same.
         "direction=0 command=w area=a word=3 count=2 data=0x0007 checksum.status=valid",
         "direction=1 response_to=7 timeout=1",
         "direction=0 command=w area=a word=3 count=2 data=0x0007 checksum.status=valid",
         "direction=1 reply=ACK response_to=9 length_mismatch=1 incomplete=1",
         "direction=0 command=w area=a word=3 count=2 data=0x0007 checksum.status=valid",
         "direction=1 reply=ACK response_to=11 length_mismatch=1 incomplete=1",
         "direction=0 command=r area=i word=2 count=2 checksum.status=valid",
         "direction=1 data=0x0002 checksum.status=valid reply=ACK response_to=13",
         "direction=0 command=r area=a word=0 count=8 checksum.status=valid",
         "direction=1 data=0x0000,0x1234,0x0000,0x0007 checksum.status=valid reply=ACK"
         " response_to=15",
     }},
    {"Pty",
     true,
     false,
     "--set D_W:0=77",
     "--watch D_W:0:2 --write D_W:1=7 --duration 1",
     {
         "direction=0 command=r area=a word=0 count=4 checksum.status=valid",
         "direction=1 data=0x004d,0x0000 checksum.status=valid reply=ACK response_to=1",
         "direction=0 command=w area=a word=1 count=2 data=0x0007 checksum.status=valid",
         "direction=1 checksum.status=valid reply=ACK response_to=3",
         "direction=0 command=r area=a word=0 count=4 checksum.status=valid",
         "direction=1 data=0x004d,0x0007 checksum.status=valid reply=ACK response_to=5",
     }},
};

class CaptureOfRun : public ::testing::TestWithParam<CaptureRun> {};

} // namespace

TEST_P(CaptureOfRun, DecodesAsExpected)
{
    const CaptureRun &run = GetParam();
    QTemporaryDir dir;
    const QString pcap = dir.filePath(QStringLiteral("run.pcap"));
    xbctest::SimProcess sim;
    sim.program = QStringLiteral(XBC_SIM_PATH);
    sim.args = words(run.simArgs);
    sim.pty = run.pty;
    QString error;
    ASSERT_TRUE(xbctest::startSim(sim, &error)) << error.toStdString();
    const QStringList link = run.pty ? QStringList{QStringLiteral("--serial"), sim.ptyPath}
                                     : QStringList{QStringLiteral("--tcp"),
                                                   QStringLiteral("127.0.0.1:%1").arg(sim.port)};
    const ProgramRun host =
        runProgram(QStringLiteral(XBC_HOST_PATH),
                   link + words("--capture") + QStringList{pcap} + words(run.hostArgs));
    xbctest::stopSim(sim);
    ASSERT_TRUE(host.exitCode == 0 || (run.writeFails && host.exitCode == 1))
        << host.out.toStdString() << host.err.toStdString();

    const QStringList frames = decodedFrames(pcap, QLatin1String(RUN_FIELDS));
    ASSERT_GE(frames.size(), int(run.firstFrames.size()));
    for (int i = 0; i < int(run.firstFrames.size()); ++i)
        EXPECT_EQ(frames[i].toStdString(), run.firstFrames[i]) << "frame " << i + 1;
    // Every frame the host sent is in the capture.
    const QRegularExpressionMatch sent =
        QRegularExpression(QStringLiteral("summary: frames sent (\\d+)")).match(host.out);
    EXPECT_EQ(frames.filter(QRegularExpression(QStringLiteral("^direction=0 "))).size(),
              sent.captured(1).toInt())
        << host.out.toStdString();
    // Every record is the dissector's; on a TCP link it names the
    // simulator's port at the PLC's end; a serial line has no ports.
    const QStringList ends = decodedFrames(
        pcap, QStringLiteral("exported_pdu.prot_name exported_pdu.src_port exported_pdu.dst_port"));
    for (const QString &e : ends) {
        const bool toPlc = e.startsWith(QLatin1String("direction=0"));
        const QString plcEnd =
            run.pty ? QStringLiteral("prot_name=xbc")
                    : QStringLiteral("%1=%2")
                          .arg(toPlc ? QStringLiteral("dst_port") : QStringLiteral("src_port"))
                          .arg(sim.port);
        const QStringList shown = e.split(QLatin1Char(' '));
        EXPECT_TRUE(shown.contains(QStringLiteral("prot_name=xbc"))) << e.toStdString();
        EXPECT_TRUE(shown.contains(plcEnd)) << e.toStdString();
        EXPECT_EQ(e.contains(QLatin1String("_port=")), !run.pty) << e.toStdString();
    }
}

INSTANTIATE_TEST_SUITE_P(Runs, CaptureOfRun, ::testing::ValuesIn(RUNS),
                         [](const ::testing::TestParamInfo<CaptureRun> &info) {
                             return std::string(info.param.name);
                         });

namespace {

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

// One TCP segment between the panel and the PLC on port 8000.
struct Segment {
    bool toPlc = true;
    QByteArray payload;
};

// The segments a second apart, with IPv4 and TCP headers made up by
// text2pcap.
void writeTcpCapture(const QString &path, const QVector<Segment> &segments)
{
    QTemporaryDir dir;
    QFile text(dir.filePath(QStringLiteral("segments.txt")));
    ASSERT_TRUE(text.open(QIODevice::WriteOnly));
    int second = 0;
    for (const Segment &s : segments)
        text.write(
            QStringLiteral("%1 %2.0\n0000 ").arg(s.toPlc ? 'O' : 'I').arg(++second).toLatin1() +
            s.payload.toHex(' ') + '\n');
    text.close();
    const ProgramRun r = runProgram(QStringLiteral(XBC_TEXT2PCAP_PATH),
                                    words("-q -D -4 127.0.0.1,127.0.0.1 -T 8000,40000 -t %s.") +
                                        QStringList{text.fileName(), path});
    ASSERT_EQ(r.exitCode, 0) << r.err.toStdString();
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
    // Segments that complete no frame show only their TCP layers.
    const QStringList frames = decodedFrames(pcap, QStringLiteral("xbc.command xbc.word xbc.data"
                                                                  " xbc.reply xbc.checksum.status"
                                                                  " xbc.response_to"
                                                                  " xbc.response_time"));
    const QStringList expected{
        QString(),
        QStringLiteral("direction=0 command=r word=100 checksum.status=valid"),
        QString(),
        QStringLiteral("direction=1 data=0x1234,0x0007 reply=ACK checksum.status=valid "
                       "response_to=2 response_time=2.000000000"),
        QStringLiteral("direction=0 command=w word=10 data=0x0009 checksum.status=valid"),
        QStringLiteral("direction=1 reply=ACK checksum.status=valid response_to=5 "
                       "response_time=1.000000000"),
        QStringLiteral("direction=1 reply=ACK checksum.status=wrong response_to=5 "
                       "response_time=2.000000000"),
        QStringLiteral("direction=0 command=o word=35 checksum.status=valid"),
    };
    EXPECT_EQ(frames.join(QLatin1Char('\n')).toStdString(),
              expected.join(QLatin1Char('\n')).toStdString());
}

namespace {

struct OddRecord {
    const char *what;
    bool sent;
    QByteArray bytes;   // empty: a timeout record
    const char *fields; // "name=value ..." that must show; other fields are not checked
};

} // namespace

// Records no driver sends and no PLC answers still decode without a Lua
// error or a malformed-packet mark, each with its own finding.
TEST(Capture, OddRecordsDecodeWithoutErrors)
{
    const QVector<OddRecord> cases{
        {"timeout before any request", false, QByteArray(), "timeout=1"},
        {"reply before any request", false, ackReply("r0000"), "data=0x0000 unpaired=1"},
        {"lone STX", true, QByteArray(1, xbcsim::STX), "malformed=1"},
        {"STX ETX", true, QByteArray("\x02\x03"), "malformed=1"},
        {"no STX", true, QByteArray("hello\x03"), "malformed=1"},
        {"no ETX", true, request("ra" + xbcsim::hex16(0) + "0002").chopped(1), "incomplete=1"},
        {"unknown area, checksum not hex", true, QByteArray("\x02rZC8000014??\x03"),
         "area=Z checksum.status=wrong checksum.wrong=1"},
        {"address not hex", true, request("raXY000002"), "malformed=1"},
        {"mask of two bits", true, request("oi" + xbcsim::hex16(70) + "00" + xbcsim::hex16(3)),
         "mask=0x0003 malformed=1"},
        {"clear bit 5", true, request("ni" + xbcsim::hex16(70) + "00" + xbcsim::hex16(0xFFDF)),
         "command=n mask=0xffdf bit=5"},
        {"write count and length disagree", true,
         request("wa" + xbcsim::hex16(0) + "0006" + xbcsim::hex16(1)), "malformed=1"},
        {"bare ACK", false, QByteArray(1, xbcsim::ACK), "length_mismatch=1 incomplete=1"},
        {"ACK EOT", false, QByteArray("\x06\x04"), "length_mismatch=1"},
        {"four-byte reply sums nothing", false,
         QByteArray("\x06"
                    "00\x04"),
         "checksum.status=valid"},
        {"NAK with error code", false, withChecksum(xbcsim::NAK, "r05", xbcsim::EOT),
         "checksum.status=valid reply=NAK error=0x05 nak=1"},
        {"binary noise", false, QByteArray("\xFF\x00\x7F\x80", 4), "malformed=1"},
        {"ACK reply data not hex", false, ackReply("rZZZZ"), "malformed=1"},
    };
    QTemporaryDir dir;
    const QString pcap = dir.filePath(QStringLiteral("odd.pcap"));
    xbctrace::Capture capture;
    ASSERT_TRUE(xbctrace::openCapture(capture, pcap).isEmpty());
    const xbctrace::CaptureEnds serial;
    for (const OddRecord &c : cases) {
        if (c.sent)
            xbctrace::recordSent(capture, serial, c.bytes);
        else if (c.bytes.isEmpty())
            xbctrace::recordTimeout(capture, serial);
        else
            xbctrace::recordReceived(capture, serial, c.bytes);
    }
    xbctrace::closeCapture(capture);

    const QStringList frames = decodedFrames(
        pcap, QStringLiteral("xbc.command xbc.area xbc.data xbc.mask xbc.bit xbc.checksum.status"
                             " xbc.checksum.wrong xbc.reply xbc.error xbc.timeout xbc.unpaired"
                             " xbc.nak xbc.malformed xbc.length_mismatch xbc.incomplete"));
    ASSERT_EQ(frames.size(), cases.size());
    for (int i = 0; i < cases.size(); ++i) {
        const QString direction =
            cases[i].sent ? QStringLiteral("direction=0") : QStringLiteral("direction=1");
        EXPECT_TRUE(frames[i].startsWith(direction)) << cases[i].what;
        for (const QString &kv : words(cases[i].fields))
            EXPECT_TRUE(frames[i].split(QLatin1Char(' ')).contains(kv))
                << cases[i].what << ": " << kv.toStdString() << " not in "
                << frames[i].toStdString();
    }
}
