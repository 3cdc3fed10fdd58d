// What is known of a call once it has ended, for people and for programs.
#pragma once

#include "sim/line/line.h"

#include <QJsonObject>
#include <QString>
#include <QVector>

namespace sim {

struct CallStatistics
{
    int call = 0; // counted from 1
    int caller = 0; // modem, counted from 1
    int called = 0; // modem; 0: nobody has that number
    QString number; // as dialled
    bool connected = false;
    QString end; // why it ended, as "modem1 hung up" or "busy"
    qint64 startedNs = 0; // since the exchange was started
    qint64 waitedNs = 0; // from dialling to the connection, or to the end
    qint64 connectedNs = 0; // how long carrier stood
    LineSettings line;
    DirectionStatistics forward; // from the caller
    DirectionStatistics backward; // to the caller

    // One line for a call without a connection, three for one with it; no line end.
    QString toText() const;
    QJsonObject toJson() const;
};

// { "calls": [ ... ] }
QByteArray statisticsJson(const QVector<CallStatistics>& calls);

} // namespace sim
