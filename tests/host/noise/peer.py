"""The other side of a handshake by an implementation that is not ours (python3-dissononce).

peer.py initiator|responder PROLOGUE [PUBLIC_KEY]     both in hexadecimal digits

On standard input and output, each with its length in two bytes before it: out its public key;
the handshake's messages in turn, with the payload "from SIDE N"; out the handshake's hash and the
key it has seen; then for each sealed message that comes in the same bytes in reverse order,
sealed. Ends with status 0 at the end of its input, with 3 when a message is not genuine.
PUBLIC_KEY: what to show in place of the key it has.
"""

import struct
import sys

from dissononce.cipher.chachapoly import ChaChaPolyCipher
from dissononce.dh.keypair import KeyPair
from dissononce.dh.x25519.public import PublicKey
from dissononce.dh.x25519.x25519 import X25519DH
from dissononce.exceptions.decrypt import DecryptFailedException
from dissononce.hash.sha256 import SHA256Hash
from dissononce.processing.handshakepatterns.interactive.XX import XXHandshakePattern
from dissononce.processing.impl.cipherstate import CipherState
from dissononce.processing.impl.handshakestate import HandshakeState
from dissononce.processing.impl.symmetricstate import SymmetricState


def put(message):
    sys.stdout.buffer.write(struct.pack(">H", len(message)) + bytes(message))
    sys.stdout.buffer.flush()


def take():
    head = sys.stdin.buffer.read(2)
    if len(head) < 2:
        sys.exit(0)
    size = struct.unpack(">H", head)[0]
    message = sys.stdin.buffer.read(size)
    if len(message) < size:
        sys.exit(4)
    return message


def main():
    role = sys.argv[1]
    is_initiator = role == "initiator"
    dh = X25519DH()
    static = dh.generate_keypair()
    if len(sys.argv) > 3:
        static = KeyPair(PublicKey(bytes.fromhex(sys.argv[3])), static.private)
    handshake = HandshakeState(SymmetricState(CipherState(ChaChaPolyCipher()), SHA256Hash()), dh)
    handshake.initialize(XXHandshakePattern(), is_initiator, bytes.fromhex(sys.argv[2]), s=static)
    put(static.public.data)
    ciphers = None
    for number in range(3):
        if (number % 2 == 0) == is_initiator:
            message = bytearray()
            ciphers = handshake.write_message(f"from {role} {number}".encode(), message)
            put(message)
        else:
            ciphers = handshake.read_message(take(), bytearray())
    put(handshake.symmetricstate.get_handshake_hash())
    put(handshake.rs.data)
    sending, receiving = ciphers if is_initiator else reversed(ciphers)
    while True:
        plain = receiving.decrypt_with_ad(b"", take())
        put(sending.encrypt_with_ad(b"", plain[::-1]))


try:
    main()
except DecryptFailedException:
    sys.exit(3)
