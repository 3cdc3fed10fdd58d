#include "host/installation/identitykey.h"

#include "common/global.h"

#include <QFile>
#include <QFileInfo>
#include <sodium.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

namespace host {

namespace {

// The file has a fixed length: this line, then both halves as hexadecimal digits. The public half can
// be calculated from the secret one, so that damage is noticed.
constexpr char heading[] = "transport-host identity 1\n";
constexpr char publicLabel[] = "public ";
constexpr char secretLabel[] = "secret ";
constexpr int hexBytes = 2 * secretKeyBytes;
constexpr int publicAt = sizeof heading - 1 + sizeof publicLabel - 1;
constexpr int secretAt = publicAt + hexBytes + 1 + static_cast<int>(sizeof secretLabel) - 1;
constexpr int fileBytes = secretAt + hexBytes + 1;
static_assert(publicKeyBytes == secretKeyBytes);

constexpr mode_t ownerOnly = 0600;
constexpr mode_t othersBits = 0077;

class Descriptor
{
public:
    explicit Descriptor(int number) : m_number(number) {}
    ~Descriptor()
    {
        if (m_number >= 0)
            ::close(m_number);
    }
    Descriptor(const Descriptor&) = delete;
    Descriptor& operator=(const Descriptor&) = delete;

    [[nodiscard]] bool isOpen() const { return m_number >= 0; }
    [[nodiscard]] int number() const { return m_number; }

private:
    const int m_number;
};

QByteArray encoded(const QString& path)
{
    return QFile::encodeName(path);
}

QString systemError()
{
    return qt_error_string(errno);
}

// Reads and writes guarded memory directly, because a QFile keeps a copy in its buffer.
int readAll(const Descriptor& file, SecretBytes* bytes)
{
    int count = 0;
    while (count < bytes->size()) {
        const ssize_t got = ::read(file.number(), bytes->data() + count, static_cast<size_t>(bytes->size() - count));
        if (got < 0 && errno == EINTR)
            continue;
        if (got < 0)
            return -1;
        if (got == 0)
            break;
        count += static_cast<int>(got);
    }
    return count;
}

bool writeAll(const Descriptor& file, const SecretBytes& bytes)
{
    int count = 0;
    while (count < bytes.size()) {
        const ssize_t put = ::write(file.number(), bytes.data() + count, static_cast<size_t>(bytes.size() - count));
        if (put < 0 && errno == EINTR)
            continue;
        if (put < 0)
            return false;
        count += static_cast<int>(put);
    }
    return true;
}

void putText(SecretBytes* content, int position, const char* text)
{
    std::copy_n(text, std::strlen(text), content->data() + position);
}

// Converts digit by digit, in place. Copies of whole blocks would stay in the processor's wide
// registers, which are saved on the stack now and then. Puts a zero after the digits.
void putHex(SecretBytes* content, int position, const unsigned char* bytes)
{
    sodium_bin2hex(reinterpret_cast<char*>(content->data() + position), hexBytes + 1, bytes, secretKeyBytes);
}

SecretBytes takeHex(const SecretBytes& content, int position)
{
    SecretBytes bytes(secretKeyBytes);
    size_t count = 0;
    const auto* digits = reinterpret_cast<const char*>(content.data() + position);
    const bool isHex = sodium_hex2bin(bytes.data(), secretKeyBytes, digits, hexBytes, nullptr, &count, nullptr) == 0;
    return isHex && count == secretKeyBytes ? std::move(bytes) : SecretBytes();
}

bool hasText(const SecretBytes& content, int position, const char* text)
{
    return std::memcmp(content.data() + position, text, std::strlen(text)) == 0;
}

SecretBytes contentOf(const KeyPair& pair)
{
    SecretBytes content(fileBytes);
    putText(&content, 0, heading);
    putText(&content, sizeof heading - 1, publicLabel);
    putHex(&content, publicAt, reinterpret_cast<const unsigned char*>(pair.publicKey().constData()));
    putText(&content, publicAt + hexBytes, "\n");
    putText(&content, secretAt - static_cast<int>(sizeof secretLabel) + 1, secretLabel);
    putHex(&content, secretAt, pair.secretKey().data());
    putText(&content, secretAt + hexBytes, "\n");
    return content;
}

// Empty if the bytes are not what contentOf() wrote.
KeyPair pairOf(const SecretBytes& content)
{
    if (!hasText(content, 0, heading) || !hasText(content, sizeof heading - 1, publicLabel) ||
        !hasText(content, publicAt + hexBytes, "\n") ||
        !hasText(content, secretAt - static_cast<int>(sizeof secretLabel) + 1, secretLabel) ||
        !hasText(content, secretAt + hexBytes, "\n"))
        return KeyPair();
    const SecretBytes publicHalf = takeHex(content, publicAt);
    SecretBytes secretHalf = takeHex(content, secretAt);
    if (publicHalf.isEmpty() || secretHalf.isEmpty())
        return KeyPair();
    KeyPair pair = KeyPair::fromSecret(std::move(secretHalf));
    const bool isWhole = sodium_memcmp(pair.publicKey().constData(), publicHalf.data(), publicKeyBytes) == 0;
    return isWhole ? std::move(pair) : KeyPair();
}

QString damaged(const QString& path)
{
    return QStringLiteral(
               "the identity key in %1 is damaged: put the file back from a backup. Without one, move it away; "
               "\"transport-host key --new\" makes a new key, and whoever knows the old one must be given the new")
        .arg(path);
}

// Empty if the open file is a regular file of ours that nobody else may read or write.
QString whyUnsafe(const Descriptor& file, const QString& path, qint64* size)
{
    struct stat status = {};
    if (::fstat(file.number(), &status) != 0)
        return QStringLiteral("cannot read %1: %2").arg(path, systemError());
    if (!S_ISREG(status.st_mode))
        return QStringLiteral("%1 is not a file: move it away; the identity key belongs there").arg(path);
    if (status.st_uid != ::geteuid())
        return QStringLiteral(
                   "%1 belongs to another user: run as that user, or give the file to this one with \"chown\"")
            .arg(path);
    if (status.st_mode & othersBits)
        return QStringLiteral(
                   "others may read or change the identity key: chmod 600 %1 (and if somebody may have read it, "
                   "move it away: \"transport-host key --new\" makes a new one)")
            .arg(path);
    *size = status.st_size;
    return QString();
}

enum class Reading
{
    Read,
    Missing,
    Failed
};

Reading readKey(const QString& path, KeyPair* pair, QString* error)
{
    // If it is a pipe, this does not wait for its other end.
    const Descriptor file(::open(encoded(path).constData(), O_RDONLY | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC));
    if (!file.isOpen()) {
        if (errno == ENOENT)
            return Reading::Missing;
        *error = errno == ELOOP
                     ? QStringLiteral(
                           "%1 is a link: put the file itself there; the identity key is not looked for elsewhere")
                           .arg(path)
                     : QStringLiteral("cannot read %1: %2").arg(path, systemError());
        return Reading::Failed;
    }
    qint64 size = 0;
    *error = whyUnsafe(file, path, &size);
    if (!error->isEmpty())
        return Reading::Failed;
    SecretBytes content(fileBytes);
    const int count = size == fileBytes ? readAll(file, &content) : 0;
    if (count < 0) {
        *error = QStringLiteral("cannot read %1: %2").arg(path, systemError());
        return Reading::Failed;
    }
    *pair = count == fileBytes ? pairOf(content) : KeyPair();
    if (pair->isEmpty())
        *error = damaged(path);
    return pair->isEmpty() ? Reading::Failed : Reading::Read;
}

// Writes a file to which nobody else has access at any moment.
QString writeNew(const QString& path, const SecretBytes& content)
{
    const QByteArray name = encoded(path);
    if (::unlink(name.constData()) != 0 && errno != ENOENT) // left by a crash
        return QStringLiteral("cannot remove %1: %2").arg(path, systemError());
    const Descriptor file(::open(name.constData(), O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC, ownerOnly));
    if (!file.isOpen())
        return QStringLiteral("cannot write %1: %2").arg(path, systemError());
    // Set the mode again: the process's umask may have taken away our own access.
    if (::fchmod(file.number(), ownerOnly) == 0 && writeAll(file, content) &&
        (::fsync(file.number()) == 0 || errno == EINVAL || errno == ENOTSUP))
        return QString();
    const QString error = QStringLiteral("cannot write %1: %2").arg(path, systemError());
    ::unlink(name.constData());
    return error;
}

QString saveNewKey(const QString& path, const KeyPair& pair)
{
    const QString newPath = path + QStringLiteral(".new");
    const QString error = writeNew(newPath, contentOf(pair));
    if (!error.isEmpty())
        return error;
    const QString failure = Global::safeSaving(path, newPath);
    if (failure.isEmpty())
        return QString();
    ::unlink(encoded(newPath).constData());
    return QStringLiteral("cannot write %1: %2").arg(path, failure);
}

} // namespace

std::shared_ptr<const KeyPair> loadOrCreateIdentityKey(const QString& path, bool* created, QString* error)
{
    *created = false;
    error->clear();
    KeyPair pair;
    Reading reading = readKey(path, &pair, error);
    if (reading == Reading::Missing) {
        const QString directory = QFileInfo(path).absolutePath();
        Global::makePath(QDir(directory)); // logs its own failure; opening the file fails then
        // Two programs that start at the same time must get the same key. The lock ends with its process.
        const Descriptor lock(::open(encoded(directory).constData(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
        if (lock.isOpen())
            ::flock(lock.number(), LOCK_EX);
        reading = readKey(path, &pair, error);
        if (reading == Reading::Missing) {
            pair = KeyPair::generate();
            *error = saveNewKey(path, pair);
            *created = error->isEmpty();
        }
    }
    return error->isEmpty() ? std::make_shared<const KeyPair>(std::move(pair)) : nullptr;
}

} // namespace host
