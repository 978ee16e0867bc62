// Browser console of xbc-host: a page with the watched values (pushed as the
// driver reports changes), watches and writes typed in register notation,
// the link's state, loop figures and the last frames.
//
// The HTTP server runs its own threads. Everything that touches the host or
// the driver runs on the host's thread, between two exchanges of the loop:
// server threads hand their work over and wait for the answer. Values, frames
// and figures flow the other way through a buffer the page's event streams
// read from.
#ifndef XBC_HOST_CONSOLE_H
#define XBC_HOST_CONSOLE_H

#include "xbc_host.h"

#include <QString>

#include <memory>

namespace xbchost {

struct ConsoleOptions {
    QString address = QStringLiteral("127.0.0.1");
    quint16 port = 0; // 0 picks a free port
    QString token;    // required of every request when not empty
};

// target "[ADDRESS:]PORT" with ADDRESS an IP address ("[::1]" for IPv6) or
// "localhost". A console bound to other than loopback always needs a token:
// token if given, else one made up here. Empty error text on success.
QString parseConsoleOptions(const QString &target, const QString &token, ConsoleOptions &out);

struct Console;
struct ConsoleStop {
    void operator()(Console *console) const;
};
using ConsoleHandle = std::unique_ptr<Console, ConsoleStop>;

// Serves the console for host until the handle goes (before the host does).
// On success *url is the address to open, token included.
ConsoleHandle startConsole(Host &host, const ConsoleOptions &options, QString *url, QString *error);

} // namespace xbchost

#endif
