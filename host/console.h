// Browser console of xbc-host: a page with the watched values (pushed as the
// driver reports changes), watches and writes typed in register notation,
// the link's state, loop figures and the last frames.
//
// In files by concern: console_options.cpp (this header's options),
// console_http.cpp (the server and its routes, on the server's threads),
// console_bridge.* (work handed between those threads and the host's) and
// console_model.* (what the page shows, on the host's thread).
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

// What to open: the console's address with its token. A console on all
// addresses names the loopback address and the machine's own names instead
// of 0.0.0.0, which no browser opens.
QString consoleAddressText(const ConsoleOptions &options, quint16 port);

struct Console;
struct ConsoleStop {
    void operator()(Console *console) const;
};
using ConsoleHandle = std::unique_ptr<Console, ConsoleStop>;

// Serves the console for host until the handle goes (before the host does).
// On success *url is consoleAddressText() for the port it listens on.
ConsoleHandle startConsole(Host &host, const ConsoleOptions &options, QString *url, QString *error);

} // namespace xbchost

#endif
