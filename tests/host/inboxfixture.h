// One inbox in the test's own installation, opened as often as the test likes.
#pragma once

#include "tests/host/storetools.h"

#include <gtest/gtest.h>

#include <memory>

namespace hosttest {

class InboxFixture : public testing::Test
{
protected:
    InboxFixture()
    {
        host::useUtf8Names();
        paths = pathsIn(QStringLiteral("i"));
    }

    std::unique_ptr<host::MessageStore> open(const host::InboxLimits& limits = {})
    {
        auto store = std::make_unique<host::MessageStore>(paths, limits);
        QString error;
        notes = store->open(&error);
        EXPECT_EQ(error, QString());
        return store;
    }

    QStringList partNames() const { return paths.incomplete.entryList(QDir::Dirs | QDir::NoDotAndDotDot); }

    // Takes up the first length bytes of the part of an offered file.
    static bool resume(host::IncomingFile* file, host::OfferFrame offer, qint64 length, host::RefusedFrame* refused)
    {
        offer.offset = length;
        return file->resume(offer, refused);
    }

    host::StorePaths paths;
    QStringList notes;
    const host::Peer bob = rig::provedPeer(QStringLiteral("Боб"));
    host::RefusedFrame refused;
};

} // namespace hosttest
