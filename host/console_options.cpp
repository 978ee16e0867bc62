// The console's options: where it listens, its access token, and the
// addresses it tells the user to open.
#include "console.h"

#include <QHostAddress>
#include <QHostInfo>
#include <QNetworkInterface>
#include <QRandomGenerator>
#include <QRegularExpression>

namespace xbchost {

namespace {

enum { TOKEN_BYTES = 16, MAX_PORT = 65535 };

QString makeAccessToken()
{
    QByteArray bytes(TOKEN_BYTES, '\0');
    for (char &b : bytes)
        b = char(QRandomGenerator::system()->bounded(256));
    return QString::fromLatin1(bytes.toHex());
}

// "[ADDRESS:]PORT" into its parts; false when it has not that shape.
bool splitTarget(const QString &target, QString &address, QString &port)
{
    port = target;
    const int colon = target.lastIndexOf(QLatin1Char(':'));
    if (colon < 0)
        return true;
    address = target.left(colon);
    port = target.mid(colon + 1);
    if (address.startsWith(QLatin1Char('[')) && address.endsWith(QLatin1Char(']')))
        address = address.mid(1, address.size() - 2);
    else if (address.contains(QLatin1Char(':')))
        return false; // an IPv6 address goes in brackets
    return true;
}

QString urlFor(const QHostAddress &address, const QString &name, quint16 port, const QString &token)
{
    QString host = name;
    if (host.isEmpty()) {
        host = address.toString();
        if (address.protocol() == QAbstractSocket::IPv6Protocol)
            host = QStringLiteral("[%1]").arg(host);
    }
    QString url = QStringLiteral("http://%1:%2/").arg(host).arg(port);
    if (!token.isEmpty())
        url += QStringLiteral("?token=%1").arg(token);
    return url;
}

// The machine's own addresses a console on "any" address answers at, by
// the protocol it listens with.
QStringList otherMachineUrls(const QHostAddress &any, quint16 port, const QString &token)
{
    QStringList urls;
    const QString name = QHostInfo::localHostName();
    if (!name.isEmpty() && name != QLatin1String("localhost"))
        urls << urlFor(QHostAddress(), name, port, token);
    for (const QHostAddress &a : QNetworkInterface::allAddresses()) {
        const bool sameKind = any == QHostAddress(QHostAddress::AnyIPv6) ||
                              a.protocol() == QAbstractSocket::IPv4Protocol;
        if (sameKind && !a.isLoopback() && !a.isLinkLocal())
            urls << urlFor(a, QString(), port, token);
    }
    return urls;
}

} // namespace

QString parseConsoleOptions(const QString &target, const QString &token, ConsoleOptions &out)
{
    const QString usage = QStringLiteral("--http '%1': expected [ADDRESS:]PORT, e.g. 8080, "
                                         "127.0.0.1:0 or [::1]:8080")
                              .arg(target);
    ConsoleOptions o;
    QString portText;
    if (!splitTarget(target, o.address, portText))
        return usage;
    bool ok = false;
    const uint port = portText.toUInt(&ok);
    if (!ok || port > MAX_PORT)
        return usage;
    if (o.address == QLatin1String("localhost"))
        o.address = QStringLiteral("127.0.0.1");
    QHostAddress parsed;
    if (!parsed.setAddress(o.address))
        return QStringLiteral("--http '%1': '%2' is not an IP address").arg(target, o.address);
    o.address = parsed.toString();
    o.port = quint16(port);
    static const QRegularExpression tokenChars(QStringLiteral("^[A-Za-z0-9._~-]{8,128}$"));
    if (!token.isEmpty() && !tokenChars.match(token).hasMatch())
        return QStringLiteral("--http-token: use 8 to 128 letters, digits, '-', '_', '.' or '~'");
    o.token = token;
    if (o.token.isEmpty() && !parsed.isLoopback())
        o.token = makeAccessToken();
    out = o;
    return QString();
}

QString consoleAddressText(const ConsoleOptions &options, quint16 port)
{
    const QHostAddress address(options.address);
    const bool any = address == QHostAddress(QHostAddress::AnyIPv4) ||
                     address == QHostAddress(QHostAddress::AnyIPv6);
    if (!any)
        return urlFor(address, QString(), port, options.token);
    const QHostAddress loopback(address == QHostAddress(QHostAddress::AnyIPv4)
                                    ? QHostAddress::LocalHost
                                    : QHostAddress::LocalHostIPv6);
    QString text = urlFor(loopback, QString(), port, options.token) +
                   QStringLiteral(" (listening on all addresses");
    const QStringList others = otherMachineUrls(address, port, options.token);
    if (!others.isEmpty())
        text += QStringLiteral("; from other machines: %1").arg(others.join(QStringLiteral(", ")));
    return text + QLatin1Char(')');
}

} // namespace xbchost
