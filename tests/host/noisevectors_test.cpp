// The handshake and what follows, byte for byte as another implementation published it.
#include "tests/host/noisetools.h"

#include <QFile>
#include <QMap>

using host::NoiseCipher;
using host::NoiseHandshake;

namespace {

const QString keptVectors = QStringLiteral(SOURCE_DIR "/tests/host/noise/vectors.txt");
const QString packagedVectors = QStringLiteral("/usr/share/gocode/src/github.com/flynn/noise/vectors.txt");
const QByteArray pattern = "Noise_XX_25519_ChaChaPoly_SHA256";
constexpr int vectorCount = 4; // with and without a prologue, with and without payloads
constexpr int handshakeMessages = 3;

using Vector = QMap<QByteArray, QByteArray>;

QList<Vector> vectorsIn(const QString& path)
{
    QFile file(path);
    EXPECT_TRUE(file.open(QIODevice::ReadOnly)) << path.toStdString() << ": " << file.errorString().toStdString();
    QList<Vector> vectors;
    Vector vector;
    const auto take = [&] {
        if (vector.value("handshake") == pattern)
            vectors.append(vector);
        vector.clear();
    };
    for (const QByteArray& text : file.readAll().split('\n')) {
        const QByteArray line = text.trimmed();
        const int equals = line.indexOf('=');
        if (line.isEmpty())
            take();
        else if (!line.startsWith('#') && equals > 0)
            vector.insert(line.left(equals), line.mid(equals + 1));
    }
    take();
    return vectors;
}

QByteArray bytesOf(const Vector& vector, const char* name)
{
    return QByteArray::fromHex(vector.value(name));
}

NoiseHandshake sideOf(const Vector& vector, NoiseHandshake::Role role)
{
    const bool isInitiator = role == NoiseHandshake::Role::Initiator;
    auto identity = std::make_shared<const host::KeyPair>(
        noisetools::pairOf(bytesOf(vector, isInitiator ? "init_static" : "resp_static")));
    return NoiseHandshake(
        role, bytesOf(vector, "prologue"), std::move(identity),
        noisetools::pairOf(bytesOf(vector, isInitiator ? "gen_init_ephemeral" : "gen_resp_ephemeral")));
}

// The message with this number, as hexadecimal digits.
QByteArray payloadOf(const Vector& vector, int number)
{
    return bytesOf(vector, "msg_" + QByteArray::number(number) + "_payload");
}

QByteArray expectedOf(const Vector& vector, int number)
{
    return vector.value("msg_" + QByteArray::number(number) + "_ciphertext");
}

void checkHandshake(const Vector& vector, NoiseHandshake& initiator, NoiseHandshake& responder)
{
    for (int number = 0; number < handshakeMessages; ++number) {
        NoiseHandshake& writer = number % 2 == 0 ? initiator : responder;
        NoiseHandshake& reader = number % 2 == 0 ? responder : initiator;
        const QByteArray message = writer.write(payloadOf(vector, number));
        EXPECT_EQ(message.toHex(), expectedOf(vector, number)) << number;
        QByteArray payload;
        ASSERT_TRUE(reader.read(message, &payload)) << number;
        EXPECT_EQ(payload, payloadOf(vector, number)) << number;
    }
}

void checkTransport(const Vector& vector, NoiseHandshake& initiator, NoiseHandshake& responder)
{
    NoiseCipher sendingInitiator = initiator.takeSending();
    NoiseCipher sendingResponder = responder.takeSending();
    NoiseCipher receivingInitiator = initiator.takeReceiving();
    NoiseCipher receivingResponder = responder.takeReceiving();
    int number = handshakeMessages;
    for (; !expectedOf(vector, number).isEmpty(); ++number) {
        const bool isInitiators = (number - handshakeMessages) % 2 == 0;
        const QByteArray sealed = (isInitiators ? sendingInitiator : sendingResponder).seal(payloadOf(vector, number));
        EXPECT_EQ(sealed.toHex(), expectedOf(vector, number)) << number;
        QByteArray plain;
        EXPECT_TRUE((isInitiators ? receivingResponder : receivingInitiator).open(sealed, &plain)) << number;
        EXPECT_EQ(plain, payloadOf(vector, number)) << number;
    }
    EXPECT_EQ(number, handshakeMessages + 2);
}

} // namespace

TEST(NoiseVectors, EveryByteIsAsPublished)
{
    const QList<Vector> vectors = vectorsIn(keptVectors);
    ASSERT_EQ(vectors.size(), vectorCount);
    for (const Vector& vector : vectors) {
        NoiseHandshake initiator = sideOf(vector, NoiseHandshake::Role::Initiator);
        NoiseHandshake responder = sideOf(vector, NoiseHandshake::Role::Responder);
        ASSERT_NO_FATAL_FAILURE(checkHandshake(vector, initiator, responder));
        ASSERT_TRUE(initiator.isDone());
        ASSERT_TRUE(responder.isDone());
        EXPECT_EQ(initiator.hash(), responder.hash());
        EXPECT_EQ(initiator.remotePublicKey(), noisetools::pairOf(bytesOf(vector, "resp_static")).publicKey());
        EXPECT_EQ(responder.remotePublicKey(), noisetools::pairOf(bytesOf(vector, "init_static")).publicKey());
        checkTransport(vector, initiator, responder);
    }
}

// What is kept here is what the package holds. scripts/test installs it.
TEST(NoiseVectors, KeptOnesAreThePackages)
{
    ASSERT_TRUE(QFile::exists(packagedVectors)) << "install golang-github-flynn-noise-dev, or run scripts/test";
    EXPECT_EQ(vectorsIn(keptVectors), vectorsIn(packagedVectors));
}
