// Fault soak: the driver, loaded by the runtime stand-in, against the
// simulator running as its own process with faults on its replies, over TCP on
// loopback or a pseudo-terminal. Random writes, condition reads, recipe
// transfers and link drops for a given time; then faults off, a settled loop,
// and the checks a runtime relies on.
#ifndef XBC_SOAK_H
#define XBC_SOAK_H

// The driver header (through the host's) first: Qt's keyword macros must not
// reach it.
#include "xbc_host.h"

#include "sim_process.h"

#include <QHash>
#include <QString>
#include <QVector>

#include <memory>
#include <random>

namespace soak {

using xbctest::SimProcess;

// ---------------------------------------------------------------------------
// What was written and what the screens were told, per location.

// A location is a word of D, a bit of M (M_bit and M_W writes both land on
// bits), or a TX or CX contact.
enum LocKind { LOC_D_WORD, LOC_M_BIT, LOC_TX, LOC_CX, LOC_KINDS };
inline int locKey(int kind, int unit)
{
    return kind * 1000000 + unit;
}

struct LocState {
    int lastWriter = 0; // tag of the last write that covers it; 0: none
    int writtenValue = 0;
    qint64 issuedAtNote = 0; // note count when the last write was queued
    qint64 lastNoteSeq = 0;  // 0: never notified
    int lastNoteValue = 0;
};

struct WriteEntry {
    QString regName;
    int address = 0;
    int count = 0;
    QVector<int> keys; // locations it covers
    int stillLast = 0; // locations where it is the last write
    qint64 supersededAtMs = -1;
};

struct Outcomes {
    int writes = 0;
    int acknowledged = 0; // overwritten later; their frames were acknowledged
    int failed = 0;       // overwritten later; reported failed
    int replacedInQueue = 0;
    int held = 0;     // last write of its locations; the simulator holds it
    int fellBack = 0; // last write, not held, the screens were notified
    int lost = 0;
    QStringList lostDetails;
};

struct Ledger {
    QHash<int, LocState> locations;
    QHash<int, WriteEntry> writes; // by request tag
    qint64 noteSeq = 0;
    Outcomes outcomes;
};

// Locations a notification speaks for, with the value shown then.
void recordNote(Ledger &ledger, const xbchost::Notification &note);
// After the write was queued through the host.
void recordWrite(Ledger &ledger, int tag, const QString &regName, int address,
                 const QVector<int> &values, qint64 nowMs);
// Counts and forgets writes overwritten at least graceMs ago, so that a long
// run keeps a bounded ledger; drops the host's records of them too.
void foldOverwritten(Ledger &ledger, xbchost::Host &host, qint64 nowMs, qint64 graceMs);

// The final check against the simulator's memory per location key: every
// last write of a location is held, or the screens were told the value fell
// back; the others are counted from the host's records.
void checkFinalWrites(Ledger &ledger, xbchost::Host &host, const QHash<int, int> &simByKey);
QString locationText(int key);

// ---------------------------------------------------------------------------
// The random work of the run.

// Written and watched: D_W words, M bits (as M_bit and M_W), TX, CX.
enum {
    D_WORDS = 200,
    M_WORDS = 16,
    CONTACTS = 64,
};

struct WorkStats {
    int conditionReads = 0;
    int downloads = 0;
    int uploads = 0;
    int linkDropsByClose = 0;
    int restarts = 0;
};

struct Work {
    std::mt19937 rng;
    WorkStats stats;
    qint64 nextLinkDropMs = 0;
    qint64 lastWorkMs = 0;
    double writeBudget = 0;
    QStringList simStats; // "stats" answers of the faulty part of each simulator run
};

// Watches and recipe variables, before startRun.
void planWatchesAndRecipes(xbchost::Host &host);
// One step of random work: writes, a condition read when none is open, a
// recipe transfer when none is pending.
void randomWork(Work &work, xbchost::Host &host, Ledger &ledger);
bool conditionReadOpen(const xbchost::Host &host, const Work &work);
bool recipePending(xbchost::Host &host);
// Closes the link from the simulator's side or restarts it with its memory
// kept; points the host at the new pseudo-terminal when there is one.
bool dropLinkNow(Work &work, xbchost::Host &host, SimProcess &sim, const QString &memoryFile,
                 QString *error);
// Recipe round trip without faults: download, the simulator holds it, upload
// gives it back. Empty text on success.
QString checkRecipeRoundTrip(xbchost::Host &host, SimProcess &sim);

// Peak resident set of this process in KiB.
long peakRssKib();

} // namespace soak

#endif
