// What kind of record goes into the host's journal.
#pragma once

// Plain numbers, as CAbstractJournal::addRecord() takes them.
namespace JournalKind {

constexpr int event = 0;
constexpr int error = 1;

} // namespace JournalKind
