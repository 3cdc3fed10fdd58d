// The recorded messages of all Qt streams in one list.
#pragma once

#include "tests/common/logsupport.h"

namespace testsupport {

// The messages since the last look, as "warning: text", in order; a category other than the
// default one stands before.
inline QStringList taken(logtest::MessageRecorder& recorder)
{
    static const char* const names[] = {"debug", "warning", "critical", "fatal", "info"};
    QStringList texts;
    for (const logtest::Message& message : recorder.messages()) {
        const QString category =
            message.category == QLatin1String("default") ? QString() : message.category + QLatin1Char(' ');
        texts.append(category + QString::fromLatin1(names[message.type]) + QStringLiteral(": ") + message.text);
    }
    recorder.clear();
    return texts;
}

} // namespace testsupport
