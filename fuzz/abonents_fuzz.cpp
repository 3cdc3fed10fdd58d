// The file of abonents and their keys: any bytes are read without harm and in bounded memory. Each
// name and each key belongs to one abonent, and no operation gives a key a second owner. Writing and
// reading again gives the same.
#include "fuzz/check.h"
#include "host/installation/abonentbook.h"
#include "host/installation/names.h"

#include <QByteArray>
#include <QSet>

#include <cstdint>

using fuzz::require;
using namespace host;

namespace {

constexpr int keyBytes = 32;
constexpr int leastAbonentBytes = 12; // two lengths and a number
constexpr int leastKeyBytes = 4 + keyBytes;

bool isSame(const Abonent& one, const Abonent& other)
{
    return one.name == other.name && one.channelType == other.channelType && one.channelData == other.channelData &&
           one.key == other.key && one.pinned == other.pinned && one.pinnedAt == other.pinnedAt &&
           one.isBlocked == other.isBlocked;
}

bool isSame(const AbonentRecords& one, const AbonentRecords& other)
{
    if (one.abonents.size() != other.abonents.size() || one.blockedKeys != other.blockedKeys)
        return false;
    for (int i = 0; i < one.abonents.size(); ++i) {
        if (!isSame(one.abonents.at(i), other.abonents.at(i)))
            return false;
    }
    return true;
}

void checkContent(const AbonentRecords& records, int size)
{
    require(records.abonents.size() <= size / leastAbonentBytes, "no more abonents than the bytes can hold");
    require(records.blockedKeys.size() <= size / leastKeyBytes, "no more keys than the bytes can hold");
    QSet<QString> names;
    QSet<QByteArray> keys;
    for (int i = 0; i < records.abonents.size(); ++i) {
        const Abonent& abonent = records.abonents.at(i);
        require(!names.contains(abonentKey(abonent.name)), "a name belongs to one abonent");
        names.insert(abonentKey(abonent.name));
        require(records.find(abonent.name) == i, "an abonent is found by its name");
        require(abonent.key.isEmpty() == (abonent.pinned == Abonent::Pinned::No),
                "a key is pinned somehow, or there is none");
        if (abonent.key.isEmpty())
            continue;
        require(abonent.key.size() == keyBytes, "a key has its length");
        require(!keys.contains(abonent.key), "a key belongs to one abonent");
        keys.insert(abonent.key);
        require(records.findKey(abonent.key) == i, "an abonent is found by its key");
    }
    require(records.findKey(QByteArray()) == -1, "no key is nobody's");
    for (const QByteArray& key : records.blockedKeys)
        require(key.size() == keyBytes, "a blocked key has its length");
}

void checkPinning(AbonentRecords records)
{
    for (int owner = 0; owner < records.abonents.size(); ++owner) {
        const QByteArray key = records.abonents.at(owner).key;
        const int other = (owner + 1) % records.abonents.size();
        if (key.isEmpty() || other == owner)
            continue;
        const Abonent before = records.abonents.at(other);
        require(!records.pin(other, key, Abonent::Pinned::OnFirstCall).isEmpty(), "somebody else's key is refused");
        require(isSame(records.abonents.at(other), before), "a refusal changes nothing");
    }
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size)
{
    const QByteArray bytes(reinterpret_cast<const char*>(data), static_cast<int>(size));
    AbonentRecords untouched;
    untouched.blockedKeys.append(QByteArray(keyBytes, 'u'));
    AbonentRecords records = untouched;
    if (!readAbonents(bytes, &records).isEmpty()) {
        require(isSame(records, untouched), "what cannot be read changes nothing");
        return 0;
    }
    checkContent(records, bytes.size());
    AbonentRecords again;
    require(readAbonents(writeAbonents(records), &again).isEmpty(), "what was written can be read");
    require(isSame(records, again), "and is the same");
    checkPinning(records);
    return 0;
}
