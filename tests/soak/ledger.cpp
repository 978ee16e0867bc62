// Book-keeping of the soak: the last write of every location and the last
// value the screens were told, so that the end of the run can tell a write that
// landed from one that fell back with a notification, and both from a lost one.
#include "soak.h"

namespace soak {

namespace {

enum { BITS_PER_WORD = 16 };

struct Unit {
    int key;
    int value;
};

// The locations a value of a register at an address stands for.
QVector<Unit> unitsOf(const QString &regName, int address, const QVector<int> &values)
{
    static const QHash<QString, int> kinds{{QStringLiteral("D_W"), LOC_D_WORD},
                                           {QStringLiteral("M_bit"), LOC_M_BIT},
                                           {QStringLiteral("TX"), LOC_TX},
                                           {QStringLiteral("CX"), LOC_CX}};
    QVector<Unit> units;
    for (int i = 0; i < values.size(); ++i) {
        if (regName == QLatin1String("M_W")) {
            for (int b = 0; b < BITS_PER_WORD; ++b)
                units.append(
                    {locKey(LOC_M_BIT, (address + i) * BITS_PER_WORD + b), (values[i] >> b) & 1});
        } else if (kinds.contains(regName)) {
            const int kind = kinds.value(regName);
            units.append({locKey(kind, address + i),
                          kind == LOC_D_WORD ? values[i] & 0xFFFF : int(values[i] != 0)});
        }
    }
    return units;
}

// A write no longer the last one anywhere, by what the host saw of its frames.
void countOverwritten(Outcomes &out, const Host &host, int tag)
{
    const xbchost::WriteRecord record = host.writes.value(tag);
    if (record.failed > 0)
        ++out.failed;
    else if (record.acked > 0)
        ++out.acknowledged;
    else
        ++out.replacedInQueue; // a later request for the same place took its slot
}

} // namespace

QString locationText(int key)
{
    const int kind = key / LOC_KIND_SPAN, unit = key % LOC_KIND_SPAN;
    if (kind == LOC_M_BIT)
        return QStringLiteral("M_bit %1.%2").arg(unit / BITS_PER_WORD).arg(unit % BITS_PER_WORD);
    return QStringLiteral("%1 %2")
        .arg(QLatin1String(kind == LOC_D_WORD ? "D_W"
                           : kind == LOC_TX   ? "TX"
                                              : "CX"))
        .arg(unit);
}

void recordNote(Ledger &ledger, const xbchost::Notification &note)
{
    ++ledger.noteSeq;
    for (const Unit &u : unitsOf(note.name, note.address, {note.value})) {
        LocState &loc = ledger.locations[u.key];
        loc.lastNoteSeq = ledger.noteSeq;
        loc.lastNoteValue = u.value;
    }
}

void recordWrite(Ledger &ledger, int tag, const QString &regName, int address,
                 const QVector<int> &values, qint64 nowMs)
{
    WriteEntry entry;
    entry.what = QStringLiteral("%1 %2, %3 values").arg(regName).arg(address).arg(values.size());
    for (const Unit &u : unitsOf(regName, address, values)) {
        LocState &loc = ledger.locations[u.key];
        auto previous = ledger.writes.find(loc.lastWriter);
        if (previous != ledger.writes.end() && --previous->stillLast == 0)
            previous->supersededAtMs = nowMs;
        loc = {tag, u.value, ledger.noteSeq, loc.lastNoteSeq, loc.lastNoteValue};
        entry.keys.append(u.key);
        ++entry.stillLast;
    }
    ledger.writes.insert(tag, entry);
}

void foldOverwritten(Ledger &ledger, Host &host, qint64 nowMs, qint64 graceMs)
{
    for (auto it = ledger.writes.begin(); it != ledger.writes.end();) {
        if (it->supersededAtMs < 0 || nowMs - it->supersededAtMs < graceMs) {
            ++it;
            continue;
        }
        countOverwritten(ledger.outcomes, host, it.key());
        host.writes.remove(it.key());
        it = ledger.writes.erase(it);
    }
}

void checkFinalWrites(Ledger &ledger, Host &host, const QHash<int, int> &simByKey)
{
    Outcomes &out = ledger.outcomes;
    for (auto it = ledger.writes.begin(); it != ledger.writes.end(); ++it) {
        if (it->stillLast == 0) {
            countOverwritten(out, host, it.key());
            continue;
        }
        bool fellBack = false, lost = false;
        for (int key : it->keys) {
            const LocState &loc = ledger.locations[key];
            const int inPlc = simByKey.value(key, -1);
            if (loc.lastWriter != it.key() || inPlc == loc.writtenValue)
                continue;
            // Not in the PLC: the screens must have been told, after the write
            // was queued, that the location shows the PLC's value again.
            const bool toldSince = loc.lastNoteSeq > loc.issuedAtNote;
            if (toldSince && loc.lastNoteValue == inPlc) {
                fellBack = true;
                continue;
            }
            lost = true;
            const xbchost::WriteRecord record = host.writes.value(it.key());
            out.lost
                << QStringLiteral("write %1 (%2): %3 written %4, PLC holds %5; frames "
                                  "acknowledged %6, failed %7; %8")
                       .arg(it.key())
                       .arg(it->what, locationText(key))
                       .arg(loc.writtenValue)
                       .arg(inPlc)
                       .arg(record.acked)
                       .arg(record.failed)
                       .arg(toldSince
                                ? QStringLiteral("last notified value %1").arg(loc.lastNoteValue)
                                : QStringLiteral("no notification since"));
        }
        if (!lost)
            ++(fellBack ? out.fellBack : out.held);
    }
    ledger.writes.clear();
}

} // namespace soak
