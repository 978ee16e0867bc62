// The poll cycle as the driver plans it, and its time on a serial line.
#include "xbc_host.h"

namespace xbchost {

namespace {

enum : char { ACK_BYTE = 0x06, EOT_BYTE = 0x04 };
// A plan stops here whatever the driver does: no watch list needs more.
enum { MAX_PLANNED_FRAMES = 100000 };
const char DATA_FILL = '0';

// A good reply of replyLen bytes: ACK, the command character, data, the
// checksum pair over the bytes after ACK, EOT.
QByteArray wellFormedReply(const FRAME_PRO &f)
{
    QByteArray reply(qMax(f.replyLen, 4), DATA_FILL);
    reply[0] = ACK_BYTE;
    reply[1] = char(f.frame[1]);
    quint8 sum = 0;
    for (int i = 1; i < reply.size() - 3; ++i)
        sum = quint8(sum + quint8(reply[i]));
    const QByteArray pair = QByteArray::number(sum, 16).toUpper().rightJustified(2, '0');
    reply[reply.size() - 3] = pair[0];
    reply[reply.size() - 2] = pair[1];
    reply[reply.size() - 1] = EOT_BYTE;
    return reply;
}

QString frameWhat(const FRAME_PRO &f)
{
    return QStringLiteral("read %1 (%2 words)")
        .arg(recordText(f.var.regName, f.var.address))
        .arg(f.wordCount);
}

} // namespace

QString withMaxPacketLen(const QString &properties, int maxPacketLen)
{
    QStringList parts = properties.split(QLatin1Char('#'));
    if (parts.size() == 5)
        parts[4] = QString::number(maxPacketLen);
    return parts.join(QLatin1Char('#'));
}

QString planCycle(Host &host, const QString &properties, CyclePlan &out)
{
    out = CyclePlan();
    PropertyNumbers numbers;
    if (parsePropertyString(properties, numbers) != PROPERTIES_OK)
        return QStringLiteral("'%1': expected five numbers separated by '#'").arg(properties);
    out.maxPacketLen = numbers.maxPacketLen;
    const QByteArray props = properties.toLatin1();
    host.api.setAddrValueChangeCallBack(nullptr); // the fake replies change nothing shown
    host.api.initProperty(host.statusBlock.data(), 0, host.recipeBuffer.data(), &host.runStatus,
                          props.constData(), &host.lock);
    QList<KEY_ADDRESS> keys = host.keys;
    const int blocks = host.api.addrMerge(&keys);
    for (const VARIABLE &v : host.api.driver->readList)
        out.blocks << QStringLiteral("%1 (%2 %3)")
                          .arg(recordText(v.regName, v.address))
                          .arg(v.count)
                          .arg(isBitRegister(host, v.regName) ? QStringLiteral("units")
                                                              : QStringLiteral("words"));
    FRAME_PRO &f = *host.frame;
    QString description;
    int done = 0;
    while (done < blocks && out.frames.size() < MAX_PLANNED_FRAMES) {
        if (host.api.getSendFrame(&f) != 1)
            return QStringLiteral("the driver offered no frame after %1 of %2 read blocks")
                .arg(done)
                .arg(blocks);
        QByteArray reply = wellFormedReply(f);
        if (f.frameLen > 0 && f.wordCount > 0) {
            out.frames.append(
                PlannedFrame{QByteArray(reinterpret_cast<const char *>(f.frame), f.frameLen),
                             f.replyLen, frameWhat(f)});
            out.requestBytes += f.frameLen;
            out.replyBytes += f.replyLen;
        }
        const int rc = host.api.dealRcvFrame(reply, description);
        if (rc != RECEIVE_DONE)
            return QStringLiteral("the driver refused a well-formed reply to %1").arg(frameWhat(f));
        if (f.wordCount > 0 && host.api.driver->sendList.isEmpty())
            ++done;
    }
    return QString();
}

double lineTimeMs(qint64 bytes, const SerialLine &line)
{
    return double(bytes) * xbctrace::bitsPerCharacter(line) * 1000.0 / line.baud;
}

} // namespace xbchost
