// Sealed messages on a line that an enemy controls: only the next sealed message can be opened,
// unchanged; after anything else nothing can be opened.
#include "fuzz/check.h"
#include "fuzz/noisesides.h"

#include <QList>

#include <cstdint>
#include <limits>

using fuzz::require;
using host::NoiseCipher;

namespace {

NoiseCipher cipherFrom(quint64 nextNonce)
{
    host::SecretBytes key(host::noiseKeyBytes);
    std::fill_n(key.data(), key.size(), static_cast<unsigned char>(7));
    return NoiseCipher(std::move(key), nextNonce);
}

struct Sealed
{
    QByteArray plain;
    QByteArray bytes;
};

class Line
{
public:
    // One of two begins where the counter nearly ends.
    explicit Line(fuzz::Input& input) : m_input(input)
    {
        const int choice = m_input.byte();
        m_left = choice % 2 == 0 ? std::numeric_limits<quint64>::max() : static_cast<quint64>(choice / 2 % 8);
        const quint64 first = std::numeric_limits<quint64>::max() - m_left;
        m_sending = cipherFrom(first);
        m_receiving = cipherFrom(first);
    }

    void run()
    {
        while (!m_input.atEnd())
            act();
    }

private:
    void act()
    {
        const int choice = m_input.byte();
        switch (choice % 4) {
        case 0: seal(); break;
        case 1: open(m_sealed.value(m_opened).bytes); break;
        case 2: open(fuzz::damaged(m_input, m_sealed.value(m_opened).bytes)); break;
        default:
            open(m_sealed.isEmpty() ? m_input.run(choice) : m_sealed.at(m_input.byte() % m_sealed.size()).bytes);
            break;
        }
    }

    void seal()
    {
        const QByteArray plain = m_input.run(m_input.byte());
        const QByteArray bytes = m_sending.seal(plain);
        require(bytes.isEmpty() == (m_left == 0), "seals until the counter ends");
        if (bytes.isEmpty())
            return;
        --m_left;
        require(bytes.size() == plain.size() + host::noiseTagBytes, "a tag longer");
        m_sealed.append({plain, bytes});
    }

    void open(const QByteArray& bytes)
    {
        const bool isNext = m_isWell && m_opened < m_sealed.size() && bytes == m_sealed.at(m_opened).bytes;
        QByteArray plain;
        require(m_receiving.open(bytes, &plain) == isNext, "the next opens, and nothing else");
        require(plain == (isNext ? m_sealed.at(m_opened).plain : QByteArray()), "as it was");
        m_opened += isNext;
        m_isWell = isNext;
        require(m_receiving.isUsable() == m_isWell, "for good");
    }

    fuzz::Input& m_input;
    quint64 m_left;
    NoiseCipher m_sending;
    NoiseCipher m_receiving;
    QList<Sealed> m_sealed;
    int m_opened = 0;
    bool m_isWell = true;
};

} // namespace

extern "C" __attribute__((visibility("default"))) int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size)
{
    fuzz::Input input(data, size);
    Line(input).run();
    return 0;
}
