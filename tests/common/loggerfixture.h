// One label to log under, and what lines of the log are made of.
#pragma once

#include "common/logger.h"
#include "tests/common/logsupport.h"

#include <QMutex>
#include <QRegularExpression>
#include <QScopedPointer>
#include <QString>
#include <QThread>

namespace logtest {

inline const QString label = QStringLiteral("CComServer");

inline void logText(const char* text, DebugLevel level = DebugAlways)
{
    debug(label, QString::fromUtf8(text), level, DebugFlagFileOnly);
}

// A line without its stamp, which must be one.
inline QString unstamped(const QString& line)
{
    static const QRegularExpression stamp(QStringLiteral("^\\d\\d:\\d\\d:\\d\\d\\.\\d{3} "));
    return stamp.match(line).hasMatch() ? line.mid(13) : QStringLiteral("no stamp: ") + line;
}

inline QString blanks(int count)
{
    return QString(count, QLatin1Char(' '));
}

// The lock, which must be free, is what a later call would wait for.
inline bool lockIsFree()
{
    QMutex& mutex = LoggerData::debugData()->mutex;
    if (!mutex.tryLock())
        return false;
    mutex.unlock();
    return true;
}

// Runs work in a thread of its own to its end; the QThread lives on, since its address is its row.
class OwnThread
{
public:
    template <typename Work>
    explicit OwnThread(Work work) : m_thread(QThread::create(work))
    {
        m_thread->start();
        m_thread->wait();
    }
    QThread* thread() const { return m_thread.data(); }

private:
    QScopedPointer<QThread> m_thread;
};

} // namespace logtest
