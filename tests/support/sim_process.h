// xbc-plc-sim as its own process for the C++ tests: started with its control
// channel, told what to do, stopped. The scripts use scripts/sim-process.sh.
#ifndef XBC_TEST_SIM_PROCESS_H
#define XBC_TEST_SIM_PROCESS_H

#include <QProcess>
#include <QString>
#include <QStringList>

#include <memory>

namespace xbctest {

struct SimProcess {
    QString program;
    QStringList args; // options of every start, besides --control and the link
    bool pty = false; // serve a pseudo-terminal (--pty --no-tcp) instead of TCP
    quint16 port = 0; // 0: any at first; known once started, a restart keeps it
    QString ptyPath;
    std::unique_ptr<QProcess> process;
    QByteArray output; // standard output not yet consumed
};

// Starts `program args... --control` and waits for the line that says where it
// listens ("tcp 127.0.0.1:PORT" or "pty PATH").
bool startSim(SimProcess &sim, QString *error);
// Sends one control command; answer gets what follows "ok" (may be empty).
// False with the simulator's answer or the reason in error.
bool simCommand(SimProcess &sim, const QString &command, QString *answer, QString *error);
// Closes its input (it stops at end of input) and waits for it; kills it if
// it does not stop.
void stopSim(SimProcess &sim);

// Values of the simulator's memory through "read REG ADDRESS COUNT".
bool simValues(SimProcess &sim, const QString &reg, const QString &address, int count,
               QVector<int> &out, QString *error);

} // namespace xbctest

#endif
