// Readable texts in the failures of tests.
#pragma once

#include <QString>

#include <ostream>

inline void PrintTo(const QString& text, std::ostream* out)
{
    *out << '"' << text.toStdString() << '"';
}
