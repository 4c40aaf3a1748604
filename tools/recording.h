// Recordings of the bus made by `bmsg record`: one SQLite file each, read by
// `bmsg play`, `info` and `export`. The schema is in docs/recording.md.
#ifndef BMSG_TOOLS_RECORDING_H
#define BMSG_TOOLS_RECORDING_H

#include "bimage.h"
#include "sealing.h"

#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <string>
#include <vector>

struct sqlite3;

namespace recording {

// The pixels read from a sample's segment right after its descriptor was
// pushed; `missed` says why there are none (pixels then empty).
struct Sample {
    std::string modality;
    std::string pixels;
    std::string missed;
};

// One thing that happened on the bus.
struct Event {
    int64_t time_us = 0;  // the server's clock, microseconds since 1970
    std::string kind;     // "push", "sample" (a push onto a sample list), "publish", "set"
    std::string command;  // LPUSH, RPUSH, LPUSHX, RPUSHX, PUBLISH or SET
    std::string name;     // list key, channel or setting key
    std::string payload;  // element, message or value, exact bytes
    bool has_sample = false;
    Sample sample;
    // Read from a sealed recording without its key: payload and pixels are
    // withheld (empty), but a sample's descriptor, rebuilt from its shape.
    bool withheld = false;
};

// Empty when `e` is something a recorder writes: a push (LPUSH, RPUSH,
// LPUSHX or RPUSHX of one element) onto a list that is not a sample list, a
// sample (such a push onto a BIOMETRIC_SAMPLE_ list, with pixels of that
// list when it has a sample), a PUBLISH or a SET (key and value); else what
// it is instead, on one line. `bmsg play` sends nothing else.
std::string unrecordable(const Event& e);

// What a sample descriptor says of its image: width, height, format and
// the pixels' size in bytes.
struct Shape {
    unsigned int width = 0, height = 0;
    BImage::ImageFormat format = BImage::GRAY8;
    unsigned long size = 0;
};

// False when `payload` is not a sample descriptor.
bool shape_of(const std::string& payload, Shape& shape);

// A recorded time (microseconds since 1970) as strftime's `format` writes
// it, in local time or in UTC.
std::string time_text(int64_t us, const char* format, bool utc = false);

class File {
public:
    // Creates a new recording at `path` with mode 0600 (an existing file is
    // refused), WAL journal; sealed to `seal_to` when given. Null with
    // `error` set on failure.
    static std::unique_ptr<File> create(const std::string& path, std::string& error,
                                        const sealing::PublicKey* seal_to = nullptr);
    // Opens a recording read-only (one a killed recorder left included).
    // Null with `error` set when it is missing or not a recording: one event
    // that unrecordable() refuses makes it none (`error` gives its number,
    // counted from 1 in recorded order). A sealed recording opens without
    // `key` for its clear fields only (locked()); with it every event is
    // checked here: a wrong key, or an event changed, moved or removed, is
    // an error (naming the event).
    static std::unique_ptr<File> open(const std::string& path, std::string& error,
                                      const sealing::SecretKey* key = nullptr);
    ~File();
    File(const File&) = delete;
    File& operator=(const File&) = delete;

    // Writes the events in one transaction; false with `error` set.
    bool write(const std::vector<Event>& events, std::string& error);
    bool set_meta(const std::string& key, const std::string& value, std::string& error);
    std::map<std::string, std::string> meta();

    // Calls `fn` for each event in recorded order, with its sample when one
    // was recorded (its pixels only when `pixels`), until it returns false.
    // False with `error` on a read failure, and, when sealed, on an event
    // that does not open (named), or when asked for pixels while locked().
    bool each(const std::function<bool(const Event&)>& fn, bool pixels, std::string& error);
    int64_t count();
    bool sealed() const { return sealed_; }
    // Sealed and opened without its key: payloads and pixels cannot be read.
    bool locked() const { return sealed_ && !key_; }

private:
    explicit File(sqlite3* db) : db_(db) {}
    bool exec(const char* sql, std::string& error);
    bool unseal(Event& e, int64_t id, int64_t number, bool pixels, const Shape* shape, std::string& error) const;
    sqlite3* db_;
    bool sealed_ = false;
    std::unique_ptr<sealing::RecordingKey> key_;  // null: not sealed, or locked
    int64_t next_id_ = 1;  // a sealed file's ids: 1, 2, ... in recorded order
};

} // namespace recording

#endif
