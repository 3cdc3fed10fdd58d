// The steps by which a whole part becomes a message of the inbox. A crash may come after any of them;
// once the record is written, the next start completes the steps.
#pragma once

#include "host/session/sessionframes.h"
#include "host/store/parts.h"
#include "host/store/receivedlist.h"

#include <QDir>
#include <QString>

namespace host {

// Each answers an error text, empty on success.

// Syncs the content, the record marked as verified, their names and that of their directory. It is slow
// and touches only the part: call it without locks, with the part marked as being stored, so that no
// session holds it.
[[nodiscard]] QString makeDurable(PartHolding* holding, const QDir& incompleteDir, const OfferFrame& offer);

// Takes the mark off the record: the message was not received after all.
void markUnverified(const PartHolding& holding, const QDir& incompleteDir, const OfferFrame& offer);

// Adds the entry to the list and moves the directory. *place: where the file is. If it fails, the entry
// is taken back, or is in doubt (see ReceivedList).
[[nodiscard]] QString moveIntoInbox(const Part& part, const QDir& incompleteDir, const QDir& inputDir,
                                    ReceivedList* received, QString* place);

} // namespace host
