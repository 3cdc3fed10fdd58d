// The Qt message stream as a test looks at it.
#pragma once

#include <QString>
#include <QStringList>
#include <QtGlobal>

// What goes to the Qt message stream during its life.
class MessageCatcher
{
public:
    MessageCatcher()
    {
        messages.clear();
        m_previous = qInstallMessageHandler([](QtMsgType type, const QMessageLogContext&, const QString& text) {
            messages.append(QStringLiteral("%1 ").arg(int(type)) + text);
        });
    }
    ~MessageCatcher() { qInstallMessageHandler(m_previous); }

    inline static QStringList messages;

private:
    QtMessageHandler m_previous;
};
