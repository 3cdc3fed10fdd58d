// Names that come from others: how abonents are told apart, and how a peer's name for a file becomes
// a file name here.
#pragma once

#include <QString>

namespace host {

constexpr int maxAbonentNameBytes = 255; // in UTF-8

// Two names with the same key are the same abonent. The key has only the name's letters and digits, of
// any script, case folded. It is never empty for a name that isValidAbonentName().
[[nodiscard]] QString abonentKey(const QString& name);

// Not empty, not too long, with a letter or digit, without control characters.
[[nodiscard]] bool isValidAbonentName(const QString& name);

// A file name that is safe to create in a directory of ours: no separators, no control or
// direction characters, not hidden, not "..", never empty, at most maxSafeNameBytes in UTF-8 (the
// extension is kept). A harmless name stays as it is, and a safe name does not change again.
[[nodiscard]] QString safeFileName(const QString& name);
constexpr int maxSafeNameBytes = 240; // file systems allow 255, and some names get an addition

// name for a terminal or a log line: \r, \n and \t written out, other control characters and
// direction characters replaced.
[[nodiscard]] QString displayName(const QString& name);

// json with all that is invisible or to be obeyed written as \u escapes: the same data, and a
// terminal that it is shown on stays as it is.
[[nodiscard]] QString escapedJson(const QString& json);

// File names and arguments are UTF-8, whatever the locale of the environment: in the "C"
// locale every name that is not ASCII would be lost. Call it before the application object
// is made.
void useUtf8Names();

} // namespace host
