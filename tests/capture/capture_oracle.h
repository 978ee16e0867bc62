// What a capture of xbc-host must decode to, worked out independently of
// the dissector: the records are read back with libpcap, requests parsed with
// the simulator's own wire parser, replies taken apart here.
#ifndef XBC_CAPTURE_ORACLE_H
#define XBC_CAPTURE_ORACLE_H

#include <QByteArray>
#include <QMap>
#include <QString>
#include <QStringList>
#include <QVector>

namespace capturetest {

enum { DIRECTION_SENT = 0, DIRECTION_RECEIVED = 1 };

struct Record {
    qint64 timeUs = 0;
    QString dissector;  // from the dissector-name tag
    int direction = -1; // from the direction tag; -1: none
    bool hasPorts = false;
    quint32 sourcePort = 0;
    quint32 destinationPort = 0;
    QByteArray bytes; // the PDU after the tags
};

// Reads every record of an exported-PDU capture. Empty text on success.
QString readCapture(const QString &path, QVector<Record> &records);

// Field name -> value as the dissector should show it; numbers in decimal,
// repeated fields joined with ','. A field not in the map must be absent.
using Fields = QMap<QString, QString>;

// The fields every record of a real run must show, in order. Pairing: a
// reply answers the last request before it.
QVector<Fields> expectedFields(const QVector<Record> &records);

// The fields the comparison reads from tshark, beyond frame.number; they
// include dissectorErrorFields().
QStringList comparedFields();
// Marks of a dissector that failed: a Lua error, an exception, a bug report.
QStringList dissectorErrorFields();

// tshark -T fields output (tab-separated, header line) into one map per
// frame, numbers normalised to decimal and empty fields left out.
QVector<Fields> parseTsharkFields(const QString &output, const QStringList &fields);

} // namespace capturetest

#endif
