// Sealed recordings (docs/security.md): a key pair whose public half the
// recorder seals each recording's own key to, and that key's authenticated
// encryption of the fields that hold biometric data. Everything
// cryptographic is libsodium's.
#ifndef BMSG_TOOLS_SEALING_H
#define BMSG_TOOLS_SEALING_H

#include <cstddef>
#include <memory>
#include <string>

namespace sealing {

constexpr size_t key_size = 32;  // X25519 keys, XChaCha20-Poly1305 keys

// Bytes that are never swapped out and are wiped when they go
// (sodium_malloc); throws std::bad_alloc.
class Secret {
public:
    explicit Secret(size_t size);
    ~Secret();
    Secret(const Secret&) = delete;
    Secret& operator=(const Secret&) = delete;
    unsigned char* data() const { return p_; }

private:
    unsigned char* p_;
};

struct PublicKey {
    unsigned char bytes[key_size];
};

// A secret key and its public half.
struct SecretKey {
    Secret secret{key_size};
    PublicKey public_key;
};

// Writes a new key pair: `name`.pub (mode 0644) and `name`.key (mode 0600).
// Existing files are refused, never overwritten. False with `error` set.
bool write_key_pair(const std::string& name, std::string& error);

// A key file of the kind asked for (its first line names it); null with
// `error` set. A secret key file that others may read is refused.
std::unique_ptr<PublicKey> read_public_key(const std::string& path, std::string& error);
std::unique_ptr<SecretKey> read_secret_key(const std::string& path, std::string& error);

// One recording's key: fields sealed with their own random nonce, bound to
// `context` (additional data: which event and field they are).
class RecordingKey {
public:
    // A new random key and, in `sealed`, that key sealed to `to` (text).
    static std::unique_ptr<RecordingKey> create(const PublicKey& to, std::string& sealed, std::string& error);
    // The key in `sealed` (as create() gave it), opened with `key`.
    static std::unique_ptr<RecordingKey> open(const SecretKey& key, const std::string& sealed, std::string& error);

    // The nonce followed by the ciphertext and its tag.
    std::string seal(const std::string& clear, const std::string& context) const;
    // False when `sealed` was not sealed by this key with this context.
    bool open(const std::string& sealed, const std::string& context, std::string& clear) const;

private:
    RecordingKey() = default;
    Secret key_{key_size};
};

} // namespace sealing

#endif
