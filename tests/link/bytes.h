// Bytes as tests write them down.
#pragma once

#include <QByteArray>
#include <QString>
#include <gtest/gtest.h>

inline QByteArray fromHex(const char* hex)
{
    return QByteArray::fromHex(hex);
}

// Names the bytes in the message when a comparison fails.
inline ::testing::AssertionResult sameBytes(const QByteArray& actual, const QByteArray& expected)
{
    if (actual == expected)
        return ::testing::AssertionSuccess();
    return ::testing::AssertionFailure() << actual.size() << " bytes " << actual.toHex(' ').left(600).constData()
                                         << "\ninstead of " << expected.size() << " bytes "
                                         << expected.toHex(' ').left(600).constData();
}
