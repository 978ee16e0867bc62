// TCP and serial links with reconnection after a growing pause.
#include "xbc_host.h"

#include <QEventLoop>
#include <QTimer>

#include <cstdio>
#include <map>

namespace xbchost {

namespace {

// Link events carry their time; observers get the same line.
void warnLine(Host &host, const QString &text)
{
    const QString line = stampedText(text);
    host.lastLinkProblem = text;
    if (host.config.warn)
        host.config.warn(line);
    else
        std::fprintf(stderr, "%s\n", line.toLocal8Bit().constData());
    if (host.config.traceSink)
        host.config.traceSink(line);
}

bool connectTcp(Host &host)
{
    Link &link = host.link;
    if (!link.tcp) {
        link.tcp = std::make_unique<QTcpSocket>();
        QObject::connect(link.tcp.get(), &QIODevice::readyRead, link.tcp.get(),
                         [&link]() { link.readable = true; });
    }
    QTcpSocket &s = *link.tcp;
    s.abort();
    QEventLoop loop;
    QTimer timer;
    timer.setSingleShot(true);
    QObject::connect(&timer, &QTimer::timeout, &loop, &QEventLoop::quit);
    QObject::connect(&s, &QTcpSocket::connected, &loop, &QEventLoop::quit);
    QObject::connect(&s, &QAbstractSocket::errorOccurred, &loop, &QEventLoop::quit);
    // Unbuffered: a request goes out in the write call and a reply is read
    // straight from the socket, with no notifier switched on and off for them.
    s.connectToHost(link.config.host, link.config.port,
                    QIODevice::ReadWrite | QIODevice::Unbuffered);
    timer.start(CONNECT_TIMEOUT_MS);
    if (s.state() != QAbstractSocket::ConnectedState &&
        s.state() != QAbstractSocket::UnconnectedState)
        loop.exec();
    if (s.state() != QAbstractSocket::ConnectedState) {
        const QString reason = s.errorString();
        s.abort();
        warnLine(
            host,
            QStringLiteral("link: cannot connect to %1: %2").arg(targetText(link.config), reason));
        return false;
    }
    s.setSocketOption(QAbstractSocket::LowDelayOption, 1);
    return true;
}

bool openSerial(Host &host)
{
    Link &link = host.link;
    SerialLine line;
    const QString lineError = parseSerialLine(link.config.line, line);
    if (!lineError.isEmpty()) {
        warnLine(host, QStringLiteral("link: %1").arg(lineError));
        return false;
    }
    if (!link.serial)
        link.serial = std::make_unique<QSerialPort>();
    QSerialPort &p = *link.serial;
    if (p.isOpen())
        p.close();
    p.setPortName(link.config.device);
    if (!p.open(QIODevice::ReadWrite)) {
        warnLine(host, QStringLiteral("link: cannot open %1: %2")
                           .arg(targetText(link.config), p.errorString()));
        return false;
    }
    const bool ok = p.setBaudRate(line.baud) && p.setDataBits(line.dataBits) &&
                    p.setParity(line.parity) && p.setStopBits(line.stopBits) &&
                    p.setFlowControl(QSerialPort::NoFlowControl);
    if (!ok) {
        warnLine(host, QStringLiteral("link: cannot set %1 on %2: %3")
                           .arg(link.config.line, link.config.device, p.errorString()));
        p.close();
        return false;
    }
    p.clear();
    return true;
}

// The socket reads straight from the kernel, so a peer that closed an idle
// link shows only when something reads: here, once the socket said so.
void noticePeerClose(Link &link)
{
    if (!link.readable || !link.tcp || link.tcp->state() != QAbstractSocket::ConnectedState)
        return;
    link.readable = false;
    char next = 0;
    link.tcp->peek(&next, 1); // the end of the stream disconnects the socket
}

} // namespace

QString targetText(const LinkConfig &c)
{
    return c.kind == LinkConfig::Tcp ? QStringLiteral("%1:%2").arg(c.host).arg(c.port)
                                     : QStringLiteral("%1 (%2)").arg(c.device, c.line);
}

bool linkIsUp(const Host &host)
{
    const Link &link = host.link;
    if (link.config.kind == LinkConfig::Tcp)
        return link.tcp && link.tcp->state() == QAbstractSocket::ConnectedState;
    if (!link.serial || !link.serial->isOpen())
        return false;
    const QSerialPort::SerialPortError e = link.serial->error();
    return e == QSerialPort::NoError || e == QSerialPort::TimeoutError;
}

QString parseTcpTarget(const QString &text, LinkConfig &out)
{
    const int colon = text.lastIndexOf(QLatin1Char(':'));
    QString host = colon < 0 ? text : text.left(colon);
    quint16 port = 8000;
    if (colon >= 0) {
        bool ok = false;
        const uint p = text.mid(colon + 1).toUInt(&ok);
        if (!ok || p == 0 || p > 65535)
            return QStringLiteral("--tcp '%1': the port must be 1 to 65535").arg(text);
        port = quint16(p);
    }
    if (host.startsWith(QLatin1Char('[')) && host.endsWith(QLatin1Char(']')))
        host = host.mid(1, host.size() - 2);
    if (host.isEmpty())
        return QStringLiteral("--tcp '%1': expected HOST:PORT").arg(text);
    out.kind = LinkConfig::Tcp;
    out.host = host;
    out.port = port;
    return QString();
}

void closeLink(Host &host)
{
    if (host.link.tcp)
        host.link.tcp->abort();
    if (host.link.serial && host.link.serial->isOpen())
        host.link.serial->close();
}

// Connected: true. Otherwise one attempt when the pause since the last one
// has passed; the pause doubles after each failure up to BACKOFF_MAX_MS.
bool ensureLink(Host &host)
{
    Link &link = host.link;
    noticePeerClose(link);
    if (linkIsUp(host))
        return true;
    if (link.connects > 0 && link.backoffMs == 0) {
        ++host.stats.linkDrops;
        warnLine(host, QStringLiteral("link: %1 lost; reconnecting").arg(targetText(link.config)));
        link.backoffMs = BACKOFF_FIRST_MS;
        link.lastAttempt.start();
        closeLink(host);
        return false;
    }
    if (link.lastAttempt.isValid() && link.lastAttempt.elapsed() < link.backoffMs)
        return false;
    link.lastAttempt.start();
    const bool up = link.config.kind == LinkConfig::Tcp ? connectTcp(host) : openSerial(host);
    if (!up) {
        ++link.failedAttempts;
        link.backoffMs = qBound(int(BACKOFF_FIRST_MS), link.backoffMs * 2, int(BACKOFF_MAX_MS));
        return false;
    }
    ++link.connects;
    link.backoffMs = 0;
    if (link.connects > 1) {
        ++host.stats.reconnects;
        warnLine(host, QStringLiteral("link: reconnected to %1 (drop %2)")
                           .arg(targetText(link.config))
                           .arg(host.stats.linkDrops));
    } else {
        warnLine(host, QStringLiteral("link: connected to %1").arg(targetText(link.config)));
    }
    link.failedAttempts = 0;
    return true;
}

} // namespace xbchost
