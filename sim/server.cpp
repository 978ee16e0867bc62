// The simulator on real links: TCP clients on loopback and the master side of
// a pseudo-terminal, read and written directly from the event loop of the
// starting thread (one read and one write per exchange, no socket classes in
// between), and the timer that sends held back replies on time.
#include "frame_text.h"
#include "xbc_sim.h"

#include <QMutexLocker>
#include <QObject>
#include <QSocketNotifier>
#include <QTime>
#include <QTimer>

#include <algorithm>
#include <arpa/inet.h>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <fcntl.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <pty.h>
#include <sys/socket.h>
#include <sys/timerfd.h>
#include <termios.h>
#include <unistd.h>

namespace xbcsim {

namespace {

enum {
    READ_CHUNK = 4096,
    LISTEN_BACKLOG = 16,
    MAX_OUTPUT_BYTES = 65536, // replies waiting for a reader; more are dropped
    NS_PER_MS = 1000000,
    // A held reply's timer wakes the loop this much early and the rest is
    // waited out on the clock: waking up takes tens of microseconds, more on a
    // busy machine, which at 115200 baud is several percent of an exchange.
    HOLD_LEAD_NS = 150000,
};

QString errnoText()
{
    return QString::fromLocal8Bit(strerror(errno));
}

void traceLine(Simulator &sim, const QString &line)
{
    if (!sim.trace)
        return;
    const QString stamped =
        QTime::currentTime().toString(QStringLiteral("HH:mm:ss.zzz")) + QLatin1Char(' ') + line;
    if (sim.traceSink)
        sim.traceSink(stamped);
    else
        std::fprintf(stderr, "%s\n", stamped.toLocal8Bit().constData());
}

QObject *ownerOf(Simulator &sim)
{
    if (!sim.owner)
        sim.owner = new QObject();
    return sim.owner;
}

void closeConnection(Simulator &sim, Connection *c)
{
    sim.held.erase(std::remove_if(sim.held.begin(), sim.held.end(),
                                  [c](const Outgoing &o) { return o.to == c; }),
                   sim.held.end());
    // Possibly called from the connection's own notifier: deleted later.
    for (QSocketNotifier *n : {c->reader, c->writer}) {
        n->setEnabled(false);
        n->deleteLater();
    }
    ::close(c->fd);
    sim.clients.removeAll(c);
    if (sim.pty == c)
        sim.pty = nullptr;
    delete c;
}

// Bytes written now: 0 when the link has no room, -1 when it failed.
qint64 writeSome(const Connection &c, const char *data, qint64 size)
{
    for (;;) {
        const ssize_t n = c.isPty ? ::write(c.fd, data, size_t(size))
                                  : ::send(c.fd, data, size_t(size), MSG_NOSIGNAL);
        if (n >= 0)
            return n;
        if (errno == EINTR)
            continue;
        return errno == EAGAIN || errno == EWOULDBLOCK ? 0 : -1;
    }
}

// A failed TCP client goes; the pseudo-terminal stays and loses the bytes.
// False when the connection is gone.
bool linkFailed(Simulator &sim, Connection *c)
{
    if (c->isPty) {
        c->output.clear();
        c->writer->setEnabled(false);
        return true;
    }
    traceLine(sim, QStringLiteral("sim: client closed: %1").arg(errnoText()));
    closeConnection(sim, c);
    return false;
}

bool sendNow(Simulator &sim, Connection *c, const QByteArray &bytes)
{
    if (!c->output.isEmpty()) {
        if (c->output.size() + bytes.size() <= MAX_OUTPUT_BYTES)
            c->output += bytes;
        return true;
    }
    const qint64 n = writeSome(*c, bytes.constData(), bytes.size());
    if (n < 0)
        return linkFailed(sim, c);
    if (n < bytes.size()) {
        c->output = bytes.mid(int(n));
        c->writer->setEnabled(true);
    }
    return true;
}

void flushOutput(Simulator &sim, Connection *c)
{
    const qint64 n = writeSome(*c, c->output.constData(), c->output.size());
    if (n < 0) {
        linkFailed(sim, c);
        return;
    }
    c->output.remove(0, int(n));
    c->writer->setEnabled(!c->output.isEmpty());
}

bool sendOut(Simulator &sim, const Outgoing &o)
{
    if (!o.trace.isEmpty())
        traceLine(sim, o.trace);
    return sendNow(sim, o.to, o.bytes);
}

void armHeldTimer(Simulator &sim)
{
    itimerspec when{};
    if (!sim.held.isEmpty()) {
        const qint64 due = sim.held.first().dueNs - HOLD_LEAD_NS;
        when.it_value.tv_sec = time_t(due / (1000 * NS_PER_MS));
        when.it_value.tv_nsec = long(due % (1000 * NS_PER_MS));
    }
    ::timerfd_settime(sim.heldTimerFd, TFD_TIMER_ABSTIME, &when, nullptr);
}

// At most HOLD_LEAD_NS, on a timer that already woke the loop.
void waitOutOnTheClock(qint64 dueNs)
{
    while (monotonicNs() < dueNs) {
    }
}

void sendDue(Simulator &sim)
{
    quint64 expirations = 0;
    if (::read(sim.heldTimerFd, &expirations, sizeof expirations) < 0 && errno != EAGAIN)
        return;
    while (!sim.held.isEmpty() && sim.held.first().dueNs <= monotonicNs() + HOLD_LEAD_NS) {
        waitOutOnTheClock(sim.held.first().dueNs);
        sendOut(sim, sim.held.takeFirst());
    }
    armHeldTimer(sim);
}

bool ensureHeldTimer(Simulator &sim)
{
    if (sim.heldTimerFd >= 0)
        return true;
    sim.heldTimerFd = ::timerfd_create(CLOCK_MONOTONIC, TFD_NONBLOCK | TFD_CLOEXEC);
    if (sim.heldTimerFd < 0)
        return false;
    sim.heldTimer = new QSocketNotifier(sim.heldTimerFd, QSocketNotifier::Read, ownerOf(sim));
    QObject::connect(sim.heldTimer, &QSocketNotifier::activated, sim.heldTimer,
                     [&sim]() { sendDue(sim); });
    return true;
}

// Behind every reply of its link that is held already, so that replies keep
// their order: its time moves up to theirs. False when none is held.
bool queueBehindHeld(const Simulator &sim, Outgoing &o)
{
    bool behind = false;
    for (const Outgoing &h : sim.held) {
        if (h.to == o.to) {
            o.dueNs = qMax(o.dueNs, h.dueNs);
            behind = true;
        }
    }
    return behind;
}

void dispatch(Simulator &sim, const QList<Outgoing> &replies)
{
    const qint64 now = monotonicNs();
    bool held = false;
    for (Outgoing o : replies) {
        const bool behind = queueBehindHeld(sim, o);
        if ((behind || o.dueNs > now) && ensureHeldTimer(sim)) {
            const auto at =
                std::upper_bound(sim.held.begin(), sim.held.end(), o.dueNs,
                                 [](qint64 due, const Outgoing &h) { return due < h.dueNs; });
            sim.held.insert(at, o);
            held = true;
        } else if (!sendOut(sim, o)) {
            return; // the link is gone, and its other replies with it
        }
    }
    if (held)
        armHeldTimer(sim);
}

qint64 realtimeNs()
{
    timespec t{};
    ::clock_gettime(CLOCK_REALTIME, &t);
    return qint64(t.tv_sec) * 1000 * NS_PER_MS + t.tv_nsec;
}

// Reads like read(); on a TCP client also when the kernel received the bytes,
// on the monotonic clock, in arrived: the loop wakes up tens of microseconds
// later, which paced replies must not count.
ssize_t readWithTime(const Connection &c, char *buffer, size_t size, qint64 &arrived)
{
    if (c.isPty)
        return ::read(c.fd, buffer, size);
    iovec io{buffer, size};
    alignas(cmsghdr) char control[CMSG_SPACE(sizeof(timespec))];
    msghdr msg{};
    msg.msg_iov = &io;
    msg.msg_iovlen = 1;
    msg.msg_control = control;
    msg.msg_controllen = sizeof control;
    const ssize_t n = ::recvmsg(c.fd, &msg, 0);
    for (cmsghdr *m = CMSG_FIRSTHDR(&msg); n > 0 && m; m = CMSG_NXTHDR(&msg, m)) {
        if (m->cmsg_level != SOL_SOCKET || m->cmsg_type != SCM_TIMESTAMPNS)
            continue;
        timespec received{};
        std::memcpy(&received, CMSG_DATA(m), sizeof received);
        const qint64 age =
            realtimeNs() - (qint64(received.tv_sec) * 1000 * NS_PER_MS + received.tv_nsec);
        if (age >= 0 && age < 1000 * NS_PER_MS) // the wall clock may step
            arrived = monotonicNs() - age;
    }
    return n;
}

void readLink(Simulator &sim, Connection *c)
{
    qint64 arrived = monotonicNs();
    char buffer[READ_CHUNK];
    QByteArray incoming;
    bool closed = false;
    for (;;) {
        qint64 received = arrived;
        const ssize_t n = readWithTime(*c, buffer, sizeof buffer, received);
        if (n > 0) {
            if (incoming.isEmpty())
                arrived = qMin(arrived, received);
            incoming.append(buffer, int(n));
            if (n < READ_CHUNK)
                break; // all there was
            continue;
        }
        if (n < 0 && errno == EINTR)
            continue;
        closed = !c->isPty && (n == 0 || (errno != EAGAIN && errno != EWOULDBLOCK));
        break;
    }
    if (!incoming.isEmpty())
        dispatch(sim, handleIncoming(sim, *c, incoming, arrived));
    if (closed && sim.clients.contains(c)) {
        traceLine(sim, QStringLiteral("sim: client closed the connection"));
        closeConnection(sim, c);
    }
}

Connection *openConnection(Simulator &sim, int fd, bool isPty)
{
    auto *c = new Connection;
    c->fd = fd;
    c->isPty = isPty;
    c->reader = new QSocketNotifier(fd, QSocketNotifier::Read, ownerOf(sim));
    c->writer = new QSocketNotifier(fd, QSocketNotifier::Write, ownerOf(sim));
    c->writer->setEnabled(false);
    QObject::connect(c->reader, &QSocketNotifier::activated, c->reader,
                     [&sim, c]() { readLink(sim, c); });
    QObject::connect(c->writer, &QSocketNotifier::activated, c->writer,
                     [&sim, c]() { flushOutput(sim, c); });
    return c;
}

void acceptClients(Simulator &sim)
{
    for (;;) {
        sockaddr_in peer{};
        socklen_t size = sizeof peer;
        const int fd = ::accept4(sim.listenFd, reinterpret_cast<sockaddr *>(&peer), &size,
                                 SOCK_NONBLOCK | SOCK_CLOEXEC);
        if (fd < 0)
            return;
        const int on = 1; // replies go out whole at once: no waiting for more
        ::setsockopt(fd, IPPROTO_TCP, TCP_NODELAY, &on, sizeof on);
        if (paced(sim.line)) // see readWithTime
            ::setsockopt(fd, SOL_SOCKET, SO_TIMESTAMPNS, &on, sizeof on);

        sim.clients.append(openConnection(sim, fd, false));
        traceLine(sim, QStringLiteral("sim: client %1:%2 connected")
                           .arg(QString::fromLatin1(inet_ntoa(peer.sin_addr)))
                           .arg(ntohs(peer.sin_port)));
    }
}

// The first byte of a frame that arrives whole came with this read; one torn
// across reads came with an earlier one.
qint64 frameStart(int index, qint64 tornSince, qint64 arrivedNs)
{
    return index == 0 ? tornSince : arrivedNs;
}

QString requestTrace(int number, const QByteArray &frame)
{
    if (frame.isEmpty())
        return QStringLiteral("sim <- #%1 (longer than %2 bytes, dropped)")
            .arg(number)
            .arg(MAX_REQUEST_BYTES);
    return QStringLiteral("sim <- #%1 %2").arg(number).arg(xbctrace::printable(frame));
}

QString replyTrace(int number, const QByteArray &bytes, const QStringList &faults)
{
    const QString mark = faults.isEmpty()
                             ? QString()
                             : QStringLiteral(" [fault %1]").arg(faults.join(QLatin1String(", ")));
    return QStringLiteral("sim -> #%1 %2%3").arg(number).arg(xbctrace::printable(bytes), mark);
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

QList<Outgoing> handleIncoming(Simulator &sim, Connection &link, const QByteArray &incoming,
                               qint64 arrivedNs)
{
    const qint64 tornSince =
        link.splitter.pending.isEmpty() ? arrivedNs : link.splitter.pendingSinceNs;
    QList<Outgoing> out;
    QStringList lines;
    {
        QMutexLocker locker(&sim.lock);
        const QList<QByteArray> frames = takeFrames(link.splitter, incoming);
        if (!frames.isEmpty() || tornSince == arrivedNs)
            link.splitter.pendingSinceNs = arrivedNs;
        const bool pacing = paced(sim.line);
        const qint64 delayNs = qint64(sim.faults.config.delayMs) * NS_PER_MS;
        for (int i = 0; i < frames.size(); ++i) {
            const QByteArray &frame = frames[i];
            const QByteArray reply = frame.isEmpty() ? nakReply('?', ERR_MALFORMED)
                                     : sim.answer    ? sim.answer(frame)
                                                     : answerFrame(sim.memory, frame);
            const int number = ++sim.stats.requests;
            if (reply.startsWith(NAK))
                ++sim.stats.naks;
            const FaultCounters before = sim.faults.counters;
            const QList<QByteArray> sent =
                reply.isEmpty() ? QList<QByteArray>() : applyFaults(sim.faults, reply);
            const QStringList faults = faultsBetween(before, sim.faults.counters);
            // Paced: the line is busy with the request, then the scan (and a
            // delay fault), then each reply on it in turn.
            qint64 at = arrivedNs;
            if (pacing) {
                const int requestBytes = frame.isEmpty() ? int(MAX_REQUEST_BYTES) : frame.size();
                at = qMax(frameStart(i, tornSince, arrivedNs), link.lineFreeNs) +
                     lineTimeNs(sim.line, requestBytes) + qint64(sim.line.scanMs) * NS_PER_MS;
            }
            at += delayNs;
            if (sim.trace) {
                lines << requestTrace(number, frame);
                if (reply.isEmpty())
                    lines << QStringLiteral("sim -> #%1 no reply (the answer is silence)")
                                 .arg(number);
                else if (sent.isEmpty())
                    lines << QStringLiteral("sim -> #%1 no reply [fault %2]")
                                 .arg(number)
                                 .arg(faults.join(QLatin1String(", ")));
            }
            for (const QByteArray &chunk : sent) {
                at += lineTimeNs(sim.line, pacing ? chunk.size() : 0);
                Outgoing o;
                o.bytes = chunk;
                o.dueNs = pacing || delayNs > 0 ? at : 0;
                o.to = &link;
                if (sim.trace)
                    o.trace = replyTrace(number, chunk, faults);
                out << o;
            }
            if (pacing)
                link.lineFreeNs = at;
        }
    }
    for (const QString &line : lines)
        traceLine(sim, line);
    return out;
}

int startTcp(Simulator &sim, quint16 port, QString *error)
{
    if (sim.listenFd < 0) {
        const int fd = ::socket(AF_INET, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0);
        const int on = 1;
        sockaddr_in address{};
        address.sin_family = AF_INET;
        address.sin_port = htons(port);
        address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        if (fd < 0 || ::setsockopt(fd, SOL_SOCKET, SO_REUSEADDR, &on, sizeof on) != 0 ||
            ::bind(fd, reinterpret_cast<const sockaddr *>(&address), sizeof address) != 0 ||
            ::listen(fd, LISTEN_BACKLOG) != 0) {
            if (error)
                *error =
                    QStringLiteral("cannot listen on 127.0.0.1:%1: %2").arg(port).arg(errnoText());
            if (fd >= 0)
                ::close(fd);
            return -1;
        }
        sim.listenFd = fd;
        sim.acceptor = new QSocketNotifier(fd, QSocketNotifier::Read, ownerOf(sim));
        QObject::connect(sim.acceptor, &QSocketNotifier::activated, sim.acceptor,
                         [&sim]() { acceptClients(sim); });
    }
    sockaddr_in bound{};
    socklen_t size = sizeof bound;
    ::getsockname(sim.listenFd, reinterpret_cast<sockaddr *>(&bound), &size);
    return ntohs(bound.sin_port);
}

QString startPty(Simulator &sim, QString *error)
{
    if (sim.pty)
        return sim.ptyPath;
    int master = -1, slave = -1;
    char name[256] = {};
    if (::openpty(&master, &slave, name, nullptr, nullptr) != 0) {
        if (error)
            *error = QStringLiteral("openpty failed: %1").arg(errnoText());
        return QString();
    }
    // Raw mode on both sides: no echo, no line editing, no CR/LF translation.
    termios tio{};
    if (::tcgetattr(slave, &tio) == 0) {
        ::cfmakeraw(&tio);
        ::tcsetattr(slave, TCSANOW, &tio);
    }
    ::fcntl(master, F_SETFL, ::fcntl(master, F_GETFL) | O_NONBLOCK);
    ::fcntl(master, F_SETFD, FD_CLOEXEC);
    ::fcntl(slave, F_SETFD, FD_CLOEXEC);
    sim.pty = openConnection(sim, master, true);
    sim.ptySlave = slave;
    sim.ptyPath = QString::fromLocal8Bit(name);
    return sim.ptyPath;
}

void startLive(Simulator &sim)
{
    if (sim.liveTimer)
        return;
    sim.liveTimer = new QTimer(ownerOf(sim));
    sim.liveTimer->setTimerType(Qt::PreciseTimer);
    QObject::connect(sim.liveTimer, &QTimer::timeout, sim.liveTimer, [&sim]() {
        QMutexLocker locker(&sim.lock);
        stepLive(sim.memory, sim.live);
    });
    sim.liveTimer->start(qMax(10, sim.live.periodMs));
}

void closePty(Simulator &sim)
{
    if (sim.pty)
        closeConnection(sim, sim.pty); // replies still held back for the old line go with it
    if (sim.ptySlave >= 0)
        ::close(sim.ptySlave);
    sim.ptySlave = -1;
    sim.ptyPath.clear();
}

void closeClients(Simulator &sim)
{
    while (!sim.clients.isEmpty())
        closeConnection(sim, sim.clients.first());
}

void stopSimulator(Simulator &sim)
{
    closePty(sim);
    closeClients(sim);
    for (int *fd : {&sim.listenFd, &sim.heldTimerFd}) {
        if (*fd >= 0)
            ::close(*fd);
        *fd = -1;
    }
    delete sim.owner; // notifiers and timers with it
    sim.owner = nullptr;
    sim.acceptor = nullptr;
    sim.heldTimer = nullptr;
    sim.liveTimer = nullptr;
    sim.held.clear();
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
    const FaultCounters soFar = sim.faults.counters;
    resetFaults(sim.faults, config);
    sim.faults.counters = soFar;
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
