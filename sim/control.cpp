// The control channel: a program that runs the simulator as a process tells it
// what a test needs (faults off, a dropped link, its memory) without going
// through the protocol under test.
#include "xbc_sim.h"

#include <QFile>
#include <QMutexLocker>
#include <QSocketNotifier>

#include <memory>
#include <unistd.h>

namespace xbcsim {

namespace {

enum { MAX_READ_UNITS = 4096, READ_CHUNK = 4096 };

const char COMMAND_NAMES[] = "faults, drop link, read, save, load, stats";

QString ok(const QString &rest = QString())
{
    return rest.isEmpty() ? QStringLiteral("ok") : QStringLiteral("ok ") + rest;
}

QString error(const QString &why)
{
    return QStringLiteral("error ") + why;
}

QString tooLong()
{
    return error(
        QStringLiteral("line too long (at most %1 characters)").arg(MAX_CONTROL_LINE_BYTES));
}

// Every area, in area order, as little-endian 16-bit words.
QByteArray memoryImage(Simulator &sim)
{
    QMutexLocker locker(&sim.lock);
    QByteArray bytes;
    for (int a = 0; a < AREA_COUNT; ++a) {
        for (quint16 w : sim.memory.areas[a]) {
            bytes.append(char(w & 0xFF));
            bytes.append(char(w >> 8));
        }
    }
    return bytes;
}

int memoryImageBytes()
{
    int words = 0;
    for (int a = 0; a < AREA_COUNT; ++a)
        words += areaInfo(a).words;
    return 2 * words;
}

QString saveMemory(Simulator &sim, const QString &path)
{
    QFile file(path);
    const QByteArray image = memoryImage(sim);
    if (!file.open(QIODevice::WriteOnly) || file.write(image) != image.size())
        return error(QStringLiteral("cannot write %1: %2").arg(path, file.errorString()));
    return ok();
}

QString loadMemory(Simulator &sim, const QString &path)
{
    QFile file(path);
    if (!file.open(QIODevice::ReadOnly))
        return error(QStringLiteral("cannot read %1: %2").arg(path, file.errorString()));
    const QByteArray image = file.readAll();
    if (image.size() != memoryImageBytes())
        return error(QStringLiteral("%1 holds %2 bytes, a memory image %3")
                         .arg(path)
                         .arg(image.size())
                         .arg(memoryImageBytes()));
    QMutexLocker locker(&sim.lock);
    int at = 0;
    for (int a = 0; a < AREA_COUNT; ++a) {
        for (quint16 &w : sim.memory.areas[a]) {
            w = quint16(quint8(image[at]) | (quint8(image[at + 1]) << 8));
            at += 2;
        }
    }
    return ok();
}

// "read D_W 100 4", "read M_bit 3.4 20", "read TX 7 3": words or bits from
// the address on, in the register's own notation.
QString readValues(Simulator &sim, const QStringList &args)
{
    bool okCount = false;
    const int count = args.value(2).toInt(&okCount);
    if (args.size() != 3 || !okCount || count < 1 || count > MAX_READ_UNITS)
        return error(
            QStringLiteral("expected: read REGISTER ADDRESS COUNT (1 to %1)").arg(MAX_READ_UNITS));
    Location loc;
    const QString why = parseLocation(args[0] + QLatin1Char(':') + args[1], loc);
    if (!why.isEmpty())
        return error(why);
    const int first = loc.isBit ? loc.bitAddress : loc.word;
    const int unitsInArea = areaInfo(loc.area).words * (loc.isBit ? 16 : 1);
    if (first + count > unitsInArea)
        return error(QStringLiteral("%1 values from %2 run past the area").arg(count).arg(args[1]));
    QStringList values;
    QMutexLocker locker(&sim.lock);
    for (int i = 0; i < count; ++i)
        values << QString::number(loc.isBit ? int(bitAt(sim.memory, loc.area, first + i))
                                            : int(wordAt(sim.memory, loc.area, first + i)));
    return ok(values.join(QLatin1Char(' ')));
}

QString setFaultSpec(Simulator &sim, const QString &spec)
{
    FaultConfig faults;
    if (spec != QLatin1String("off")) {
        const QString why = parseFaultSpec(spec, faults);
        if (!why.isEmpty())
            return error(why);
    }
    setFaults(sim, faults);
    return ok();
}

QString statsText(Simulator &sim)
{
    const SimStats s = statsOf(sim);
    QStringList items{QStringLiteral("requests %1 naks %2").arg(s.requests).arg(s.naks)};
    items << faultCountTexts(faultCountersOf(sim));
    return ok(items.join(QLatin1Char(' ')));
}

} // namespace

QString dropLink(Simulator &sim)
{
    closeClients(sim);
    if (!sim.pty)
        return QString();
    closePty(sim);
    QString why;
    return startPty(sim, &why);
}

QString controlCommand(Simulator &sim, const QString &line)
{
    const QStringList words = line.simplified().split(QLatin1Char(' '), Qt::SkipEmptyParts);
    const QString name = words.value(0);
    const QStringList args = words.mid(1);
    if (name == QLatin1String("faults") && args.size() == 1)
        return setFaultSpec(sim, args[0]);
    if (name == QLatin1String("drop") && args == QStringList{QStringLiteral("link")}) {
        const bool hadPty = sim.pty != nullptr;
        const QString path = dropLink(sim);
        if (hadPty && path.isEmpty())
            return error(QStringLiteral("cannot open a new pseudo-terminal"));
        return ok(hadPty ? QStringLiteral("pty ") + path : QString());
    }
    if (name == QLatin1String("read"))
        return readValues(sim, args);
    if (name == QLatin1String("save") && args.size() == 1)
        return saveMemory(sim, args[0]);
    if (name == QLatin1String("load") && args.size() == 1)
        return loadMemory(sim, args[0]);
    if (name == QLatin1String("stats") && args.isEmpty())
        return statsText(sim);
    if (name.isEmpty())
        return error(QStringLiteral("empty line: expected a command (%1)")
                         .arg(QLatin1String(COMMAND_NAMES)));
    return error(QStringLiteral("unknown command '%1' (%2)")
                     .arg(line.simplified(), QLatin1String(COMMAND_NAMES)));
}

QObject *startControl(Simulator &sim, int fd, const std::function<void(const QString &)> &answer,
                      const std::function<void()> &atEnd)
{
    struct Input {
        QByteArray pending;
        bool skipping = false; // in a line already answered as too long
    };
    auto *notifier = new QSocketNotifier(fd, QSocketNotifier::Read);
    auto input = std::make_shared<Input>();
    const auto answerLine = [&sim, input, answer](const QByteArray &line) {
        if (input->skipping)
            input->skipping = false;
        else if (line.size() > MAX_CONTROL_LINE_BYTES)
            answer(tooLong());
        else
            answer(controlCommand(sim, QString::fromLocal8Bit(line)));
    };
    QObject::connect(notifier, &QSocketNotifier::activated, notifier,
                     [fd, notifier, input, answer, answerLine, atEnd]() {
                         char buffer[READ_CHUNK];
                         const ssize_t n = ::read(fd, buffer, sizeof buffer);
                         if (n <= 0) {
                             notifier->setEnabled(false);
                             if (!input->pending.isEmpty())
                                 answerLine(input->pending); // a last line without its newline
                             if (atEnd)
                                 atEnd();
                             return;
                         }
                         input->pending.append(buffer, int(n));
                         int eol;
                         while ((eol = input->pending.indexOf('\n')) >= 0) {
                             answerLine(input->pending.left(eol));
                             input->pending.remove(0, eol + 1);
                         }
                         if (input->pending.size() > MAX_CONTROL_LINE_BYTES) {
                             // One answer for the whole line; the rest of it is skipped.
                             if (!input->skipping)
                                 answer(tooLong());
                             input->skipping = true;
                             input->pending.clear();
                         }
                     });
    return notifier;
}

} // namespace xbcsim
