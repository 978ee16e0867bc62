// The runtime's side of a communication run: setup, the value-change
// callback, writes, condition reads, recipes and the send/receive loop.
#include "capture.h"
#include "frame_text.h"
#include "xbc_host.h"

#include <QDateTime>
#include <QEventLoop>
#include <QMutexLocker>
#include <QTimer>

#include <cstdio>
#include <cstring>
#include <poll.h>

namespace xbchost {

namespace {

enum : char { EOT_BYTE = 0x04 };
enum { READ_CHUNK_BYTES = 4096 };

// The callback is a plain function pointer; the driver is one object per
// process, so one host per process is all it can serve.
Host *activeHost = nullptr;

void printLine(Host &host, const QString &text)
{
    if (host.config.print)
        host.config.print(text);
    else {
        std::fprintf(stdout, "%s\n", text.toLocal8Bit().constData());
        std::fflush(stdout);
    }
}

bool tracing(const Host &host)
{
    return host.config.trace || host.config.traceSink;
}

void traceLine(Host &host, const QString &direction, const QByteArray &bytes)
{
    if (!tracing(host))
        return;
    const QString line = stampedText(QStringLiteral("%1 %2").arg(
        direction, bytes.isEmpty() ? QStringLiteral("(nothing)") : xbctrace::printable(bytes)));
    if (host.config.trace)
        printLine(host, line);
    if (host.config.traceSink)
        host.config.traceSink(line);
}

int readShownValue(Host &host, int station, const QString &name, int address)
{
    unsigned char out[4] = {};
    host.api.getData(station, name, address, 1, out);
    return isBitRegister(host, name) ? out[0] : int(out[0] | (out[1] << 8));
}

// A write not done and not failed covers the record: it shows the value
// being written.
bool writeOpenFor(const Host &host, const Notification &note)
{
    for (int tag : host.openWrites) {
        const WriteRecord &w = host.writes[tag];
        if (w.failed == 0 && w.stationNo == note.stationNo && w.regName == note.name &&
            note.address >= w.address && note.address - w.address < w.count)
            return true;
    }
    return false;
}

void warnText(Host &host, const QString &text)
{
    if (host.config.warn)
        host.config.warn(text);
    else
        std::fprintf(stderr, "%s\n", text.toLocal8Bit().constData());
}

// An event line with its time: printed (CLI) and handed to the observers.
void eventLine(Host &host, const QString &text, bool toStderr)
{
    if (!host.config.printEvents && !host.config.trace && !host.config.traceSink)
        return;
    const QString line = stampedText(text);
    if (host.config.printEvents || host.config.trace)
        toStderr ? warnText(host, line) : printLine(host, line);
    if (host.config.traceSink)
        host.config.traceSink(line);
}

// A change as printed, logged and handed on. A record no good reply ever
// filled shows as unknown: the driver's image holds 0 there, which the PLC
// may never have held. Only a write still open may show its value then.
void deliverNote(Host &host, Notification &note)
{
    const QString key =
        QStringLiteral("%1:%2:%3").arg(note.stationNo).arg(note.name).arg(note.address);
    auto last = host.lastShown.find(key);
    note.repeated = last != host.lastShown.end() && last.value() == note.value;
    host.lastShown[key] = note.value;
    note.known =
        isCovered(host, note.stationNo, note.name, note.address) || writeOpenFor(host, note);
    if (host.config.noteSink)
        host.config.noteSink(note);
    if (note.repeated || (!host.config.printChanges && !host.log))
        return;
    if (host.config.printChanges)
        printLine(host, formatNotification(host, note));
    if (host.log)
        logChange(*host.log, note,
                  note.known ? QString::number(note.value) : QStringLiteral("unknown"));
}

void onValueChange(int id, int station, const QString &name, int address)
{
    Host *host = activeHost;
    if (!host)
        return;
    if (id == -1 && station == -1 && name == QLatin1String("-1")) {
        if (address == 0)
            ++host->conditionsDone;
        else
            ++host->conditionsFailed;
        if (host->config.printChanges)
            printLine(*host, address == 0 ? QStringLiteral("condition read done")
                                          : QStringLiteral("condition read failed"));
        return;
    }
    if (name == QLatin1String("RWI")) {
        host->uploadedWords.append(address);
        return;
    }
    Notification note;
    note.atMs = host->clock.isValid() ? host->clock.elapsed() : 0;
    note.wallTime = QTime::currentTime();
    note.id = id;
    note.stationNo = station;
    note.name = name;
    note.address = address;
    note.value = readShownValue(*host, station, name, address);
    host->notes.append(note);
    // What a reply settles is known once it has been accounted for.
    if (host->receiving)
        host->heldNotes.append(note);
    else
        deliverNote(*host, note);
}

void deliverHeldNotes(Host &host)
{
    for (Notification &note : host.heldNotes)
        deliverNote(host, note);
    host.heldNotes.clear();
}

QString checkCodeText(int code, const QString &reg, const QStringList &desc)
{
    if (desc.isEmpty()) // the driver describes every register it knows
        code = ADDR_UNKNOWN_REG;
    switch (code) {
    case ADDR_WRONG_KIND:
        return QStringLiteral("'%1' does not hold values of this kind").arg(reg);
    case ADDR_OUT_OF_RANGE:
        return QStringLiteral("out of range: '%1' runs from %2 to %3")
            .arg(reg, desc.value(1), desc.value(2));
    case ADDR_UNKNOWN_REG:
        return QStringLiteral("unknown register '%1'").arg(reg);
    case ADDR_BAD_FORMAT:
        return QStringLiteral("the address does not fit the format %1 of '%2'")
            .arg(desc.value(0), reg);
    case ADDR_WRONG_TYPE:
        return QStringLiteral("'%1' does not take values of this data type").arg(reg);
    case ADDR_READ_ONLY:
        return QStringLiteral("'%1' is read-only").arg(reg);
    default:
        return QStringLiteral("address check failed with code %1").arg(code);
    }
}

enum { ACCESS_READ = 0, ACCESS_WRITE = 1, DATA_TYPE_BIT = -1, DATA_TYPE_WORD = 0 };

// Checks one address with the driver, as an editor of the runtime would;
// empty text on success.
QString checkAddress(Host &host, const QString &reg, const QString &text, int count, int accessMode,
                     int &address)
{
    address = 0;
    const int code = host.api.checkAddr(reg, text, &address,
                                        isBitRegister(host, reg) ? DATA_TYPE_BIT : DATA_TYPE_WORD,
                                        count, accessMode);
    if (code == ADDR_VALID)
        return QString();
    QList<QString> desc;
    host.api.getRegDiscription(reg, desc);
    return checkCodeText(code, reg, desc);
}

xbctrace::CaptureEnds captureEndsOf(const Host &host)
{
    xbctrace::CaptureEnds ends;
    const QTcpSocket *socket = host.link.tcp.get();
    if (host.link.config.kind != LinkConfig::Tcp || !socket)
        return ends;
    ends.tcp = true;
    ends.hostAddress = socket->localAddress();
    ends.hostPort = socket->localPort();
    ends.plcAddress = socket->peerAddress();
    ends.plcPort = socket->peerPort();
    return ends;
}

// Bytes from the PLC as they came; nothing at all is recorded as a timeout.
void captureReceived(Host &host, const QByteArray &bytes)
{
    if (!host.capture)
        return;
    if (bytes.isEmpty())
        xbctrace::recordTimeout(*host.capture, captureEndsOf(host));
    else
        xbctrace::recordReceived(*host.capture, captureEndsOf(host), bytes);
}

// Appends what the link holds now: one read when it all fits in a chunk
// (readAll would read again to find the end, into a fresh 16 KiB buffer).
void readAvailable(QIODevice &device, QByteArray &got)
{
    char chunk[READ_CHUNK_BYTES];
    qint64 n = 0;
    do {
        n = device.read(chunk, sizeof chunk);
        if (n > 0)
            got.append(chunk, int(n));
    } while (n == qint64(sizeof chunk));
}

// The TCP socket is read straight from the kernel and waited on directly.
bool pollsDescriptor(const Host &host)
{
    return host.config.waitOnLinkOnly && host.link.config.kind == LinkConfig::Tcp;
}

// Until bytes come, the time is up or the link is lost. On the link alone when
// the thread serves nothing else; otherwise in an event loop, so that a
// simulator or anything else served by this thread keeps going.
void waitForBytes(Host &host, QIODevice &device, int ms)
{
    if (pollsDescriptor(host)) {
        // On the descriptor itself: the socket's own wait switches its
        // notifier off and on again, and each switch wakes the idle dispatcher.
        pollfd link{int(host.link.tcp->socketDescriptor()), POLLIN, 0};
        ::poll(&link, 1, ms);
        return;
    }
    if (host.config.waitOnLinkOnly) {
        device.waitForReadyRead(ms);
        return;
    }
    QEventLoop loop;
    QTimer wake;
    wake.setSingleShot(true);
    QObject::connect(&wake, &QTimer::timeout, &loop, &QEventLoop::quit);
    QObject::connect(&device, &QIODevice::readyRead, &loop, &QEventLoop::quit);
    QObject::connect(&device, &QIODevice::aboutToClose, &loop, &QEventLoop::quit);
    if (host.link.tcp && &device == host.link.tcp.get())
        QObject::connect(host.link.tcp.get(), &QTcpSocket::disconnected, &loop, &QEventLoop::quit);
    wake.start(ms);
    loop.exec();
}

// Reply bytes until EOT, replyLen bytes, the timeout or a lost link.
void collectReply(Host &host, QIODevice &device, int replyLen, QByteArray &got)
{
    QByteArray pastEot; // a doubled reply's surplus, kept for the capture
    QElapsedTimer timer;
    timer.start();
    // Nothing can have come yet that a read would find: wait first.
    if (pollsDescriptor(host) && linkIsUp(host))
        waitForBytes(host, device, host.config.replyTimeoutMs);
    for (;;) {
        const int searched = got.size(); // no EOT there
        readAvailable(device, got);
        const char *end = static_cast<const char *>(
            std::memchr(got.constData() + searched, EOT_BYTE, size_t(got.size() - searched)));
        if (end) {
            const int eot = int(end - got.constData());
            pastEot = got.mid(eot + 1);
            got.truncate(eot + 1);
            break;
        }
        if (replyLen > 0 && got.size() >= replyLen)
            break;
        const qint64 left = host.config.replyTimeoutMs - timer.elapsed();
        if (left <= 0 || !device.isOpen() || !linkIsUp(host))
            break;
        waitForBytes(host, device, int(left));
    }
    host.link.readable = false; // what the link said has been read
    captureReceived(host, got);
    if (!pastEot.isEmpty())
        captureReceived(host, pastEot);
}

QIODevice *deviceOf(Host &host)
{
    if (host.link.config.kind == LinkConfig::Tcp)
        return host.link.tcp.get();
    return host.link.serial.get();
}

void sendBytes(Host &host, QIODevice &device, const QByteArray &bytes)
{
    // A late or doubled reply must not pass for the next one.
    QByteArray stale;
    readAvailable(device, stale);
    if (!stale.isEmpty())
        captureReceived(host, stale);
    if (host.capture)
        xbctrace::recordSent(*host.capture, captureEndsOf(host), bytes);
    device.write(bytes);
    if (auto *serial = qobject_cast<QSerialPort *>(&device))
        serial->flush();
    else if (auto *socket = qobject_cast<QTcpSocket *>(&device))
        socket->flush();
}

// One poll cycle is every read block once; a block of many words is several
// frames and is read once its last frame is retired.
void countPollCycle(Host &host, const FRAME_PRO &f, bool good)
{
    host.cycleBytes += f.frameLen + f.replyLen;
    host.cycleFailed = host.cycleFailed || !good;
    if (good && !host.api.driver->sendList.isEmpty())
        return;
    ++host.stats.pollReads;
    if (++host.pollReadsInCycle < qMax(1, host.readBlocks))
        return;
    host.pollReadsInCycle = 0;
    if (!host.cycleFailed)
        host.plannedCycleBytes = int(host.cycleBytes);
    host.cycleBytes = 0;
    if (host.cycleTimer.isValid()) {
        const qint64 ns = host.cycleTimer.nsecsElapsed();
        ++host.stats.pollCycles;
        host.stats.pollCycleNsTotal += ns;
        if (!host.cycleFailed) {
            ++host.goodCycles;
            host.goodCycleNsTotal += ns;
        }
    }
    host.cycleFailed = false;
    // A scan-rate floor keeps a fast link from spinning the processor; the
    // pause is not part of the measured cycle.
    const qint64 busyMs = host.cycleTimer.isValid() ? host.cycleTimer.elapsed() : 0;
    if (host.config.cycleFloorMs > busyMs)
        serveEventsFor(int(host.config.cycleFloorMs - busyMs));
    host.cycleTimer.start();
}

// A read the host did not ask for: the driver's polling.
bool isPollRead(const FRAME_PRO &f)
{
    const int tag = f.var.requestTag;
    return f.wordCount > 0 && tag != CONDITION_TAG && tag < FIRST_WRITE_TAG;
}

WriteRecord *writeOf(Host &host, const FRAME_PRO &f)
{
    auto it = host.writes.find(f.var.requestTag);
    if (it == host.writes.end())
        return nullptr;
    WriteRecord &w = it.value();
    // Recipe frames may carry a stale tag; the address tells them apart.
    if (f.var.regName != w.regName || f.var.stationNo != w.stationNo || f.var.address < w.address ||
        f.var.address >= w.address + w.count)
        return nullptr;
    return &w;
}

// Tags of what the driver still holds: queued writes and the frames of the
// request on the line (several for some writes).
QSet<int> tagsLeftInDriver(Host &host)
{
    Protocol &d = *host.api.driver;
    QSet<int> tags;
    {
        QMutexLocker locker(&d.dataMutex); // the screens may queue writes meanwhile
        for (const VARIABLE &request : d.writeList)
            tags.insert(request.requestTag);
    }
    for (const FRAME_PRO &frame : d.sendList)
        tags.insert(frame.var.requestTag);
    return tags;
}

QString writeOutcomeText(const WriteRecord &w)
{
    if (writeLanded(w))
        return QStringLiteral("write %1 landed%2")
            .arg(w.text,
                 w.localOnly ? QStringLiteral(" (kept locally: local-write-only)") : QString());
    if (!w.failReason.isEmpty())
        return QStringLiteral("write %1 failed: %2").arg(w.text, w.failReason);
    return QStringLiteral("write %1 failed: the driver sent no frame for it "
                          "(refused, or dropped from a full write list)")
        .arg(w.text);
}

void finishWrite(Host &host, int tag, WriteRecord &w)
{
    w.done = true;
    w.doneAtMs = host.clock.isValid() ? host.clock.elapsed() : 0;
    const bool landed = writeLanded(w);
    ++(landed ? host.stats.writesLanded : host.stats.writesFailed);
    if (landed)
        noteCoverage(host, w.stationNo, w.regName, w.address, w.count);
    if (w.text.isEmpty())
        w.text = QStringLiteral("%1:%2 (%3 values)")
                     .arg(w.regName, addressText(w.regName, w.address))
                     .arg(w.count);
    if (!host.config.printEvents && !host.config.writeSink && !host.config.traceSink)
        return;
    const QString text = writeOutcomeText(w);
    eventLine(host, text, !landed);
    if (host.config.writeSink)
        host.config.writeSink(tag, landed, text);
}

// A write is done once nothing with its tag is left in the driver: its last
// frame was answered or abandoned, or it never needed one.
void settleWrites(Host &host)
{
    if (host.openWrites.isEmpty())
        return;
    const QSet<int> left = tagsLeftInDriver(host);
    for (auto it = host.openWrites.begin(); it != host.openWrites.end();) {
        if (left.contains(*it)) {
            ++it;
            continue;
        }
        const int tag = *it;
        it = host.openWrites.erase(it);
        finishWrite(host, tag, host.writes[tag]);
    }
}

// "read D_W 100 (10 words)": the request a frame serves.
QString requestText(const FRAME_PRO &f)
{
    if (f.frameLen == 0)
        return QStringLiteral("handshake");
    if (f.wordCount > 0)
        return QStringLiteral("read %1 (%2 words)")
            .arg(recordText(f.var.regName, f.var.address))
            .arg(f.wordCount);
    return QStringLiteral("write %1 (%2 values)")
        .arg(recordText(f.var.regName, f.var.address))
        .arg(f.var.count);
}

void reportBadReply(Host &host, const FRAME_PRO &f, const QByteArray &reply, int rc, WriteRecord *w)
{
    const int tries = qMax(1, host.props.retryTimes);
    const QString why = replyProblemText(f, reply, host.config.replyTimeoutMs);
    const QString tried = tries == 1 ? QStringLiteral("try") : QStringLiteral("tries");
    host.lastProblem = rc == RECEIVE_RETRY ? QStringLiteral("!! retry %1 of %2, %3: %4")
                                                 .arg(host.failStreak + 1)
                                                 .arg(tries)
                                                 .arg(requestText(f), why)
                                           : QStringLiteral("!! abandoned %1 after %2 %3: %4")
                                                 .arg(requestText(f))
                                                 .arg(tries)
                                                 .arg(tried, why);
    if (rc == RECEIVE_ABANDONED && w)
        w->failReason = host.lastProblem.mid(3);
    eventLine(host, host.lastProblem, true);
}

void notePlcState(Host &host)
{
    if (host.reportedAnswering && plcSilent(host)) {
        host.reportedAnswering = false;
        eventLine(host,
                  QStringLiteral("plc: not answering (no good reply for %1 ms)")
                      .arg(host.clock.elapsed() - host.waitingSinceMs),
                  true);
    } else if (!host.reportedAnswering && host.waitingSinceMs < 0) {
        host.reportedAnswering = true;
        eventLine(host, QStringLiteral("plc: answering again"), true);
    }
}

void account(Host &host, const FRAME_PRO &f, const QByteArray &reply, int rc, int notesBefore)
{
    const bool isWriteFrame = f.wordCount == 0 && f.frameLen > 0;
    WriteRecord *w = writeOf(host, f);
    switch (rc) {
    case RECEIVE_DONE:
        ++host.stats.goodReplies;
        host.lastGoodReplyMs = host.clock.elapsed();
        host.waitingSinceMs = -1;
        host.failStreak = 0;
        if (w && isWriteFrame)
            ++w->acked;
        if (f.wordCount > 0 && !w)
            noteGoodRead(host, f);
        if (isPollRead(f))
            countPollCycle(host, f, true);
        break;
    case RECEIVE_ABANDONED:
        ++host.stats.abandoned;
        reportBadReply(host, f, reply, rc, w);
        host.failStreak = 0;
        if (w) {
            ++w->failed;
            if (w->failNoteIndex < 0)
                w->failNoteIndex = notesBefore;
        }
        if (isPollRead(f))
            countPollCycle(host, f, false);
        break;
    case RECEIVE_RETRY:
        ++host.stats.retries;
        reportBadReply(host, f, reply, rc, w);
        ++host.failStreak;
        break;
    default:
        break;
    }
    settleWrites(host);
}

} // namespace

bool writeLanded(const WriteRecord &w)
{
    return w.done && w.failed == 0 && (w.acked > 0 || w.localOnly);
}

bool isBitRegister(const Host &host, const QString &regName)
{
    return host.bitRegisters.contains(regName);
}

QString parseWatch(Host &host, const QString &text, WatchItem &out)
{
    const QStringList parts = text.split(QLatin1Char(':'));
    if (parts.size() < 2 || parts.size() > 3 || parts[0].isEmpty() || parts[1].isEmpty())
        return QStringLiteral("'%1': expected REG:ADDRESS[:COUNT]").arg(text);
    WatchItem w;
    w.regName = parts[0];
    w.addressText = parts[1];
    if (parts.size() == 3) {
        bool ok = false;
        w.count = parts[2].toInt(&ok);
        if (!ok || w.count < 1)
            return QStringLiteral("'%1': the count must be a number of at least 1").arg(text);
    }
    w.isBit = isBitRegister(host, w.regName);
    const QString error =
        checkAddress(host, w.regName, w.addressText, w.count, ACCESS_READ, w.address);
    if (!error.isEmpty())
        return QStringLiteral("'%1': %2").arg(text, error);
    out = w;
    return QString();
}

QString parseWrite(Host &host, const QString &text, WriteItem &out)
{
    const int eq = text.indexOf(QLatin1Char('='));
    const QStringList where = text.left(eq).split(QLatin1Char(':'));
    if (eq < 0 || where.size() != 2 || where[0].isEmpty() || where[1].isEmpty())
        return QStringLiteral("'%1': expected REG:ADDRESS=VALUE").arg(text);
    WriteItem w;
    w.regName = where[0];
    w.addressText = where[1];
    w.isBit = isBitRegister(host, w.regName);
    for (const QString &v : text.mid(eq + 1).split(QLatin1Char(','))) {
        bool ok = false;
        const int value = v.trimmed().toInt(&ok, 0);
        const bool fits =
            w.isBit ? (value == 0 || value == 1) : (value >= -32768 && value <= 65535);
        if (!ok || !fits)
            return QStringLiteral("'%1': '%2' is not a %3")
                .arg(text, v,
                     w.isBit ? QStringLiteral("bit value (0 or 1)")
                             : QStringLiteral("16-bit value"));
        w.values.append(value);
    }
    const QString error =
        checkAddress(host, w.regName, w.addressText, w.values.size(), ACCESS_WRITE, w.address);
    if (!error.isEmpty())
        return QStringLiteral("'%1': %2").arg(text, error);
    out = w;
    return QString();
}

void addWatch(Host &host, const WatchItem &watch)
{
    KEY_ADDRESS key;
    key.stationNo = host.config.stationNo;
    key.regName = watch.regName;
    key.address = watch.address;
    key.count = watch.count;
    key.dataKind = watch.isBit ? -1 : 0;
    host.keys.append(key);
}

void startRun(Host &host)
{
    activeHost = &host;
    if (!host.clock.isValid())
        host.clock.start();
    host.props = parseProperties(host.config.properties);
    if (host.bitRegisters.isEmpty()) {
        QList<QString> names;
        host.api.getRegListByType(0, names);
        host.bitRegisters = names;
    }
    host.api.setAddrValueChangeCallBack(&onValueChange);
    const QByteArray props = host.config.properties.toLatin1();
    host.api.initProperty(host.statusBlock.data(), 0, host.recipeBuffer.data(), &host.runStatus,
                          props.constData(), &host.lock);
    host.readBlocks = host.api.addrMerge(&host.keys);
    if (!host.recipeVars.isEmpty())
        host.api.setRcpAddress(&host.recipeVars);
    host.pollReadsInCycle = 0;
    host.cycleTimer.invalidate();
}

int queueWrite(Host &host, const QString &regName, int address, int count, const QByteArray &data,
               const QString &text)
{
    const int tag = host.nextWriteTag++;
    WriteRecord w;
    w.text = text;
    w.stationNo = host.config.stationNo;
    w.regName = regName;
    w.address = address;
    w.count = count;
    w.localOnly = host.props.localWriteOnly != 0;
    host.writes.insert(tag, w);
    host.openWrites.insert(tag);
    QByteArray bytes = data;
    host.api.setData(host.config.stationNo, regName, address, count,
                     reinterpret_cast<unsigned char *>(bytes.data()), tag);
    settleWrites(host); // a local write, or one the driver refused, is done at once
    return tag;
}

int queueWriteItem(Host &host, const WriteItem &item)
{
    QByteArray data;
    for (int v : item.values) {
        data.append(char(v & 0xFF));
        if (!item.isBit)
            data.append(char((v >> 8) & 0xFF));
    }
    return queueWrite(
        host, item.regName, item.address, item.values.size(), data,
        QStringLiteral("%1:%2 = %3").arg(item.regName, item.addressText, valuesText(item.values)));
}

void queueConditionRead(Host &host, const QString &regName, int address, int count)
{
    KEY_ADDRESS key;
    key.stationNo = host.config.stationNo;
    key.regName = regName;
    key.address = address;
    key.count = count;
    key.dataKind = isBitRegister(host, regName) ? -1 : 0;
    host.api.addConditionRead(key, CONDITION_TAG);
}

void requestRecipe(Host &host, bool download)
{
    QMutexLocker locker(&host.lock);
    host.statusBlock[download ? STATUS_RECIPE_WRITE : STATUS_RECIPE_READ] = 1;
}

bool recipePending(Host &host, bool download)
{
    QMutexLocker locker(&host.lock);
    return host.statusBlock[download ? STATUS_RECIPE_WRITE : STATUS_RECIPE_READ] != 0;
}

QVector<int> shownValues(Host &host, const QString &regName, int address, int count)
{
    const bool bit = isBitRegister(host, regName);
    QByteArray out((bit ? 1 : 2) * qMax(count, 0), '\0');
    host.api.getData(host.config.stationNo, regName, address, count,
                     reinterpret_cast<unsigned char *>(out.data()));
    QVector<int> values;
    for (int i = 0; i < count; ++i)
        values.append(bit ? quint8(out[i])
                          : int(quint8(out[2 * i]) | (quint8(out[2 * i + 1]) << 8)));
    return values;
}

void serveEventsFor(int ms)
{
    QEventLoop loop;
    QTimer::singleShot(qMax(0, ms), &loop, &QEventLoop::quit);
    loop.exec();
}

Step exchangeOnce(Host &host)
{
    if (host.config.beforeExchange)
        host.config.beforeExchange();
    if (!ensureLink(host)) {
        notePlcState(host);
        serveEventsFor(host.config.pollIntervalMs);
        return Step::LinkDown;
    }
    FRAME_PRO &f = *host.frame;
    if (host.api.getSendFrame(&f) != 1) {
        serveEventsFor(host.config.pollIntervalMs);
        return Step::Idle;
    }
    if (isPollRead(f) && !host.cycleTimer.isValid())
        host.cycleTimer.start();
    QByteArray &reply = host.reply;
    if (reply.capacity() < FRAME_BYTES)
        reply.reserve(FRAME_BYTES); // kept: resize(0) then frees nothing
    reply.resize(0);
    const int frameLen = qBound(0, f.frameLen, int(FRAME_BYTES));
    if (frameLen > 0) {
        QIODevice &device = *deviceOf(host);
        const QByteArray bytes =
            QByteArray::fromRawData(reinterpret_cast<const char *>(f.frame), frameLen);
        sendBytes(host, device, bytes);
        ++host.stats.framesSent;
        if (host.waitingSinceMs < 0)
            host.waitingSinceMs = host.clock.elapsed();
        traceLine(host, QStringLiteral("->"), bytes);
        collectReply(host, device, f.replyLen, reply);
        traceLine(host, QStringLiteral("<-"), reply);
    }
    const int notesBefore = host.notes.size();
    host.receiving = true;
    const int rc = host.api.dealRcvFrame(reply, host.description);
    host.receiving = false;
    account(host, f, reply, rc, notesBefore);
    if (!host.heldNotes.isEmpty())
        deliverHeldNotes(host);
    notePlcState(host);
    return Step::Exchanged;
}

int runFor(Host &host, int maxExchanges, int maxMs, const std::function<bool()> &done)
{
    QElapsedTimer timer;
    timer.start();
    int steps = 0;
    while (steps < maxExchanges && timer.elapsed() < maxMs) {
        if (done && done())
            break;
        exchangeOnce(host);
        ++steps;
    }
    return steps;
}

QString formatNotification(const Host &host, const Notification &note)
{
    const QString where = addressText(note.name, note.address);
    const QString time = note.wallTime.toString(QStringLiteral("HH:mm:ss.zzz"));
    const QString value =
        !note.known ? QStringLiteral("unknown (the PLC's value was never read)")
        : isBitRegister(host, note.name)
            ? QString::number(note.value)
            : QStringLiteral("%1 (0x%2)")
                  .arg(note.value)
                  .arg(QStringLiteral("%1").arg(note.value, 4, 16, QLatin1Char('0')).toUpper());
    return QStringLiteral("%1  station %2  %3 %4 = %5")
        .arg(time)
        .arg(note.stationNo)
        .arg(note.name, where, value);
}

QString summaryText(const Host &host)
{
    const HostStats &s = host.stats;
    const double measured = measuredCycleMs(host);
    QString cycle =
        measured >= 0
            ? QStringLiteral("%1 ms over %2 cycles").arg(measured, 0, 'f', 2).arg(s.pollCycles)
            : QStringLiteral("n/a (no complete cycle)");
    const double planned = plannedCycleMs(host);
    if (planned > 0)
        cycle += QStringLiteral(" (line time planned %1 ms)").arg(planned, 0, 'f', 2);
    return QStringLiteral("summary: frames sent %1, good replies %2, retries %3, "
                          "abandoned requests %4, average poll cycle %5, writes landed %6, "
                          "writes failed %7, link drops %8, reconnects %9; link %10, PLC %11")
        .arg(s.framesSent)
        .arg(s.goodReplies)
        .arg(s.retries)
        .arg(s.abandoned)
        .arg(cycle)
        .arg(s.writesLanded)
        .arg(s.writesFailed)
        .arg(s.linkDrops)
        .arg(s.reconnects)
        .arg(linkStateText(linkState(host)), plcStateText(host));
}

} // namespace xbchost
