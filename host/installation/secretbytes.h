// Memory for secrets: it is not swapped out where the system's limits allow that, never
// part of a core dump, and wiped when it is given up.
#pragma once

namespace host {

// Before anything else of the cryptographic library is called. Any thread, any number of
// times; ends the process when the library finds no source of randomness.
void startCryptography();

// Wipes what the cryptographic library left on the part of the stack below the caller.
void wipeStack();

// A secret of fixed size; moving leaves an empty one behind. Printed by nothing.
class SecretBytes
{
public:
    SecretBytes() = default;
    explicit SecretBytes(int size); // all zero
    ~SecretBytes();
    SecretBytes(SecretBytes&& other) noexcept;
    SecretBytes& operator=(SecretBytes&& other) noexcept;
    SecretBytes(const SecretBytes&) = delete;
    SecretBytes& operator=(const SecretBytes&) = delete;

    [[nodiscard]] bool isEmpty() const { return m_data == nullptr; }
    [[nodiscard]] int size() const { return m_size; }
    [[nodiscard]] unsigned char* data() { return m_data; }
    [[nodiscard]] const unsigned char* data() const { return m_data; }

    void wipe(); // empty afterwards

private:
    unsigned char* m_data = nullptr;
    int m_size = 0;
};

} // namespace host
