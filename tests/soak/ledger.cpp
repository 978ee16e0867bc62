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
    QVector<Unit> units;
    for (int i = 0; i < values.size(); ++i) {
        const int v = values[i];
        if (regName == QLatin1String("D_W")) {
            units.append({locKey(LOC_D_WORD, address + i), v & 0xFFFF});
        } else if (regName == QLatin1String("M_W")) {
            for (int b = 0; b < BITS_PER_WORD; ++b)
                units.append({locKey(LOC_M_BIT, (address + i) * BITS_PER_WORD + b), (v >> b) & 1});
        } else if (regName == QLatin1String("M_bit")) {
            units.append({locKey(LOC_M_BIT, address + i), v != 0});
        } else if (regName == QLatin1String("TX")) {
            units.append({locKey(LOC_TX, address + i), v != 0});
        } else if (regName == QLatin1String("CX")) {
            units.append({locKey(LOC_CX, address + i), v != 0});
        }
    }
    return units;
}

// Counts a write that is no longer the last one anywhere by what the host saw
// of its frames; whether it held can no longer be seen in the PLC.
void countOverwritten(Outcomes &out, const xbchost::WriteRecord *record)
{
    ++out.writes;
    if (record && record->failed > 0)
        ++out.failed;
    else if (record && record->acked > 0)
        ++out.acknowledged;
    else
        ++out.replacedInQueue; // a later request for the same place took its slot
}

const xbchost::WriteRecord *recordOf(const xbchost::Host &host, int tag)
{
    const auto it = host.writes.constFind(tag);
    return it == host.writes.constEnd() ? nullptr : &it.value();
}

} // namespace

QString locationText(int key)
{
    static const char *const names[LOC_KINDS] = {"D_W", "M_bit", "TX", "CX"};
    const int kind = key / 1000000;
    const int unit = key % 1000000;
    if (kind == LOC_M_BIT)
        return QStringLiteral("M_bit %1.%2").arg(unit / BITS_PER_WORD).arg(unit % BITS_PER_WORD);
    return QStringLiteral("%1 %2").arg(QLatin1String(names[kind])).arg(unit);
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
    entry.regName = regName;
    entry.address = address;
    entry.count = values.size();
    for (const Unit &u : unitsOf(regName, address, values)) {
        LocState &loc = ledger.locations[u.key];
        auto previous = ledger.writes.find(loc.lastWriter);
        if (previous != ledger.writes.end() && --previous->stillLast == 0)
            previous->supersededAtMs = nowMs;
        loc.lastWriter = tag;
        loc.writtenValue = u.value;
        loc.issuedAtNote = ledger.noteSeq;
        entry.keys.append(u.key);
        ++entry.stillLast;
    }
    ledger.writes.insert(tag, entry);
}

void foldOverwritten(Ledger &ledger, xbchost::Host &host, qint64 nowMs, qint64 graceMs)
{
    for (auto it = ledger.writes.begin(); it != ledger.writes.end();) {
        if (it->supersededAtMs < 0 || nowMs - it->supersededAtMs < graceMs) {
            ++it;
            continue;
        }
        countOverwritten(ledger.outcomes, recordOf(host, it.key()));
        host.writes.remove(it.key());
        it = ledger.writes.erase(it);
    }
}

void checkFinalWrites(Ledger &ledger, xbchost::Host &host, const QHash<int, int> &simByKey)
{
    Outcomes &out = ledger.outcomes;
    for (auto it = ledger.writes.begin(); it != ledger.writes.end(); ++it) {
        const int tag = it.key();
        const xbchost::WriteRecord *record = recordOf(host, tag);
        if (it->stillLast == 0) {
            countOverwritten(out, record);
            continue;
        }
        ++out.writes;
        bool fellBack = false;
        bool lost = false;
        for (int key : it->keys) {
            const LocState &loc = ledger.locations[key];
            if (loc.lastWriter != tag)
                continue;
            const int inPlc = simByKey.value(key, -1);
            if (inPlc == loc.writtenValue)
                continue;
            // Not in the PLC: the screens must have been told, after the write
            // was queued, that the location shows the PLC's value again.
            if (loc.lastNoteSeq > loc.issuedAtNote && loc.lastNoteValue == inPlc) {
                fellBack = true;
                continue;
            }
            lost = true;
            out.lostDetails
                << QStringLiteral("write %1 (%2 %3, %4 values): %5 written %6, PLC holds %7; "
                                  "frames acknowledged %8, failed %9; %10")
                       .arg(tag)
                       .arg(it->regName)
                       .arg(it->address)
                       .arg(it->count)
                       .arg(locationText(key))
                       .arg(loc.writtenValue)
                       .arg(inPlc)
                       .arg(record ? record->acked : -1)
                       .arg(record ? record->failed : -1)
                       .arg(loc.lastNoteSeq > loc.issuedAtNote
                                ? QStringLiteral("last notified value %1").arg(loc.lastNoteValue)
                                : QStringLiteral("no notification since"));
        }
        if (lost)
            ++out.lost;
        else if (fellBack)
            ++out.fellBack;
        else
            ++out.held;
    }
    ledger.writes.clear();
}

} // namespace soak
