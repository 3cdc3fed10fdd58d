// A file on its way from one host to another: what sessions report about it, and what events, views
// and the state file show.
#pragma once

#include <QByteArray>
#include <QString>

namespace host {

struct FileUnderWay
{
    bool isOutgoing = false;
    quint64 messageId = 0;
    QString fileName;
    QByteArray sha256;
    qint64 sizeBytes = 0;
    qint64 doneBytes = 0; // received, or handed to the channel
};

} // namespace host
