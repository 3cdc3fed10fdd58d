// Messages of this library to the Qt message streams, and keeping them back while a lock is held.
#pragma once

#include <QDebug>
#include <QString>
#include <QVector>

// The library's own faults go to the Qt streams, never through debug(), which uses the code that
// has the fault. The program's message handler may itself log and read settings. So no message may
// be sent while a lock of this library is held: a MessageHold that is made before the lock is taken
// collects the calling thread's messages, and sends them when it is destroyed, after the lock was
// released. If holds are nested, only the outermost one collects. A handler that logs into a broken
// log does not run without end, because Qt does not call a handler from inside itself.
class MessageHold
{
public:
    MessageHold();
    ~MessageHold();
    MessageHold(const MessageHold&) = delete;
    MessageHold& operator=(const MessageHold&) = delete;

private:
    friend void sendQtMessage(QtMsgType type, const QString& text);
    struct Message
    {
        QtMsgType type;
        QString text;
    };
    QVector<Message> m_messages;
};

// Sends a finished text to the stream of type (debug, warning or critical), category
// "default", or hands it to the calling thread's MessageHold.
void sendQtMessage(QtMsgType type, const QString& text);

// For a text that can go neither to the log nor to the Qt streams, because the calling thread is in
// the middle of writing to them.
void writeToStandardError(const QString& text);

// The same as sendQtMessage() for items, formatted as the Qt debug stream formats them.
template <typename... Items>
void sendQtMessageItems(QtMsgType type, const Items&... items)
{
    QString text;
    {
        QDebug stream(&text);
        (stream << ... << items);
    }
    // The stream leaves a blank behind the last item.
    if (text.endsWith(QLatin1Char(' ')))
        text.chop(1);
    sendQtMessage(type, text);
}
