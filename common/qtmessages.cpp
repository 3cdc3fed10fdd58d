#include "common/qtmessages.h"

#include <QMessageLogger>

#include <cstdio>

namespace {

thread_local MessageHold* currentHold = nullptr; // not owned

void sendNow(QtMsgType type, const QString& text)
{
    const QMessageLogger logger(nullptr, 0, nullptr); // without a place, of the category "default"
    switch (type) {
    case QtDebugMsg: logger.debug().noquote() << text; return;
    case QtInfoMsg: logger.info().noquote() << text; return;
    case QtWarningMsg: logger.warning().noquote() << text; return;
    case QtCriticalMsg:
    case QtFatalMsg: // nothing here is worth ending the program for
        logger.critical().noquote() << text;
        return;
    }
}

} // namespace

MessageHold::MessageHold()
{
    if (!currentHold)
        currentHold = this;
}

MessageHold::~MessageHold()
{
    if (currentHold != this)
        return;
    currentHold = nullptr;
    for (const Message& message : qAsConst(m_messages))
        sendNow(message.type, message.text);
}

void sendQtMessage(QtMsgType type, const QString& text)
{
    if (currentHold)
        currentHold->m_messages.append({type, text});
    else
        sendNow(type, text);
}

void writeToStandardError(const QString& text)
{
    std::fprintf(stderr, "%s\n", qPrintable(text));
}
