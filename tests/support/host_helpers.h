// Steps of the runtime stand-in that several tests take.
#ifndef XBC_TEST_HOST_HELPERS_H
#define XBC_TEST_HOST_HELPERS_H

#include "xbc_host.h"

#include <climits>

namespace xbctest {

// Runs the loop until a condition holds or the time is up.
inline bool runUntil(xbchost::Host &host, const std::function<bool()> &done, int maxMs)
{
    xbchost::runFor(host, INT_MAX, maxMs, done);
    return done();
}

// Queues one write of consecutive values (bytes of a bit register, words of
// the others); returns its tag.
inline int queueValues(xbchost::Host &host, const QString &reg, int address,
                       const QVector<int> &values)
{
    const bool bits = xbchost::isBitRegister(host, reg);
    QByteArray data;
    for (int v : values) {
        data.append(char(v & 0xFF));
        if (!bits)
            data.append(char(v >> 8));
    }
    return xbchost::queueWrite(host, reg, address, values.size(), data);
}

} // namespace xbctest

#endif
