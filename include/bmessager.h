// bMSG::Messager: a client of the local Redis server that the device's
// processes use as a message bus (settings, list queues, publish/subscribe).
//
// One Messager holds one hiredis connection and must be used by one thread
// at a time. Every operation connects first when the object holds no
// connection and returns -1 when that fails; a command that fails on a held
// connection is not retried and the connection is kept (so later commands
// fail the same way).
//
// Result codes: 0 or a count on success; -1 no connection could be made;
// -2 no reply to a push or publish (or the key/channel plus format did not
// fit the 1024-byte command template, in which case nothing is sent);
// -3 no reply to a pop, LLEN, DEL or SUBSCRIBE; -5 a value does not fit the
// caller's buffer; -6 a reply element is not a string; -7 no reply to SET;
// -8 no reply to GET; -10 no image given to the sample sender; -11 the
// sample segment holds another image; -12 a sample send refused under
// back-pressure; -13 the sample segment could not be grown (shared memory
// full; nothing written or pushed); -4 the server refused the command
// (after set_error_replies(true), which a login turns on; a refused
// SUBSCRIBE, a refused back-pressure LLEN and a refused pop of the int
// sample receivers always). Every -4 leaves the server's text in
// last_error().
//
// Failures that are reported write "bMSG ERROR <function>[<line>]:" to
// stderr, then the message and a line break to stdout.
#ifndef BMSG_BMESSAGER_H
#define BMSG_BMESSAGER_H

#include <chrono>
#include <cstdarg>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <sys/types.h>
#include <map>
#include <optional>
#include <string>
#include <vector>

#ifndef BMSG_API
#define BMSG_API __attribute__((visibility("default")))
#endif

struct redisContext;
struct redisReply;

namespace BImage {
class Image;
enum ImageFormat : int32_t;
}

namespace bMSG {

class SharedMemory;

// Whom a connection logs in as. With `on`, every connection opened for it
// sends AUTH before its first command: "AUTH user password", or "AUTH
// password" (the default user) when `user` is empty. The password is kept
// in memory, never printed, and cleared when the Login goes.
struct BMSG_API Login {
    bool on = false;
    std::string user;
    std::string password;

    Login() = default;
    // On when `password` is not null or `user` is not empty; a null password
    // with a user is an empty password.
    Login(const char* user, const char* password);
    Login(const Login&) = default;
    Login& operator=(const Login&) = default;
    ~Login();  // overwrites the password's bytes before they are freed
};

// (channel given to subscribe, payload (NUL-terminated, valid only during the
// call), payload length, user pointer (always null)).
using MessageCallback = std::function<void(const char*, const char*, size_t, void*)>;

// Writes the pixels of a loaned sample: (pixel area in the segment, its
// length in bytes, which is count() of the image described).
using SampleFill = std::function<void(unsigned char*, size_t)>;

// Reads the pixels of a received sample in place: (width, height, format,
// the pixels in the segment, count() bytes, valid only during the call).
using SampleView = std::function<void(int, int, BImage::ImageFormat, const unsigned char*)>;

class BMSG_API Messager {
public:
    // Connects at once with connect(). `address` null or empty means
    // "127.0.0.1"; an address starting with '/' is a Unix socket path and
    // `port` is then ignored. `attempts` <= 0 retries (in effect) for ever,
    // so the constructor blocks until a server answers. Returns normally
    // whether or not a connection was made.
    Messager(const char* address, uint16_t port, int attempts);

    // The same, logging in on every connection the object opens (the first,
    // the reconnect of an operation that finds no connection, the opt-in
    // reconnect) before its first command: AUTH user password, or AUTH
    // password when `user` is null or empty. Both null: exactly the
    // constructor above. A refused AUTH (wrong password, unknown or disabled
    // user, a server without that user) is final for that connect: it is
    // reported with the server's reason (never the password), the
    // connection is freed, no further attempt and no pause follow, and the
    // operation that connected returns -1. For one second after a refusal
    // every operation returns -1 at once without sending AUTH again, and the
    // same refusal is reported only once. With a login, error replies are on
    // from the start (set_error_replies(true)): a role refused a command
    // sees -4, never a success.
    Messager(const char* address, uint16_t port, int attempts, const char* user,
             const char* password);

    // Frees the connection and the owned segments (unlinking those this
    // process created). Sends nothing to Redis.
    ~Messager();

    Messager(const Messager&) = delete;
    Messager& operator=(const Messager&) = delete;

    // Tries up to `attempts` times to connect, reporting each failure and
    // sleeping one second after it (blocking). Success shows as a non-null
    // context(). Does nothing to a connection that is already held. With a
    // login, a refused AUTH ends it at once (see the constructor).
    void connect();

    // SET key value. Stores the text, "%d", "%f" (2.5 -> "2.500000") or
    // "%llu" form of the value. 0 when a reply arrived (server errors
    // included), -1 no connection, -7 no reply.
    int set(const char* key, const char* value);
    int set(const char* key, int value);
    int set(const char* key, float value);
    int set(const char* key, unsigned long value);

    // GET key. The buffer form copies a string value only when its length is
    // less than `size`, with no terminating NUL; otherwise the buffer is left
    // untouched. The float form parses a string value with strtod. The int
    // and unsigned long forms assign only from an integer reply, which GET
    // never gives on a standard server. 0 when a reply arrived (missing key
    // and over-long value included), -1 no connection, -8 no reply.
    int get(const char* key, char* buffer, int size);
    int get(const char* key, int* value);
    int get(const char* key, float* value);
    int get(const char* key, unsigned long* value);

    // LPUSH key <format...>: hiredis formats the caller's arguments, so "%s"
    // pushes one whole string and "%b" (pointer, length) raw bytes; literal
    // text in the format is split at blanks into separate elements. A '%' in
    // the key is taken literally. 0 on reply, -1, or -2 (no reply, or
    // key + format did not fit the 1024-byte template and nothing was sent).
    int list_send(const char* key, const char* format, va_list args);
    int list_send(const char* key, const char* format, ...);

    // Pops from the tail: BRPOP with `timeout` seconds when timeout > 0
    // (blocks up to that long), else RPOP (never blocks). Copies the value
    // without a NUL and returns its length (0 also for an empty queue).
    // With key_out non-null and key_size > 0 the key is written there,
    // NUL-terminated. -5 when the value (then not copied) or the key (then
    // cut) does not fit, -6 when a reply element is not a string, -1, -3.
    // After -5 or -6 the element is gone from the list.
    int list_recv(const char* key, char* buffer, int size, int timeout,
                  char* key_out, int key_size);

    // LLEN key: the length, -1, or -3 (no reply).
    int list_size(const char* key);

    // DEL key: 1 when the list existed, 0 when not, -1, or -3 (no reply).
    int list_clear(const char* key);

    // list_send on "DEVICE_CMD", "BIO_CMD", "MAIN_BIOMETRIC_INFO" and
    // "BIOMETRIC_RESP"; same results.
    int device_cmd_send(const char* format, ...);
    int bio_cmd_send(const char* format, ...);
    int bio_info_send(const char* format, ...);
    int bio_resp_send(const char* format, ...);

    // PUBLISH channel <format...>, formatted as for list_send. Returns the
    // number of subscribers reached, -1, or -2. The va_list form is silent;
    // the variadic form reports a missing reply ("reply is NULL") and a
    // negative reply integer (returned as it is).
    int publish(const char* channel, const char* format, va_list args);
    int publish(const char* channel, const char* format, ...);

    // publish (va_list form, silent) on "SYSTEM_STATUS".
    int system_publish(const char* format, ...);

    // SUBSCRIBE channel, then blocks for ever handing each message to
    // `callback` on the calling thread. Returns 0 when the connection fails
    // (the only way out once subscribed), -1 with no connection, -3 when
    // SUBSCRIBE got no reply, -4 when the server refused it (whatever
    // set_error_replies says: the first version waited for ever for
    // messages that could not come). An empty callback throws
    // std::bad_function_call on the first message. The connection serves
    // only the subscription afterwards.
    int subscribe(const char* channel, MessageCallback callback);

    // Biometric samples. For a modality m the descriptor list is
    // "BIOMETRIC_SAMPLE_" m and the shared-memory segment "/BIOMETRIC_SAMPLE_" m:
    // a 48-byte mutex, the 32-byte image header, then the pixels. Each list
    // element is exactly the 32 header bytes. Segments are opened on first
    // use, kept in `segments` and released by the destructor (a segment this
    // process created is unlinked then). std::runtime_error from SharedMemory
    // (creation, and data larger than the sender's segment) is not caught
    // and leaves these calls.
    //
    // A sender creates the segment when its name is free, else attaches to
    // the one that exists (another sender's): it never re-initialises its
    // mutex, never shrinks it, grows it under the lock whenever an image
    // needs more room (its pages allocated at once, so a full /dev/shm gives
    // -13 and never SIGBUS), and leaves unlinking to the creator. Each send
    // clears the segment's header, writes the pixels, then the header, in
    // one hold of the lock: a write that did not finish (a fill that threw,
    // a sender killed in its copy, whose lock the next holder takes over)
    // leaves a cleared header that no descriptor matches, so no receiver
    // delivers its pixels. (The first version wrote the pixels and the
    // header under two holds of the lock and never grew a segment: a larger
    // image threw.) Before it copies, a
    // receiver checks with one fstat that its cached segment still has its
    // name and length; a segment a restarted sender made anew, cut or grown
    // is opened again by name (so a cached segment smaller than a new image
    // no longer throws "Read size exceeds shared memory size": it is mapped
    // further when the object has grown, else it counts as missing, and a
    // mapping whose object lost its name no longer serves the old pixels).
    // Under the lock it compares the descriptor it took with the header the
    // segment holds (offset 48): when they differ the pixels belong to
    // another image and it delivers nothing (described receivers: null and
    // the report "shared memory holds another image"; additions: -11). The
    // descriptor is gone from the list as after any other failure
    // (bio_sample_read: see there).
    //
    // The segment holds one image. Equal headers cannot tell a same-shape
    // overwrite apart: a receiver that falls behind gets the newer capture
    // under the older descriptor. set_sample_backpressure below keeps
    // senders from overwriting while a descriptor is queued; what remains is
    // the moment between a receiver's pop and its copy. To close it, send
    // the next image only after the receiver's acknowledgement (for example
    // its answer on BIOMETRIC_RESP or a status it publishes once it holds the
    // image), as the demo's control script does.

    // Writes the pixels and the header into the modality's segment (created
    // or attached on the first send with room for this image's count() + 32
    // bytes, grown when a later image needs more) and pushes the header onto
    // the modality's list. 0, -1 no connection, -10 `image` null, with a
    // negative count() or without pixels for a positive one, -2 no reply to
    // the push, or the modality contains a blank (it could not name one list
    // key; nothing is written), -13 the segment could not be grown, -12
    // back-pressure on and a descriptor still queued, -3 or -4 its LLEN got
    // no reply or was refused (nothing written on -13, -12, -3, -4). The
    // creation of the segment throws as SharedMemory does. `modality` must
    // not be null.
    int bio_sample_send(const char* modality, BImage::Image* image);

    // BRPOP on the modality's list, blocking up to `timeout` seconds (0: no
    // limit). Null on time-out, no reply or no connection, and after the
    // reports of the vector form below. The image is new'd; the caller
    // deletes it. (The first version accepted only a bare string reply, which
    // no server gives: every pop was reported as "bad data type: 2" and its
    // sample lost.)
    BImage::Image* bio_sample_recv(const char* modality, int timeout);

    // BRPOP with each modality's list as its own key, blocking up to
    // `timeout` seconds (0: no limit), so the first descriptor pushed to any
    // of them is taken. An empty vector returns null at once and sends
    // nothing. On success the modality is written NUL-terminated to `out`
    // (`len` bytes) and a new image (caller deletes) is returned. Null on
    // time-out, no reply or connection, and after a report: "buffer size too
    // small: <len>" (`out` holds the cut name), "bad data type: <type>",
    // "bad modality: <key>", "pop refused: <server's text>", "load image
    // failed", "shared memory is invalid", "shared memory holds another
    // image". The descriptor is gone from the list after every pop, failed
    // or not. (The first version joined the keys into one argument, so two
    // or more modalities waited on a list nobody sends to.)
    BImage::Image* bio_sample_recv(std::vector<const char*> modalities, int timeout, char* out,
                                   int len);

    // LRANGE key -1 -1: loads the oldest descriptor (the one the next
    // receive takes) without removing it. Null for an empty list or no
    // reply. A non-list key reports "bad data type: <type>, value is INT
    // <n>" and drops the connection (the next operation reconnects); with
    // error replies on, an error reply (a refusal, a non-list key) reports
    // "read refused: <server's text>" and keeps the connection. When
    // the modality's segment cannot be opened it reports "shared memory is
    // invalid" and RPOPs that descriptor so it cannot block later reads.
    // When the segment holds another image it reports "shared memory holds
    // another image" and removes that descriptor (LREM key -1 <its bytes>):
    // its image is gone for good, and the next read looks at the next one.
    // With error replies on, a refused removal (a role that may only look)
    // is reported, "descriptor kept, removal refused: <server's text>", and
    // the text kept for last_error(). Never blocks. The image is new'd; the caller deletes it.
    BImage::Image* bio_sample_read(const char* modality);

    // bio_sample_read for each modality in order; the first image found is
    // returned and its modality written to `out` (cut to `len` bytes, no
    // report; nothing written when `out` is null or `len` <= 0). Null when
    // no modality has one; `out` is then untouched.
    BImage::Image* bio_sample_read(std::vector<const char*> modalities, char* out, int len);

    // ---- Additions beside the operations above; each is opt-in and changes
    // nothing for the callers of the others.
    //
    // Result codes of the int-returning receives below: 1 a sample was
    // delivered, 0 time-out or no modality given, -1 no
    // connection, -3 no reply to the pop, -5 the modality did not fit `out`
    // (the sample is dropped), -6 the reply or the descriptor is malformed
    // (a negative timeout is refused by the server and gives -6 too),
    // -9 the modality's segment is missing or shorter than the image, -10
    // the caller's image could not be grown, -11 the segment holds another
    // image than the descriptor describes (overwritten, made anew, or its
    // write did not finish), -4 the pop was refused.
    // The descriptor is gone from the list after every pop. None of them
    // reports on stdout/stderr.

    // The vector form of bio_sample_recv (same pop, reports, `out` and
    // ownership: the caller deletes the image), under its own name in the
    // reports.
    BImage::Image* bio_sample_recv_any(const std::vector<const char*>& modalities, int timeout,
                                       char* out, int len);

    // Sends without copying the caller's pixels: `fill` gets the pixel area
    // of the modality's segment (created or grown as by bio_sample_send for
    // an image of this size) and writes count() bytes there, then the
    // descriptor is pushed as bio_sample_send does, so any receiver takes it.
    // The segment lock is held while `fill` runs: a slow fill delays the
    // receivers of this modality. The lock is released on every exit; an
    // exception from `fill` propagates, nothing is pushed, and the segment
    // holds no image a receiver delivers. Returns 0, -1, -2, -3, -4, -12, -13
    // (as bio_sample_send; fill not called then), -10 when width, height
    // and format give no pixels.
    int bio_sample_loan(const char* modality, int width, int height, BImage::ImageFormat format,
                        const SampleFill& fill);

    // Receives without allocating or copying: pops as bio_sample_recv_any,
    // then calls `view` with the image's shape and a pointer to its pixels
    // in the segment while holding the segment lock (a slow view delays the
    // sender of that modality; the lock is released on every exit, an
    // exception from `view` propagates). The modality goes to `out` (`len`
    // bytes, NUL-terminated) when `out` is not null. Blocks up to `timeout`
    // seconds (0: no limit). Codes above.
    int bio_sample_view(const std::vector<const char*>& modalities, int timeout,
                        const SampleView& view, char* out = nullptr, int len = 0);

    // Receives into the caller's image: as bio_sample_view, copying the
    // pixels into `image` and setting its width, height and format. Its
    // buffer is reused when it holds at least the new count() bytes (its
    // current count() counts as its size), else a new one is allocated and
    // owned by the record (its own previous block is freed; caller data is
    // never freed). A steady stream of one size allocates nothing. On every
    // result but 1 the image is exactly as it was (a longer image is copied
    // into a new block that is adopted only on success); -10 when the
    // allocation fails (sample dropped).
    int bio_sample_recv_into(const std::vector<const char*>& modalities, int timeout,
                             BImage::Image& image, char* out = nullptr, int len = 0);

    // Off by default: a command that fails on a held connection keeps it and
    // later commands fail too. On: a connection that a command found broken
    // (hiredis marked it failed: server gone, reset, closed) is freed at the
    // start of the next operation, which connects again with the object's
    // attempts. The failing call still returns its own code.
    void set_reconnect(bool on) { reconnect = on; }

    // 0 by default: segments this object creates get mode 0666 less the
    // process umask, so on a device with several users any of them may read
    // the samples. Any other value (for example 0600 or 0660) is given to
    // each segment this object creates from then on, exactly (umask not
    // applied); the object must not be owned by another user. See
    // SharedMemory's constructor. A segment another process created keeps
    // its mode.
    void set_segment_mode(mode_t mode) { segment_mode = mode; }

    // Off by default (on from the start for an object made with a login):
    // an error reply of the server (for example NOPERM from an ACL) counts
    // as a reply, as the operations above describe. On: every
    // operation that gets an error reply to its command returns -4 ("the
    // server refused the command") instead, and last_error() holds the
    // reply's text. The sample senders return -4 when their push is refused
    // and the int receivers when their pop is; the image receivers return
    // null as before.
    void set_error_replies(bool on) { error_replies = on; }

    // Leaves the modality's segment in /dev/shm when this object goes (for
    // receivers that have not yet taken its queued descriptors); without
    // it, a segment this object created is removed then. No effect on a
    // modality this object holds no segment for.
    void keep_segment(const char* modality);

    // The text of the last error reply that made an operation return -4, or
    // of the last refused AUTH (whatever set_error_replies says); empty
    // until one came. Kept until the next refusal.
    const std::string& last_error() const { return refusal; }

    // Off by default (negative). With `milliseconds` >= 0, bio_sample_send
    // and bio_sample_loan do not overwrite a segment while a descriptor of
    // that modality is still queued: they wait for the list to drain, asking
    // LLEN about every 2 ms for up to `milliseconds` (blocking), and then
    // return -12 with nothing written or pushed. A refused LLEN is -4 and
    // one without reply -3, never "nothing queued". The LLEN, the write and
    // the push happen under flock(LOCK_EX) on the segment, which only
    // senders take, so two senders with it on never overwrite each other's
    // queued image, while the segment mutex is held for the copy alone and
    // no receiver waits on a round trip. It protects only images still
    // queued, see the window above.
    void set_sample_backpressure(int milliseconds) { backpressure = milliseconds; }

    // The live connection (null while not connected), the server address
    // and port and the login; for bindings and subscriptions that open
    // connections of their own to the same server.
    redisContext* redis_context() const { return context; }
    const std::string& server_address() const { return address; }
    uint16_t server_port() const { return port; }
    const Login& login() const { return credentials; }

private:
    redisContext* context;
    int attempts;
    std::string address;
    uint16_t port;

    Login credentials;

    bool ensure_connected();
    int verdict(const redisReply* r, int missing, bool always = false);
    redisReply* fetch(const char* key, int* rc);

public:
    // Named channels: Redis keys and channels the processes address each
    // other by. Static literals, never changed.
    const char* const device_cmd;     // "DEVICE_CMD"
    const char* const bio_sample;     // "BIOMETRIC_SAMPLE_" (key prefix)
    const char* const device_status;  // "DEVICE_STATUS"
    const char* const system_status;  // "SYSTEM_STATUS"
    const char* const bio_info;       // "MAIN_BIOMETRIC_INFO"
    const char* const bio_cmd;        // "BIO_CMD"
    const char* const bio_resp;       // "BIOMETRIC_RESP"

    // Segments opened by the sample operations, by modality; owned.
    std::map<std::string, SharedMemory*> segments;

private:
    bool reconnect = false;
    mode_t segment_mode = 0;
    bool error_replies = false;
    std::string refusal;
    int backpressure = -1;
    std::optional<std::chrono::steady_clock::time_point> refused_at;  // last refused AUTH

    SharedMemory* sender_segment(const std::string& name, size_t capacity);
    int put_sample(const std::string& name, size_t length, const unsigned char* header,
                   const std::function<void(unsigned char*)>& pixels);
    int queued_samples(const std::string& key);
    int pop_sample(const std::vector<const char*>& modalities, int timeout, char* out, int len,
                   std::string& modality, std::string& descriptor, std::string* why = nullptr);
    BImage::Image* receive(const char* func, const std::vector<const char*>& modalities,
                           int timeout, char* out, int len);
    int view_sample(const std::string& modality, const std::string& descriptor,
                    const std::function<bool(int, int, BImage::ImageFormat, size_t)>& prepare,
                    const SampleView& view);
};

} // namespace bMSG

#endif
