#include "sim/line/linesettings.h"

#include <QStringList>

namespace sim {

namespace {

bool takeInt(const QString& text, qint64 least, qint64 most, qint64* value)
{
    bool valid = false;
    const qint64 number = text.toLongLong(&valid);
    if (!valid || number < least || number > most)
        return false;
    *value = number;
    return true;
}

bool takeReal(const QString& text, double least, double most, double* value)
{
    bool valid = false;
    const double number = text.toDouble(&valid);
    if (!valid || !(number >= least && number <= most))
        return false;
    *value = number;
    return true;
}

constexpr double longestSeconds = 1000000;
constexpr int longestDelayMs = 60000;
constexpr qint64 largestBytes = Q_INT64_C(1000000000000);

// Each returns what to write instead, or an empty text when value was taken.
QString changeRate(LineSettings& line, const QString& value)
{
    const QStringList rates = value.split(QLatin1Char('/'));
    qint64 forward = 0;
    qint64 backward = 0;
    if (rates.size() > 2 || !takeInt(rates.first(), LineSettings::lowestRate, LineSettings::highestRate, &forward) ||
        !takeInt(rates.last(), LineSettings::lowestRate, LineSettings::highestRate, &backward))
        return QStringLiteral("bits per second from 10 to 10000000, as 33600, or 33600/2400 for the two ways");
    line.rateForward = static_cast<int>(forward);
    line.rateBackward = static_cast<int>(backward);
    return {};
}

QString changeDelay(LineSettings& line, const QString& value)
{
    qint64 delayMs = 0;
    if (!takeInt(value, 0, longestDelayMs, &delayMs))
        return QStringLiteral("milliseconds each way from 0 to 60000, as 120");
    line.delayMs = static_cast<int>(delayMs);
    return {};
}

QString changeBitErrorRate(LineSettings& line, const QString& value)
{
    return takeReal(value, 0, 1, &line.bitErrorRate) ? QString()
                                                     : QStringLiteral("the chance of a bit, 0 to 1, as 1e-5");
}

QString changeBurst(LineSettings& line, const QString& value)
{
    const QStringList parts = value.split(QLatin1Char('/'));
    BurstSettings burst;
    qint64 bits = 0;
    if (value != QLatin1String("off")) {
        const bool valid = (parts.size() == 2 || parts.size() == 3) &&
                           takeReal(parts.at(0), 0, longestSeconds, &burst.meanIntervalSeconds) &&
                           burst.meanIntervalSeconds > 0 && takeInt(parts.at(1), 1, 1000000000, &bits) &&
                           (parts.size() == 2 || takeReal(parts.at(2), 0, 1, &burst.errorRate));
        if (!valid) {
            return QStringLiteral("mean interval in seconds / length in bits / chance of a bit inside, as 5/200/0.5, "
                                  "or off");
        }
    }
    burst.lengthBits = static_cast<int>(bits);
    line.burst = burst;
    return {};
}

QString changeDropSeconds(LineSettings& line, const QString& value)
{
    return takeReal(value, 0, longestSeconds, &line.dropAfterSeconds)
               ? QString()
               : QStringLiteral("seconds of a connection, as 12.5, or 0 for never");
}

QString changeDropBytes(LineSettings& line, const QString& value)
{
    return takeInt(value, 0, largestBytes, &line.dropAfterBytes)
               ? QString()
               : QStringLiteral("bytes, both ways together, as 20000, or 0 for never");
}

QString changeDropTimes(LineSettings& line, const QString& value)
{
    qint64 times = 0;
    if (!takeInt(value, 0, 1000000000, &times))
        return QStringLiteral("how many calls are dropped, as 2, or 0 for all");
    line.dropTimes = static_cast<int>(times);
    return {};
}

QString changeSeed(LineSettings& line, const QString& value)
{
    bool valid = false;
    const quint64 seed = value.toULongLong(&valid);
    if (!valid)
        return QStringLiteral("a whole number that is not negative, as 42");
    line.seed = seed;
    return {};
}

struct Key
{
    const char* name;
    QString (*change)(LineSettings& line, const QString& value);
};

constexpr Key keys[] = {
    {"rate", changeRate},
    {"delay", changeDelay},
    {"ber", changeBitErrorRate},
    {"burst", changeBurst},
    {"drop-after-seconds", changeDropSeconds},
    {"drop-after-bytes", changeDropBytes},
    {"drop-times", changeDropTimes},
    {"seed", changeSeed},
};

QString allKeys()
{
    QStringList names;
    for (const Key& key : keys)
        names.append(QLatin1String(key.name));
    return names.join(QStringLiteral(", "));
}

const Key* findKey(const QString& name)
{
    for (const Key& key : keys) {
        if (name == QLatin1String(key.name))
            return &key;
    }
    return nullptr;
}

} // namespace

bool BurstSettings::operator==(const BurstSettings& other) const
{
    return meanIntervalSeconds == other.meanIntervalSeconds && lengthBits == other.lengthBits &&
           errorRate == other.errorRate;
}

bool LineSettings::operator==(const LineSettings& other) const
{
    return rateForward == other.rateForward && rateBackward == other.rateBackward && delayMs == other.delayMs &&
           bitErrorRate == other.bitErrorRate && burst == other.burst && dropAfterSeconds == other.dropAfterSeconds &&
           dropAfterBytes == other.dropAfterBytes && dropTimes == other.dropTimes && seed == other.seed;
}

bool LineSettings::change(const QString& text, QString* error)
{
    LineSettings changed = *this;
    for (const QString& item : text.split(QLatin1Char(','))) {
        const int sign = item.indexOf(QLatin1Char('='));
        const QString name = item.left(sign).trimmed();
        const Key* key = findKey(name);
        if (sign < 0 || !key) {
            *error = QStringLiteral("'%1' is not a property of a line; write key=value with a key of: %2")
                         .arg(item.trimmed(), allKeys());
            return false;
        }
        const QString expected = key->change(changed, item.mid(sign + 1).trimmed());
        if (!expected.isEmpty()) {
            *error =
                QStringLiteral("'%1' is no value for %2; give %3").arg(item.mid(sign + 1).trimmed(), name, expected);
            return false;
        }
    }
    *this = changed;
    return true;
}

QString LineSettings::toString() const
{
    QString text = QStringLiteral("rate=%1").arg(rateForward);
    if (rateBackward != rateForward)
        text += QStringLiteral("/%1").arg(rateBackward);
    text += QStringLiteral(",delay=%1,ber=%2").arg(delayMs).arg(bitErrorRate);
    if (burst.meanIntervalSeconds > 0)
        text +=
            QStringLiteral(",burst=%1/%2/%3").arg(burst.meanIntervalSeconds).arg(burst.lengthBits).arg(burst.errorRate);
    else
        text += QStringLiteral(",burst=off");
    return text + QStringLiteral(",drop-after-seconds=%1,drop-after-bytes=%2,drop-times=%3,seed=%4")
                      .arg(dropAfterSeconds)
                      .arg(dropAfterBytes)
                      .arg(dropTimes)
                      .arg(seed);
}

} // namespace sim
