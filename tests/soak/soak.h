// Fault soak: the driver, loaded by the runtime stand-in, against the
// simulator running as its own process with faults on its replies, over TCP on
// loopback or a pseudo-terminal. Random writes, condition reads, recipe
// transfers and link drops for a given time; then faults off, a settled loop,
// and the checks a runtime relies on.
#ifndef XBC_SOAK_H
#define XBC_SOAK_H

// The driver header (through the host's) first: Qt's keyword macros must not
// reach it.
#include "host_helpers.h"
#include "sim_process.h"

#include <random>

namespace soak {

using xbchost::Host;
using xbctest::SimProcess;

// Written and watched: D_W words, M bits (as M_bit and M_W), TX, CX.
enum { D_WORDS = 200, M_WORDS = 16, M_BITS = M_WORDS * 16, CONTACTS = 64 };

// ---------------------------------------------------------------------------
// What was written and what the screens were told, per location: a word of D,
// a bit of M (M_bit and M_W writes both land on bits), a TX or CX contact.

enum LocKind { LOC_D_WORD, LOC_M_BIT, LOC_TX, LOC_CX, LOC_M_WORD };
constexpr int LOC_KIND_SPAN = 1000000;
inline int locKey(int kind, int unit)
{
    return kind * LOC_KIND_SPAN + unit;
}
QString locationText(int key);

struct LocState {
    int lastWriter = 0; // tag of the last write that covers it; 0: none
    int writtenValue = 0;
    qint64 issuedAtNote = 0; // note count when the last write was queued
    qint64 lastNoteSeq = 0;  // 0: never notified
    int lastNoteValue = 0;
};

struct WriteEntry {
    QString what; // "REG ADDRESS, N values"
    QVector<int> keys;
    int stillLast = 0; // locations where it is the last write
    qint64 supersededAtMs = -1;
};

// Last writes of their locations: held in the simulator, or fell back with a
// notification, or lost. Overwritten ones by what the host saw of their frames.
struct Outcomes {
    int held = 0, fellBack = 0, acknowledged = 0, failed = 0, replacedInQueue = 0;
    QStringList lost;
};

struct Ledger {
    QHash<int, LocState> locations;
    QHash<int, WriteEntry> writes; // by request tag
    qint64 noteSeq = 0;
    Outcomes outcomes;
};

void recordNote(Ledger &ledger, const xbchost::Notification &note);
void recordWrite(Ledger &ledger, int tag, const QString &regName, int address,
                 const QVector<int> &values, qint64 nowMs);
// Counts and forgets writes overwritten at least graceMs ago, so that a long
// run keeps a bounded ledger; drops the host's records of them too.
void foldOverwritten(Ledger &ledger, Host &host, qint64 nowMs, qint64 graceMs);
// The end of the run, against the simulator's memory per location key.
void checkFinalWrites(Ledger &ledger, Host &host, const QHash<int, int> &simByKey);

// ---------------------------------------------------------------------------
// The random work of the run.

struct Work {
    std::mt19937 rng;
    int conditionReads = 0, downloads = 0, uploads = 0, linkCloses = 0, restarts = 0;
    qint64 lastWorkMs = 0;
    double writeBudget = 0;
    QStringList simStats; // "stats" answers of the faulty part of each simulator run
};

// Watches and recipe variables, before startRun.
void planWatchesAndRecipes(Host &host);
// Writes, a condition read when none is open, a recipe transfer when none is
// pending.
void randomWork(Work &work, Host &host, Ledger &ledger);
bool conditionReadOpen(const Host &host, const Work &work);
bool recipePending(Host &host);
// Closes the link from the simulator's side or restarts it with its memory
// kept; points the host at the new pseudo-terminal when there is one.
bool dropLinkNow(Work &work, Host &host, SimProcess &sim, const QString &memoryFile,
                 QString *error);
// Download, the simulator holds it, upload gives it back. Empty on success.
QString checkRecipeRoundTrip(Host &host, SimProcess &sim);

// Peak resident set of this process in KiB.
long peakRssKib();

} // namespace soak

#endif
