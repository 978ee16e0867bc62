// End to end: the runtime stand-in's loop against the simulator program over
// TCP on 127.0.0.1, as fast as the link answers. The driver's two calls of each
// exchange are timed, so the share of the exchange spent in the driver shows
// next to the rate.
#ifdef XBC_BENCH_LOOPBACK

#include "bench_support.h"
#include "xbc_host.h"

#include <benchmark/benchmark.h>

#include <QProcess>
#include <QRegularExpression>

#include <chrono>
#include <memory>

namespace xbcbench {

namespace {

using Clock = std::chrono::steady_clock;

long long driverNs = 0;

long long nsSince(Clock::time_point t0)
{
    return std::chrono::duration_cast<std::chrono::nanoseconds>(Clock::now() - t0).count();
}

int timedGetSendFrame(FRAME_PRO *out)
{
    const auto t0 = Clock::now();
    const int r = intf_getSendFrame(out);
    driverNs += nsSince(t0);
    return r;
}

int timedDealRcvFrame(QByteArray &reply, QString &errorText)
{
    const auto t0 = Clock::now();
    const int r = intf_dealRcvFrame(reply, errorText);
    driverNs += nsSince(t0);
    return r;
}

// The driver is linked in (the same objects as the shared library); the two
// calls of the loop go through the timing wrappers.
void bindDriver(xbchost::DriverApi &api)
{
#define XBC_BIND(name) api.name = &intf_##name;
    XBC_FOR_EACH_EXPORTED_FUNCTION(XBC_BIND)
#undef XBC_BIND
    api.getSendFrame = &timedGetSendFrame;
    api.dealRcvFrame = &timedDealRcvFrame;
    api.driver = &driver;
}

struct Loopback {
    QProcess sim;
    std::unique_ptr<xbchost::Host> host;
    QString error;
};

Loopback *loopback = nullptr;

// Starts xbc-plc-sim on a free loopback port and connects a host to it, once.
Loopback &theLoopback()
{
    if (loopback != nullptr)
        return *loopback;
    loopback = new Loopback;
    Loopback &lb = *loopback;
    lb.sim.setProgram(QStringLiteral(XBC_SIM_PROGRAM));
    lb.sim.setArguments({QStringLiteral("--port"), QStringLiteral("0")});
    lb.sim.setProcessChannelMode(QProcess::SeparateChannels);
    lb.sim.start();
    if (!lb.sim.waitForStarted(5000)) {
        lb.error = QStringLiteral("cannot start %1").arg(lb.sim.program());
        return lb;
    }
    QByteArray out;
    const QRegularExpression portLine(QStringLiteral("tcp 127\\.0\\.0\\.1:(\\d+)"));
    QRegularExpressionMatch m;
    for (int i = 0; i < 50 && !(m = portLine.match(QString::fromLatin1(out))).hasMatch(); ++i) {
        lb.sim.waitForReadyRead(100);
        out += lb.sim.readAllStandardOutput();
    }
    if (!m.hasMatch()) {
        lb.error = QStringLiteral("the simulator did not report its port");
        return lb;
    }
    lb.host = std::make_unique<xbchost::Host>();
    xbchost::Host &host = *lb.host;
    bindDriver(host.api);
    host.config.properties = QStringLiteral("1#0#0#3#127");
    host.config.stationNo = 1;
    host.config.replyTimeoutMs = 500;
    host.config.cycleFloorMs = 0; // as fast as the link answers
    host.config.print = [](const QString &) {};
    host.link.config.kind = xbchost::LinkConfig::Tcp;
    host.link.config.host = QStringLiteral("127.0.0.1");
    host.link.config.port = quint16(m.captured(1).toUInt());
    return lb;
}

// Exchanges of one read block of `words` D_W words, polled as fast as replies
// come. Counters: exchanges per second, the driver's share of the wall time,
// and the driver's time per exchange.
void BM_LoopbackExchange(benchmark::State &state)
{
    const int words = int(state.range(0));
    Loopback &lb = theLoopback();
    if (!lb.error.isEmpty()) {
        state.SkipWithError(lb.error.toLocal8Bit().constData());
        return;
    }
    xbchost::Host &host = *lb.host;
    host.keys.clear();
    host.keys.append(watchKey(1, "D_W", 0, words, false));
    xbchost::startRun(host);
    if (host.readBlocks != 1 || !xbchost::ensureLink(host)) {
        state.SkipWithError("no read block or no link");
        return;
    }
    for (int i = 0; i < 200; ++i) // warm up: records made, socket settled
        xbchost::exchangeOnce(host);
    const int goodBefore = host.stats.goodReplies;
    driverNs = 0;
    const auto t0 = Clock::now();
    for (auto _ : state) {
        if (xbchost::exchangeOnce(host) != xbchost::Step::Exchanged) {
            state.SkipWithError("exchange failed");
            break;
        }
    }
    const double wallNs = double(nsSince(t0));
    const double n = double(state.iterations());
    state.counters["exchanges_per_s"] = benchmark::Counter(n, benchmark::Counter::kIsRate);
    state.counters["driver_share"] = wallNs > 0 ? double(driverNs) / wallNs : 0.0;
    state.counters["driver_us_per_exch"] = n > 0 ? double(driverNs) / n / 1e3 : 0.0;
    state.counters["good_replies"] = host.stats.goodReplies - goodBefore;
}
BENCHMARK(BM_LoopbackExchange)
    ->Arg(1)
    ->Arg(127)
    ->MinTime(2.0)
    ->UseRealTime()
    ->Unit(benchmark::kMicrosecond);

} // namespace

void shutdownLoopback()
{
    if (loopback == nullptr)
        return;
    if (loopback->host)
        xbchost::closeLink(*loopback->host);
    loopback->host.reset();
    if (loopback->sim.state() != QProcess::NotRunning) {
        loopback->sim.terminate();
        if (!loopback->sim.waitForFinished(3000)) {
            loopback->sim.kill();
            loopback->sim.waitForFinished(3000);
        }
    }
    delete loopback;
    loopback = nullptr;
}

} // namespace xbcbench

#endif
