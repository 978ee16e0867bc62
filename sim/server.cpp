// The simulator on real links: a TCP server on loopback and the master side
// of a pseudo-terminal, both driven by the event loop of the starting thread.
#include "frame_text.h"
#include "xbc_sim.h"

#include <QHostAddress>
#include <QMutexLocker>
#include <QObject>
#include <QSocketNotifier>
#include <QTcpServer>
#include <QTcpSocket>
#include <QTimer>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <fcntl.h>
#include <memory>
#include <pty.h>
#include <termios.h>
#include <unistd.h>

namespace xbcsim {

namespace {

void traceLine(Simulator &sim, const QString &line)
{
    if (!sim.trace)
        return;
    if (sim.traceSink)
        sim.traceSink(line);
    else
        std::fprintf(stderr, "%s\n", line.toLocal8Bit().constData());
}

QObject *ownerOf(Simulator &sim)
{
    if (!sim.owner)
        sim.owner = new QObject();
    return sim.owner;
}

// Sends reply chunks now or after the configured delay. The target may be
// gone by then; the guard object drops the send with it.
void sendChunks(Simulator &sim, QObject *guard, const QList<QByteArray> &chunks,
                const std::function<void(const QByteArray &)> &send)
{
    int delay = 0;
    {
        QMutexLocker locker(&sim.lock);
        delay = sim.faults.config.delayMs;
    }
    if (delay <= 0) {
        for (const QByteArray &c : chunks)
            send(c);
        return;
    }
    QTimer::singleShot(delay, guard, [chunks, send]() {
        for (const QByteArray &c : chunks)
            send(c);
    });
}

void writeAllToFd(int fd, const QByteArray &bytes)
{
    int done = 0;
    int spins = 0;
    while (done < bytes.size() && spins < 1000) {
        const ssize_t n = ::write(fd, bytes.constData() + done, size_t(bytes.size() - done));
        if (n > 0) {
            done += int(n);
        } else if (n < 0 && errno != EAGAIN && errno != EINTR) {
            return;
        } else {
            ++spins;
            ::usleep(1000);
        }
    }
}

void serveClient(Simulator &sim, QTcpSocket *socket)
{
    auto splitter = std::make_shared<FrameSplitter>();
    QObject::connect(socket, &QTcpSocket::readyRead, socket, [&sim, socket, splitter]() {
        const QList<QByteArray> chunks = handleIncoming(sim, *splitter, socket->readAll());
        if (!chunks.isEmpty())
            sendChunks(sim, socket, chunks, [socket](const QByteArray &c) { socket->write(c); });
    });
    QObject::connect(socket, &QTcpSocket::disconnected, socket, [&sim, socket]() {
        sim.clients.removeAll(socket);
        socket->deleteLater();
    });
}

void readPty(Simulator &sim)
{
    char buffer[512];
    QByteArray incoming;
    for (int i = 0; i < 64; ++i) {
        const ssize_t n = ::read(sim.ptyMaster, buffer, sizeof buffer);
        if (n <= 0)
            break;
        incoming.append(buffer, int(n));
    }
    if (incoming.isEmpty())
        return;
    const QList<QByteArray> chunks = handleIncoming(sim, sim.ptySplitter, incoming);
    const int fd = sim.ptyMaster;
    if (!chunks.isEmpty())
        sendChunks(sim, sim.ptyNotifier, chunks,
                   [fd](const QByteArray &c) { writeAllToFd(fd, c); });
}

} // namespace

Simulator::Simulator()
{
    resetFaults(faults, FaultConfig());
}

Simulator::~Simulator()
{
    stopSimulator(*this);
}

QList<QByteArray> handleIncoming(Simulator &sim, FrameSplitter &splitter,
                                 const QByteArray &incoming)
{
    QList<QByteArray> out;
    QStringList lines;
    {
        QMutexLocker locker(&sim.lock);
        for (const QByteArray &frame : takeFrames(splitter, incoming)) {
            const QByteArray reply =
                frame.isEmpty() ? nakReply('?', ERR_MALFORMED) : answerFrame(sim.memory, frame);
            ++sim.stats.requests;
            if (reply.startsWith(NAK))
                ++sim.stats.naks;
            const QList<QByteArray> sent = applyFaults(sim.faults, reply);
            if (sim.trace) {
                lines << QStringLiteral("sim <- %1").arg(xbctrace::printable(frame));
                lines << (sent.isEmpty()
                              ? QStringLiteral("sim -> (dropped)")
                              : QStringLiteral("sim -> %1").arg(xbctrace::printable(sent.join())));
            }
            out += sent;
        }
    }
    for (const QString &line : lines)
        traceLine(sim, line);
    return out;
}

int startTcp(Simulator &sim, quint16 port, QString *error)
{
    // Connected once, when the server is made: a second start must not serve
    // each client twice (and Qt 6 refuses a unique connection to a lambda).
    if (!sim.server) {
        sim.server = new QTcpServer(ownerOf(sim));
        QObject::connect(sim.server, &QTcpServer::newConnection, sim.server, [&sim]() {
            while (QTcpSocket *socket = sim.server->nextPendingConnection()) {
                socket->setSocketOption(QAbstractSocket::LowDelayOption, 1);
                sim.clients.append(socket);
                serveClient(sim, socket);
            }
        });
    }
    if (!sim.server->isListening() && !sim.server->listen(QHostAddress::LocalHost, port)) {
        if (error)
            *error = QStringLiteral("cannot listen on 127.0.0.1:%1: %2")
                         .arg(port)
                         .arg(sim.server->errorString());
        return -1;
    }
    return sim.server->serverPort();
}

QString startPty(Simulator &sim, QString *error)
{
    if (sim.ptyMaster >= 0)
        return sim.ptyPath;
    int master = -1, slave = -1;
    char name[256] = {};
    if (::openpty(&master, &slave, name, nullptr, nullptr) != 0) {
        if (error)
            *error =
                QStringLiteral("openpty failed: %1").arg(QString::fromLocal8Bit(strerror(errno)));
        return QString();
    }
    // Raw mode on both sides: no echo, no line editing, no CR/LF translation.
    termios tio{};
    if (::tcgetattr(slave, &tio) == 0) {
        ::cfmakeraw(&tio);
        ::tcsetattr(slave, TCSANOW, &tio);
    }
    ::fcntl(master, F_SETFL, ::fcntl(master, F_GETFL) | O_NONBLOCK);
    sim.ptyMaster = master;
    sim.ptySlave = slave; // kept open so the master never sees a hang-up
    sim.ptyPath = QString::fromLocal8Bit(name);
    sim.ptyNotifier = new QSocketNotifier(master, QSocketNotifier::Read, ownerOf(sim));
    QObject::connect(sim.ptyNotifier, &QSocketNotifier::activated, sim.ptyNotifier,
                     [&sim]() { readPty(sim); });
    return sim.ptyPath;
}

void startLive(Simulator &sim)
{
    if (sim.liveTimer)
        return;
    sim.liveTimer = new QTimer(ownerOf(sim));
    QObject::connect(sim.liveTimer, &QTimer::timeout, sim.liveTimer, [&sim]() {
        QMutexLocker locker(&sim.lock);
        stepLive(sim.memory, sim.live);
    });
    sim.liveTimer->start(qMax(10, sim.live.periodMs));
}

void closePty(Simulator &sim)
{
    delete sim.ptyNotifier; // replies still held back for the old line go with it
    sim.ptyNotifier = nullptr;
    if (sim.ptyMaster >= 0)
        ::close(sim.ptyMaster);
    if (sim.ptySlave >= 0)
        ::close(sim.ptySlave);
    sim.ptyMaster = sim.ptySlave = -1;
    sim.ptyPath.clear();
    sim.ptySplitter = FrameSplitter();
}

void stopSimulator(Simulator &sim)
{
    closePty(sim);
    delete sim.owner; // server, clients and timer with it
    sim.owner = nullptr;
    sim.server = nullptr;
    sim.clients.clear();
    sim.liveTimer = nullptr;
}

quint16 readWord(Simulator &sim, int area, int word)
{
    QMutexLocker locker(&sim.lock);
    return wordAt(sim.memory, area, word);
}

void writeWord(Simulator &sim, int area, int word, quint16 value)
{
    QMutexLocker locker(&sim.lock);
    setWordAt(sim.memory, area, word, value);
}

bool readBit(Simulator &sim, int area, int bitAddress)
{
    QMutexLocker locker(&sim.lock);
    return bitAt(sim.memory, area, bitAddress);
}

void writeBit(Simulator &sim, int area, int bitAddress, bool on)
{
    QMutexLocker locker(&sim.lock);
    setBitAt(sim.memory, area, bitAddress, on);
}

void setFaults(Simulator &sim, const FaultConfig &config)
{
    QMutexLocker locker(&sim.lock);
    resetFaults(sim.faults, config);
}

SimStats statsOf(Simulator &sim)
{
    QMutexLocker locker(&sim.lock);
    return sim.stats;
}

FaultCounters faultCountersOf(Simulator &sim)
{
    QMutexLocker locker(&sim.lock);
    return sim.faults.counters;
}

} // namespace xbcsim
