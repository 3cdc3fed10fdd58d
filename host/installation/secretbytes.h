// Memory for secrets. It is never part of a core dump, not swapped out if the system's limits allow
// that, and wiped when it is released.
#pragma once

namespace host {

// Call it before anything else of the cryptographic library; any thread, any number of times. Ends the
// process if the library finds no source of randomness.
void startCryptography();

// Wipes what the cryptographic library has left on the stack below the caller's frame.
void wipeStack();

// A secret of fixed size. An object that was moved from is empty. Nothing prints it.
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
