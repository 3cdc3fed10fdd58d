// A line from the text that a user would write for it.
#pragma once

#include "sim/line/linesettings.h"

#include <QString>
#include <gtest/gtest.h>

namespace simtest {

inline sim::LineSettings settingsOf(const char* text)
{
    sim::LineSettings settings;
    QString error;
    EXPECT_TRUE(settings.change(QString::fromLatin1(text), &error)) << error.toStdString();
    return settings;
}

} // namespace simtest
