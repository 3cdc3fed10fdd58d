// Readable texts in the failures of tests.
#pragma once

#include <ostream>

#include <QString>

inline void PrintTo(const QString& text, std::ostream* out)
{
    *out << '"' << text.toStdString() << '"';
}
