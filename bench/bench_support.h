// Shared pieces of the benchmarks: a driver started as a runtime starts it, the
// watch keys, well-formed read replies, and the names the summary looks up.
#ifndef XBC_BENCH_SUPPORT_H
#define XBC_BENCH_SUPPORT_H

#include "ls_xbc_cpu_direct.h"

#include <QByteArray>
#include <QList>
#include <QString>

namespace xbcbench {

// Notifications delivered to the do-nothing callback (counted, nothing else).
extern long long notesSeen;

// intf_initProperty with the runtime's status block, recipe buffer and lock,
// after installing the do-nothing callback. Empties every list and the image.
void startDriver(const char *properties);

KEY_ADDRESS watchKey(int station, const char *regName, int address, int count, bool bits);

// ACK 'r' <count words as hex, low byte first> <checksum pair> EOT, every word
// holding `word`.
QByteArray readReply(int words, quint16 word);

// Line time of one exchange of requestBytes + replyBytes at `baud`, 10 bits a
// byte (start, 8 data, stop).
inline double lineSeconds(int requestBytes, int replyBytes, int baud)
{
    return double(requestBytes + replyBytes) * 10.0 / double(baud);
}

// Frame sizes of a 127-word read.
constexpr int READ_REQUEST_BYTES = 14;
constexpr int READ_127_REPLY_BYTES = 4 * 127 + 5;
constexpr int SERIAL_BAUD = 115200;

#ifdef XBC_BENCH_LOOPBACK
// Stops the simulator program and the host state of the loopback benchmarks;
// called from main before the application object goes.
void shutdownLoopback();
#endif

} // namespace xbcbench

#endif
