// Collects what goes to the Qt message streams while it lives.
#pragma once

#include <QMutex>
#include <QMutexLocker>
#include <QStringList>

namespace testsupport {

class StreamMessages
{
public:
    StreamMessages() { m_previous = qInstallMessageHandler(&StreamMessages::collect); }
    ~StreamMessages()
    {
        qInstallMessageHandler(m_previous);
        take();
    }
    StreamMessages(const StreamMessages&) = delete;
    StreamMessages& operator=(const StreamMessages&) = delete;

    // The messages since the last look, as "warning: text", in order.
    QStringList take()
    {
        QMutexLocker locker(&mutex());
        return std::exchange(messages(), {});
    }

private:
    static QMutex& mutex()
    {
        static QMutex instance;
        return instance;
    }
    static QStringList& messages()
    {
        static QStringList instance;
        return instance;
    }
    static void collect(QtMsgType type, const QMessageLogContext& context, const QString& text)
    {
        static const char* const names[] = {"debug", "warning", "critical", "fatal", "info"};
        const QString category = QString::fromLatin1(context.category);
        const QString prefix = category == QLatin1String("default") ? QString() : category + QLatin1Char(' ');
        QMutexLocker locker(&mutex());
        messages().append(prefix + QString::fromLatin1(names[type]) + QStringLiteral(": ") + text);
    }

    QtMessageHandler m_previous = nullptr;
};

} // namespace testsupport
