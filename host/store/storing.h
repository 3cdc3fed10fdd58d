// The steps by which a whole part becomes a message of the inbox. Any of them can be the last
// before a crash; from the record on, the next start completes them.
#pragma once

#include "host/session/sessionframes.h"
#include "host/store/parts.h"
#include "host/store/receivedlist.h"

#include <QDir>
#include <QString>

namespace host {

// Each answers an error text, empty on success.

// Content and record on the disk, the record marked as verified, the names of both and of
// their directory too. Slow, and touches nothing but the part: call it without locks, with
// the part being stored, so that nobody else has it.
[[nodiscard]] QString makeDurable(PartHolding* holding, const QDir& incompleteDir, const OfferFrame& offer);

// The opposite for the record: the message was not received after all.
void markUnverified(const PartHolding& holding, const QDir& incompleteDir, const OfferFrame& offer);

// Entry in the list, directory moved. *place: of the file. Failing, the entry is taken back, or is
// in doubt.
[[nodiscard]] QString moveIntoInbox(const Part& part, const QDir& incompleteDir, const QDir& inputDir,
                                    ReceivedList* received, QString* place);

} // namespace host
