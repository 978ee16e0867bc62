#include "sim_process.h"

#include <QElapsedTimer>
#include <QVector>

namespace xbctest {

namespace {

enum { START_TIMEOUT_MS = 10000, ANSWER_TIMEOUT_MS = 10000, STOP_TIMEOUT_MS = 5000 };

bool takeLine(SimProcess &sim, QString &line, int timeoutMs)
{
    QElapsedTimer timer;
    timer.start();
    for (;;) {
        const int eol = sim.output.indexOf('\n');
        if (eol >= 0) {
            line = QString::fromLocal8Bit(sim.output.left(eol)).trimmed();
            sim.output.remove(0, eol + 1);
            return true;
        }
        const qint64 left = timeoutMs - timer.elapsed();
        if (left <= 0 || sim.process->state() != QProcess::Running)
            return false;
        if (sim.process->waitForReadyRead(int(left)))
            sim.output += sim.process->readAllStandardOutput();
    }
}

} // namespace

bool startSim(SimProcess &sim, QString *error)
{
    QStringList args = sim.args;
    args << QStringLiteral("--control");
    if (sim.pty)
        args << QStringLiteral("--pty") << QStringLiteral("--no-tcp");
    else if (sim.port != 0)
        args << QStringLiteral("--port") << QString::number(sim.port);
    sim.process = std::make_unique<QProcess>();
    sim.process->setProcessChannelMode(QProcess::ForwardedErrorChannel);
    sim.output.clear();
    sim.process->start(sim.program, args);
    if (!sim.process->waitForStarted(START_TIMEOUT_MS)) {
        *error = QStringLiteral("cannot start %1: %2").arg(sim.program, sim.process->errorString());
        return false;
    }
    const QString ready = sim.pty ? QStringLiteral("pty ") : QStringLiteral("tcp 127.0.0.1:");
    QString line;
    while (takeLine(sim, line, START_TIMEOUT_MS)) {
        if (!line.startsWith(ready))
            continue;
        const QString where = line.mid(ready.size());
        if (sim.pty)
            sim.ptyPath = where;
        else
            sim.port = quint16(where.toUInt());
        return true;
    }
    *error = QStringLiteral("%1 did not report where it listens").arg(sim.program);
    return false;
}

bool simCommand(SimProcess &sim, const QString &command, QString *answer, QString *error)
{
    sim.process->write(command.toLocal8Bit() + '\n');
    sim.process->waitForBytesWritten(ANSWER_TIMEOUT_MS);
    QString line;
    while (takeLine(sim, line, ANSWER_TIMEOUT_MS)) {
        if (line == QLatin1String("ok") || line.startsWith(QLatin1String("ok "))) {
            if (answer)
                *answer = line.mid(3);
            return true;
        }
        if (line.startsWith(QLatin1String("error"))) {
            *error = QStringLiteral("simulator: '%1': %2").arg(command, line);
            return false;
        }
    }
    *error = QStringLiteral("simulator: no answer to '%1'").arg(command);
    return false;
}

bool simValues(SimProcess &sim, const QString &reg, const QString &address, int count,
               QVector<int> &out, QString *error)
{
    QString answer;
    if (!simCommand(sim, QStringLiteral("read %1 %2 %3").arg(reg, address).arg(count), &answer,
                    error))
        return false;
    out.clear();
    for (const QString &v : answer.split(QLatin1Char(' '), Qt::SkipEmptyParts))
        out.append(v.toInt());
    if (out.size() == count)
        return true;
    *error = QStringLiteral("simulator: %1 values for a read of %2").arg(out.size()).arg(count);
    return false;
}

void stopSim(SimProcess &sim)
{
    if (!sim.process)
        return;
    sim.process->closeWriteChannel();
    if (!sim.process->waitForFinished(STOP_TIMEOUT_MS)) {
        sim.process->kill();
        sim.process->waitForFinished(STOP_TIMEOUT_MS);
    }
    sim.process.reset();
}

} // namespace xbctest
