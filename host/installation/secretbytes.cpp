#include "host/installation/secretbytes.h"

#include <QtGlobal>
#include <sodium.h>

#include <new>
#include <utility>

namespace host {

namespace {

// More than any function of the library takes that is used here.
constexpr int wipedStackBytes = 8192;

} // namespace

void startCryptography()
{
    static const bool isReady = sodium_init() >= 0;
    if (!isReady)
        qFatal("libsodium cannot start: the system gives no random bytes");
}

void wipeStack()
{
    sodium_stackzero(wipedStackBytes);
}

SecretBytes::SecretBytes(int size) : m_size(size)
{
    startCryptography();
    m_data = static_cast<unsigned char*>(sodium_malloc(static_cast<size_t>(size)));
    if (!m_data)
        throw std::bad_alloc();
    sodium_memzero(m_data, static_cast<size_t>(size));
}

SecretBytes::~SecretBytes()
{
    wipe();
}

SecretBytes::SecretBytes(SecretBytes&& other) noexcept
{
    std::swap(m_data, other.m_data);
    std::swap(m_size, other.m_size);
}

SecretBytes& SecretBytes::operator=(SecretBytes&& other) noexcept
{
    if (this != &other) {
        wipe();
        std::swap(m_data, other.m_data);
        std::swap(m_size, other.m_size);
    }
    return *this;
}

void SecretBytes::wipe()
{
    sodium_free(m_data); // wipes it; ends the process if somebody has written past its end
    m_data = nullptr;
    m_size = 0;
}

} // namespace host
