#include "sealing.h"
#include "bmsg_tool.h"

#include <fcntl.h>
#include <sodium.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <new>

namespace sealing {

namespace {

// The first line of each kind of key file: the wrong kind is refused.
constexpr const char* public_header = "bmsg public key of sealed recordings\n";
constexpr const char* secret_header = "bmsg secret key of sealed recordings\n";
constexpr int variant = sodium_base64_VARIANT_ORIGINAL;
constexpr size_t text_max = 256;  // a key file is far shorter
constexpr size_t sealed_size = key_size + crypto_box_SEALBYTES;

static_assert(crypto_box_PUBLICKEYBYTES == key_size && crypto_box_SECRETKEYBYTES == key_size &&
              crypto_aead_xchacha20poly1305_ietf_KEYBYTES == key_size);

bool write_all(int fd, const char* p, size_t n)
{
    while (n > 0) {
        const ssize_t w = write(fd, p, n);
        if (w < 0 && errno == EINTR)
            continue;
        if (w <= 0)
            return false;
        p += w;
        n -= static_cast<size_t>(w);
    }
    return true;
}

// A new file of `mode` whatever the umask, holding the header and the key's
// base64 text. The text is made in wiped memory: it may be a secret key.
bool write_key(const std::string& path, mode_t mode, const char* header, const unsigned char* key,
               std::string& error)
{
    const bmsg_tool::Fd f(open(path.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, mode));
    Secret text(text_max);
    char* b64 = reinterpret_cast<char*>(text.data());
    sodium_bin2base64(b64, text_max - 1, key, key_size, variant);
    strcat(b64, "\n");
    const bool ok = f.fd >= 0 && fchmod(f.fd, mode) == 0 && write_all(f.fd, header, strlen(header)) &&
                    write_all(f.fd, b64, strlen(b64)) && fsync(f.fd) == 0;
    if (!ok)
        error = path + ": " + strerror(errno);
    if (!ok && f.fd >= 0)
        unlink(path.c_str());
    return ok;
}

// The key in the file at `path`, whose first line must be `header`.
bool read_key(const std::string& path, const char* header, bool secret, unsigned char* key, std::string& error)
{
    const bmsg_tool::Fd f(open(path.c_str(), O_RDONLY | O_CLOEXEC));
    struct stat st;
    if (f.fd < 0 || fstat(f.fd, &st) != 0) {
        error = path + ": " + strerror(errno);
        return false;
    }
    Secret text(text_max);
    char* p = reinterpret_cast<char*>(text.data());
    size_t n = 0;
    for (ssize_t r; n < text_max && (r = read(f.fd, p + n, text_max - n)) != 0;) {
        if (r < 0 && errno == EINTR)
            continue;
        if (r < 0) {
            error = path + ": " + strerror(errno);
            return false;
        }
        n += static_cast<size_t>(r);
    }
    const size_t h = strlen(header);
    size_t length = 0;
    const char* end = nullptr;
    if (n == text_max || n < h || memcmp(p, header, h) != 0 ||
        sodium_base642bin(key, key_size, p + h, n - h, "\n", &length, &end, variant) != 0 ||
        length != key_size || end != p + n) {
        error = path + ": not a " + (secret ? "secret" : "public") + " key of sealed recordings (bmsg keygen)";
        sodium_memzero(key, key_size);
        return false;
    }
    if (secret && (st.st_mode & 077) != 0) {
        error = path + ": a secret key that others may read (make it mode 0600)";
        sodium_memzero(key, key_size);
        return false;
    }
    return true;
}

} // namespace

Secret::Secret(size_t size)
{
    if (sodium_init() < 0 || !(p_ = static_cast<unsigned char*>(sodium_malloc(size))))
        throw std::bad_alloc();
}

Secret::~Secret()
{
    sodium_free(p_);
}

bool write_key_pair(const std::string& name, std::string& error)
{
    SecretKey key;
    crypto_box_keypair(key.public_key.bytes, key.secret.data());
    // The secret first: a pair is never left with a public half only.
    if (!write_key(name + ".key", 0600, secret_header, key.secret.data(), error))
        return false;
    if (write_key(name + ".pub", 0644, public_header, key.public_key.bytes, error))
        return true;
    unlink((name + ".key").c_str());
    return false;
}

std::unique_ptr<PublicKey> read_public_key(const std::string& path, std::string& error)
{
    auto key = std::make_unique<PublicKey>();
    return read_key(path, public_header, false, key->bytes, error) ? std::move(key) : nullptr;
}

std::unique_ptr<SecretKey> read_secret_key(const std::string& path, std::string& error)
{
    auto key = std::make_unique<SecretKey>();
    if (!read_key(path, secret_header, true, key->secret.data(), error))
        return nullptr;
    crypto_scalarmult_base(key->public_key.bytes, key->secret.data());
    return key;
}

std::unique_ptr<RecordingKey> RecordingKey::create(const PublicKey& to, std::string& sealed, std::string& error)
{
    std::unique_ptr<RecordingKey> k(new RecordingKey);
    crypto_aead_xchacha20poly1305_ietf_keygen(k->key_.data());
    unsigned char box[sealed_size];
    char text[sodium_base64_ENCODED_LEN(sealed_size, variant)];
    if (crypto_box_seal(box, k->key_.data(), key_size, to.bytes) != 0) {
        error = "cannot seal the recording's key";
        return nullptr;
    }
    sealed = sodium_bin2base64(text, sizeof text, box, sizeof box, variant);
    return k;
}

std::unique_ptr<RecordingKey> RecordingKey::open(const SecretKey& key, const std::string& sealed, std::string& error)
{
    std::unique_ptr<RecordingKey> k(new RecordingKey);
    unsigned char box[sealed_size];
    size_t length = 0;
    if (sodium_base642bin(box, sizeof box, sealed.data(), sealed.size(), nullptr, &length, nullptr, variant) != 0 ||
        length != sizeof box ||
        crypto_box_seal_open(k->key_.data(), box, sizeof box, key.public_key.bytes, key.secret.data()) != 0) {
        error = "the key does not open this recording (sealed to another key, or its sealed key was changed)";
        return nullptr;
    }
    return k;
}

std::string RecordingKey::seal(const std::string& clear, const std::string& context) const
{
    constexpr size_t nonce = crypto_aead_xchacha20poly1305_ietf_NPUBBYTES;
    std::string out(nonce + clear.size() + crypto_aead_xchacha20poly1305_ietf_ABYTES, '\0');
    auto* p = reinterpret_cast<unsigned char*>(&out[0]);
    randombytes_buf(p, nonce);
    crypto_aead_xchacha20poly1305_ietf_encrypt(p + nonce, nullptr, reinterpret_cast<const unsigned char*>(clear.data()),
                                               clear.size(), reinterpret_cast<const unsigned char*>(context.data()),
                                               context.size(), nullptr, p, key_.data());
    return out;
}

bool RecordingKey::open(const std::string& sealed, const std::string& context, std::string& clear) const
{
    constexpr size_t nonce = crypto_aead_xchacha20poly1305_ietf_NPUBBYTES;
    constexpr size_t extra = nonce + crypto_aead_xchacha20poly1305_ietf_ABYTES;
    clear.clear();
    if (sealed.size() < extra)
        return false;
    clear.resize(sealed.size() - extra);
    const auto* p = reinterpret_cast<const unsigned char*>(sealed.data());
    if (crypto_aead_xchacha20poly1305_ietf_decrypt(reinterpret_cast<unsigned char*>(&clear[0]), nullptr, nullptr,
                                                   p + nonce, sealed.size() - nonce,
                                                   reinterpret_cast<const unsigned char*>(context.data()),
                                                   context.size(), p, key_.data()) == 0)
        return true;
    clear.clear();
    return false;
}

} // namespace sealing
