// The relay: both sides on TCP (listening for the runtime, connecting to the
// PLC) or both on serial devices. Every read is forwarded at once; the
// capture and the counts come after.
//
// Over TCP the PLC connection follows the runtime's: a runtime that connects
// gets a fresh connection to the PLC, and when either side drops, the other
// is closed too, so each sees the drop it would see without the tap. Serial
// devices that fail are reopened until they come back.
#include "tap.h"

#include <QCoreApplication>
#include <QDateTime>
#include <QSerialPort>
#include <QTcpServer>
#include <QTcpSocket>
#include <QTimer>

#include <csignal>
#include <cstdio>
#include <memory>
#include <unistd.h>

namespace xbctap {

namespace {

enum {
    STOP_CHECK_MS = 100,
    SUMMARY_TTY_MS = 250,    // live line on a terminal
    SUMMARY_PLAIN_MS = 5000, // a line now and then when stderr is a file
    REOPEN_MS = 1000,
    EXIT_OK = 0,
    EXIT_FAILED = 1,
};

volatile std::sig_atomic_t stopRequested = 0;

void onSignal(int)
{
    stopRequested = 1;
}

struct Relay {
    TapConfig config;
    Exchanges ex;
    xbctrace::Capture capture;
    QObject owner;
    QTimer replyTimer;
    bool liveLineShown = false;
    QString lastSummary;
    // TCP
    QTcpServer *server = nullptr;
    QTcpSocket *runtime = nullptr;
    QTcpSocket *plc = nullptr;
    bool plcUp = false;
    QByteArray toPlcPending; // runtime bytes before the PLC connection is up
    // serial
    QSerialPort *runtimeSerial = nullptr;
    QSerialPort *plcSerial = nullptr;
};

bool stderrIsTerminal()
{
    static const bool tty = ::isatty(STDERR_FILENO) == 1;
    return tty;
}

void clearLiveLine(Relay &r)
{
    if (r.liveLineShown)
        std::fputs("\r\033[K", stderr);
    r.liveLineShown = false;
}

// Events with their time, on stderr, above the live line.
void say(Relay &r, const QString &text)
{
    clearLiveLine(r);
    const QString stamp = QTime::currentTime().toString(QStringLiteral("HH:mm:ss.zzz"));
    std::fprintf(stderr, "%s xbc-tap: %s\n", stamp.toLocal8Bit().constData(),
                 text.toLocal8Bit().constData());
    std::fflush(stderr);
}

void showSummary(Relay &r)
{
    if (r.config.quiet)
        return;
    const QString text = countsText(r.ex.counts);
    if (stderrIsTerminal()) {
        std::fprintf(stderr, "\r\033[K%s", text.toLocal8Bit().constData());
        r.liveLineShown = true;
    } else if (text != r.lastSummary) {
        std::fprintf(stderr, "%s\n", text.toLocal8Bit().constData());
    }
    std::fflush(stderr);
    r.lastSummary = text;
}

void writeNow(QIODevice *device, const QByteArray &bytes)
{
    device->write(bytes);
    if (auto *socket = qobject_cast<QTcpSocket *>(device))
        socket->flush();
    else if (auto *port = qobject_cast<QSerialPort *>(device))
        port->flush();
}

// Runtime bytes go to the PLC and then into the capture. Over TCP, bytes that
// come before the PLC connection is up wait for it; a serial line that is
// down loses them, as the cable would.
void fromRuntime(Relay &r, const QByteArray &bytes, QIODevice *plc)
{
    if (!plc) {
        if (!r.config.serial)
            r.toPlcPending += bytes;
        return;
    }
    writeNow(plc, bytes);
    if (takeRuntimeBytes(r.ex, bytes) > 0)
        r.replyTimer.start(r.config.replyTimeoutMs);
}

void fromPlc(Relay &r, const QByteArray &bytes, QIODevice *runtime)
{
    if (runtime)
        writeNow(runtime, bytes);
    takePlcBytes(r.ex, bytes);
    if (!r.ex.awaitingReply)
        r.replyTimer.stop();
}

void endExchange(Relay &r)
{
    r.replyTimer.stop();
    endAwaitedReply(r.ex);
    r.ex.request.clear();
}

// ---------------------------------------------------------------------------
// TCP.

QString peerText(const QTcpSocket *s)
{
    return QStringLiteral("%1:%2").arg(s->peerAddress().toString()).arg(s->peerPort());
}

void dropTcpPair(Relay &r)
{
    endExchange(r);
    r.toPlcPending.clear();
    r.plcUp = false;
    for (QTcpSocket **s : {&r.runtime, &r.plc}) {
        if (!*s)
            continue;
        (*s)->disconnect(&r.owner);
        (*s)->abort();
        (*s)->deleteLater();
        *s = nullptr;
    }
}

void plcConnected(Relay &r)
{
    r.plc->setSocketOption(QAbstractSocket::LowDelayOption, 1);
    r.plcUp = true;
    say(r, QStringLiteral("PLC connected at %1").arg(peerText(r.plc)));
    r.ex.ends.tcp = true;
    r.ex.ends.hostAddress = r.runtime->peerAddress();
    r.ex.ends.hostPort = r.runtime->peerPort();
    r.ex.ends.plcAddress = r.plc->peerAddress();
    r.ex.ends.plcPort = r.plc->peerPort();
    const QByteArray pending = r.toPlcPending;
    r.toPlcPending.clear();
    if (!pending.isEmpty())
        fromRuntime(r, pending, r.plc);
}

void connectPlc(Relay &r)
{
    r.plc = new QTcpSocket();
    QTcpSocket *plc = r.plc;
    QObject::connect(plc, &QTcpSocket::connected, &r.owner, [&r]() { plcConnected(r); });
    QObject::connect(plc, &QTcpSocket::readyRead, &r.owner,
                     [&r, plc]() { fromPlc(r, plc->readAll(), r.runtime); });
    auto lost = [&r, plc]() {
        if (r.plc != plc)
            return;
        say(r, r.plcUp ? QStringLiteral("PLC link lost (%1); closing the runtime's connection")
                             .arg(plc->errorString())
                       : QStringLiteral("cannot connect to the PLC at %1:%2: %3; closing the "
                                        "runtime's connection")
                             .arg(r.config.plc.host)
                             .arg(r.config.plc.port)
                             .arg(plc->errorString()));
        dropTcpPair(r);
    };
    QObject::connect(plc, &QTcpSocket::disconnected, &r.owner, lost);
    QObject::connect(plc, &QAbstractSocket::errorOccurred, &r.owner, lost);
    r.plcUp = false;
    plc->connectToHost(r.config.plc.host, r.config.plc.port);
}

void acceptRuntime(Relay &r)
{
    while (QTcpSocket *s = r.server->nextPendingConnection()) {
        if (r.runtime) {
            say(r, QStringLiteral("a new runtime connection from %1 replaces %2")
                       .arg(peerText(s), peerText(r.runtime)));
            dropTcpPair(r);
        }
        s->setParent(nullptr);
        r.runtime = s;
        s->setSocketOption(QAbstractSocket::LowDelayOption, 1);
        say(r, QStringLiteral("runtime connected from %1").arg(peerText(s)));
        QObject::connect(s, &QTcpSocket::readyRead, &r.owner,
                         [&r, s]() { fromRuntime(r, s->readAll(), r.plcUp ? r.plc : nullptr); });
        QObject::connect(s, &QTcpSocket::disconnected, &r.owner, [&r, s]() {
            if (r.runtime != s)
                return;
            say(r, QStringLiteral("runtime disconnected; closing the PLC connection"));
            dropTcpPair(r);
        });
        connectPlc(r);
    }
}

QString startTcp(Relay &r)
{
    r.server = new QTcpServer(&r.owner);
    QObject::connect(r.server, &QTcpServer::newConnection, &r.owner, [&r]() { acceptRuntime(r); });
    const QHostAddress address(r.config.listen.host);
    if (address.isNull())
        return QStringLiteral("--listen: '%1' is not an IP address").arg(r.config.listen.host);
    if (!r.server->listen(address, r.config.listen.port))
        return QStringLiteral("cannot listen on %1:%2: %3")
            .arg(r.config.listen.host)
            .arg(r.config.listen.port)
            .arg(r.server->errorString());
    // The same line xbc-plc-sim prints, so scripts find the port the same way.
    const QString where = address.protocol() == QAbstractSocket::IPv6Protocol
                              ? QStringLiteral("[%1]").arg(address.toString())
                              : address.toString();
    std::fprintf(stdout, "tcp %s:%u\n", where.toLocal8Bit().constData(),
                 unsigned(r.server->serverPort()));
    std::fflush(stdout);
    return QString();
}

// ---------------------------------------------------------------------------
// Serial.

QString openPort(Relay &r, QSerialPort &port)
{
    const SerialLine &line = r.config.line;
    if (!port.open(QIODevice::ReadWrite))
        return QStringLiteral("cannot open %1: %2").arg(port.portName(), port.errorString());
    if (!(port.setBaudRate(line.baud) && port.setDataBits(line.dataBits) &&
          port.setParity(line.parity) && port.setStopBits(line.stopBits) &&
          port.setFlowControl(QSerialPort::NoFlowControl))) {
        const QString reason = port.errorString();
        port.close();
        return QStringLiteral("cannot set the line settings on %1: %2")
            .arg(port.portName(), reason);
    }
    return QString();
}

void reopenLater(Relay &r, QSerialPort *port, const QString &side)
{
    QTimer::singleShot(REOPEN_MS, &r.owner, [&r, port, side]() {
        if (port->isOpen())
            return;
        if (openPort(r, *port).isEmpty())
            say(r, QStringLiteral("%1 line %2 open again").arg(side, port->portName()));
        else
            reopenLater(r, port, side);
    });
}

QSerialPort *makePort(Relay &r, const QString &device, const QString &side)
{
    auto *port = new QSerialPort(device, &r.owner);
    QObject::connect(port, &QSerialPort::errorOccurred, &r.owner,
                     [&r, port, side](QSerialPort::SerialPortError e) {
                         if (e == QSerialPort::NoError || e == QSerialPort::TimeoutError ||
                             !port->isOpen())
                             return;
                         say(r, QStringLiteral("%1 line %2 lost: %3; reopening every %4 ms")
                                    .arg(side, port->portName(), port->errorString())
                                    .arg(REOPEN_MS));
                         endExchange(r);
                         port->close();
                         reopenLater(r, port, side);
                     });
    return port;
}

QString startSerial(Relay &r)
{
    r.runtimeSerial = makePort(r, r.config.runtimeDevice, QStringLiteral("runtime"));
    r.plcSerial = makePort(r, r.config.plcDevice, QStringLiteral("PLC"));
    for (QSerialPort *port : {r.runtimeSerial, r.plcSerial}) {
        const QString error = openPort(r, *port);
        if (!error.isEmpty())
            return error;
    }
    QSerialPort *rt = r.runtimeSerial;
    QSerialPort *plc = r.plcSerial;
    QObject::connect(rt, &QSerialPort::readyRead, &r.owner, [&r, rt, plc]() {
        fromRuntime(r, rt->readAll(), plc->isOpen() ? plc : nullptr);
    });
    QObject::connect(plc, &QSerialPort::readyRead, &r.owner,
                     [&r, rt, plc]() { fromPlc(r, plc->readAll(), rt->isOpen() ? rt : nullptr); });
    std::fprintf(stdout, "serial %s <-> %s\n", r.config.runtimeDevice.toLocal8Bit().constData(),
                 r.config.plcDevice.toLocal8Bit().constData());
    std::fflush(stdout);
    return QString();
}

void startTimers(Relay &r)
{
    r.replyTimer.setSingleShot(true);
    QObject::connect(&r.replyTimer, &QTimer::timeout, &r.owner, [&r]() { endAwaitedReply(r.ex); });
    auto *stopCheck = new QTimer(&r.owner);
    QObject::connect(stopCheck, &QTimer::timeout, &r.owner, []() {
        if (stopRequested)
            QCoreApplication::quit();
    });
    stopCheck->start(STOP_CHECK_MS);
    auto *summary = new QTimer(&r.owner);
    QObject::connect(summary, &QTimer::timeout, &r.owner, [&r]() { showSummary(r); });
    summary->start(stderrIsTerminal() ? SUMMARY_TTY_MS : SUMMARY_PLAIN_MS);
    if (r.config.durationSeconds > 0)
        QTimer::singleShot(int(r.config.durationSeconds * 1000), &r.owner, &QCoreApplication::quit);
}

} // namespace

int runTap(const TapConfig &config)
{
    Relay r;
    r.config = config;
    if (!config.capturePath.isEmpty()) {
        const QString error = xbctrace::openCapture(r.capture, config.capturePath);
        if (!error.isEmpty()) {
            say(r, error);
            return EXIT_FAILED;
        }
        r.ex.capture = &r.capture;
    }
    const QString error = config.serial ? startSerial(r) : startTcp(r);
    if (!error.isEmpty()) {
        say(r, error);
        return EXIT_FAILED;
    }
    std::signal(SIGINT, onSignal);
    std::signal(SIGTERM, onSignal);
    startTimers(r);
    QCoreApplication::exec();
    if (!config.serial)
        dropTcpPair(r);
    QCoreApplication::sendPostedEvents(nullptr, QEvent::DeferredDelete); // the dropped sockets
    endExchange(r);
    clearLiveLine(r);
    std::fprintf(stdout, "%s\n", countsText(r.ex.counts).toLocal8Bit().constData());
    std::fflush(stdout);
    xbctrace::closeCapture(r.capture);
    return EXIT_OK;
}

} // namespace xbctap
