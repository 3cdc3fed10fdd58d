#include "common/functiondebug.h"

#include "common/cancelguard.h"
#include "common/csettings.h"
#include "common/logger.h"

#include <QMutex>
#include <QMutexLocker>

#include <cstring>

std::atomic<int> gFunctionsDebuging{-1};

namespace {

constexpr int fileNamePrefixLength = 6; // "../../"

// Has no destructor, so that scopes work until the end of the process.
QBasicMutex gStackMutex;

// Changed under gStackMutex; never freed, for the same reason.
QList<QString>& gStack()
{
    static auto* const stack = new QList<QString>;
    return *stack;
}

bool isTracing()
{
    int unread = -1;
    if (gFunctionsDebuging.load(std::memory_order_relaxed) == unread) {
        // If several threads come first at the same time, one sets the value, and it stays.
        const int value = CSettings().debugAll() ? 1 : 0;
        gFunctionsDebuging.compare_exchange_strong(unread, value, std::memory_order_relaxed);
        QMutexLocker locker(&gStackMutex);
        gStack().reserve(_CFunctionDebug::historyLength);
    }
    return gFunctionsDebuging.load(std::memory_order_relaxed) != 0;
}

void addToHistory(const QString& name)
{
    QString oldest; // freed without the lock
    QMutexLocker locker(&gStackMutex);
    QList<QString>& stack = gStack();
    stack.append(name);
    if (stack.size() > _CFunctionDebug::historyLength)
        oldest = stack.takeFirst();
    locker.unlock();
}

QString placeName(const char* file, int line, const char* function)
{
    const QString path = QString::fromLatin1(file).mid(fileNamePrefixLength);
    return QStringLiteral("%1:%2 %3").arg(path, QString::number(line), QString::fromLatin1(function));
}

} // namespace

_CFunctionDebug::_CFunctionDebug(const char* function)
{
    enter(QString::fromLatin1(function));
}

_CFunctionDebug::_CFunctionDebug(const char* file, int line, const char* function)
{
    enter(placeName(file, line, function));
}

void _CFunctionDebug::enter(const QString& name)
{
    CancelGuard cancelGuard;
    if (!isTracing()) {
        addToHistory(name);
        return;
    }
    m_name = name;
    debug(QStringLiteral("_CFunctionDebug"), QStringLiteral("%1 {").arg(m_name), DebugAlways, DebugFlagNone);
}

_CFunctionDebug::~_CFunctionDebug()
{
    if (gFunctionsDebuging.load(std::memory_order_relaxed) != 0)
        debug(QStringLiteral("_CFunctionDebug"), QStringLiteral("%1 }").arg(m_name), DebugAlways, DebugFlagNone);
}

QList<QString>* _CFunctionDebug::stack()
{
    QMutexLocker locker(&gStackMutex);
    return &gStack();
}

_CFunctionMeasure::_CFunctionMeasure(const char* name, bool always)
    : m_name(QString::fromLatin1(name)), m_always(always)
{
    m_timer.start();
}

_CFunctionMeasure::~_CFunctionMeasure()
{
    const qint64 elapsedMs = m_timer.elapsed();
    if (!m_always && elapsedMs < 1)
        return;
    debug(QStringLiteral("_CFunctionMeasure"), QStringLiteral("%1 ms - %2").arg(QString::number(elapsedMs), m_name),
          DebugAlways, DebugFlagNone);
}
