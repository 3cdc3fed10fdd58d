// The journal: what happened, for the users of the installation, in a text file.
#pragma once

#include "plugin/api/cabstractjournal.h"

#include <QDateTime>
#include <QMutex>
#include <QString>

#include <functional>

namespace host {

struct JournalRecord
{
    QDateTime time;
    bool isError = false;
    QString source;
    QString text;

    // One line, "2026-03-01 12:34:56.789 ttyS0: text"; errors are marked.
    [[nodiscard]] QString line() const;
};

// Any thread may call any operation.
class HostJournal : public CAbstractJournal
{
public:
    // Called in the calling thread with each record.
    using Listener = std::function<void(const JournalRecord&)>;

    // Appends to the file path and creates its directory. A file that is larger than maxBytes is
    // first renamed to "<path>.old".
    explicit HostJournal(const QString& path, Listener listener = {}, qint64 maxBytes = 4 * 1024 * 1024);

    void addRecord(int kind, const QString& source, const QString& text) override;

private:
    void append(const QByteArray& line);
    [[nodiscard]] QString write(const QByteArray& line) const; // an error text, empty on success

    const QString m_path;
    const Listener m_listener;
    const qint64 m_maxBytes;
    QMutex m_mutex; // guards the file
    bool m_failed = false;
};

} // namespace host
