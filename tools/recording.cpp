#include "recording.h"
#include "bimage.h"
#include "bmsg_tool.h"

#include <fcntl.h>
#include <sqlite3.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <ctime>
#include <string_view>

namespace recording {

namespace {

constexpr const char* format_version = "1";
// Older readers refuse a sealed recording rather than take its ciphertext
// for payloads.
constexpr const char* sealed_format = "1-sealed";

// The library's key prefix of the sample lists (Messager::bio_sample).
constexpr std::string_view sample_prefix = "BIOMETRIC_SAMPLE_";

constexpr const char* schema =
    "PRAGMA journal_mode=WAL;"
    "CREATE TABLE meta (key TEXT PRIMARY KEY, value TEXT NOT NULL);"
    "CREATE TABLE events (id INTEGER PRIMARY KEY, time_us INTEGER NOT NULL,"
    " kind TEXT NOT NULL, command TEXT NOT NULL, name TEXT NOT NULL, payload BLOB NOT NULL);"
    "CREATE TABLE samples (event INTEGER PRIMARY KEY REFERENCES events(id),"
    " modality TEXT NOT NULL, pixels BLOB, missed TEXT);";

// A sealed recording's sample shapes, clear for `bmsg info`: the descriptor
// holds nothing more, and is sealed with the other payloads.
constexpr const char* shapes_schema =
    "CREATE TABLE shapes (event INTEGER PRIMARY KEY REFERENCES events(id),"
    " width INTEGER NOT NULL, height INTEGER NOT NULL, format INTEGER NOT NULL);";

// A prepared statement finalized on every exit path.
struct Statement {
    sqlite3_stmt* s = nullptr;
    Statement(sqlite3* db, const char* sql) { sqlite3_prepare_v2(db, sql, -1, &s, nullptr); }
    ~Statement() { sqlite3_finalize(s); }
    void text(int i, const std::string& v) { sqlite3_bind_text(s, i, v.data(), static_cast<int>(v.size()), SQLITE_STATIC); }
    void blob(int i, const std::string& v) { sqlite3_bind_blob(s, i, v.data(), static_cast<int>(v.size()), SQLITE_STATIC); }
    std::string column(int i)
    {
        const void* p = sqlite3_column_blob(s, i);
        return p ? std::string(static_cast<const char*>(p), sqlite3_column_bytes(s, i)) : "";
    }
    bool step_done()
    {
        const bool ok = sqlite3_step(s) == SQLITE_DONE;
        sqlite3_reset(s);
        return ok;
    }
};

// An open connection closed unless handed on.
struct Db {
    sqlite3* db = nullptr;
    ~Db() { sqlite3_close(db); }
    sqlite3* release()
    {
        sqlite3* d = db;
        db = nullptr;
        return d;
    }
};

// What a sealed field is bound to (its additional data): its own name, its
// event's number and every clear field of the event, each with its length.
// A ciphertext moved to another field or event, or an event's clear fields
// changed, no longer opens.
std::string context(const char* field, int64_t id, const Event& e)
{
    std::string c = std::string(field) + " " + std::to_string(id) + " " + std::to_string(e.time_us) +
                    (e.has_sample ? " sample" : " none");
    for (const std::string* s : {&e.kind, &e.command, &e.name, &e.sample.modality, &e.sample.missed})
        c += " " + std::to_string(s->size()) + ":" + *s;
    return c;
}

// The descriptor of a sample of this shape (it holds nothing else).
std::string descriptor(const Shape& shape)
{
    unsigned char borrowed = 0;
    const BImage::Image probe(static_cast<int>(shape.width), static_cast<int>(shape.height), shape.format,
                              &borrowed);
    return std::string(reinterpret_cast<const char*>(probe.format_header()), BImage::Image::header_size);
}

} // namespace

bool shape_of(const std::string& payload, Shape& shape)
{
    return payload.size() == BImage::Image::header_size &&
           BImage::Image::parse_image_header(reinterpret_cast<const unsigned char*>(payload.data()), shape.width,
                                             shape.height, shape.size, shape.format);
}

std::unique_ptr<File> File::create(const std::string& path, std::string& error, const sealing::PublicKey* seal_to)
{
    // The file may hold biometric images: nobody else may read it, whatever
    // the umask. SQLite gives its -wal and -shm files the same mode.
    const int fd = ::open(path.c_str(), O_CREAT | O_EXCL | O_WRONLY | O_CLOEXEC, 0600);
    if (fd < 0 || fchmod(fd, 0600) != 0) {
        error = strerror(errno);
        if (fd >= 0)
            ::close(fd);
        return nullptr;
    }
    ::close(fd);
    Db db;
    if (sqlite3_open_v2(path.c_str(), &db.db, SQLITE_OPEN_READWRITE, nullptr) != SQLITE_OK) {
        error = db.db ? sqlite3_errmsg(db.db) : "out of memory";
        return nullptr;
    }
    std::unique_ptr<File> file(new File(db.release()));
    // NORMAL in WAL mode: a committed batch survives the process being
    // killed; only a power cut may lose the last ones.
    if (!file->exec(schema, error) || !file->exec("PRAGMA synchronous=NORMAL", error))
        return nullptr;
    if (seal_to) {
        // Only the secret key's holder can open the recording's own key.
        std::string sealed;
        file->key_ = sealing::RecordingKey::create(*seal_to, sealed, error);
        file->sealed_ = true;
        if (!file->key_ || !file->exec(shapes_schema, error) || !file->set_meta("sealed_key", sealed, error))
            return nullptr;
    }
    if (!file->set_meta("format", seal_to ? sealed_format : format_version, error))
        return nullptr;
    return file;
}

std::string time_text(int64_t us, const char* format, bool utc)
{
    const time_t seconds = static_cast<time_t>(us / 1000000);
    tm broken = {};
    if (utc)
        gmtime_r(&seconds, &broken);
    else
        localtime_r(&seconds, &broken);
    char text[48];
    return std::string(text, strftime(text, sizeof text, format, &broken));
}

std::string unrecordable(const Event& e)
{
    const std::string_view command = e.command, kind = e.kind;
    const bool push = command == "LPUSH" || command == "RPUSH" || command == "LPUSHX" || command == "RPUSHX";
    const bool sample_list = e.name.compare(0, sample_prefix.size(), sample_prefix) == 0;
    bool ok = false;
    if (kind == "push")
        ok = push && !sample_list && !e.has_sample;
    else if (kind == "sample")
        ok = push && sample_list && (!e.has_sample || e.sample.modality == e.name.substr(sample_prefix.size()));
    else if (kind == "publish" || kind == "set")
        ok = command == (kind == "set" ? "SET" : "PUBLISH") && !e.has_sample;
    if (ok)
        return "";
    const auto shown = [](const std::string& s) { return bmsg_tool::escaped(s.data(), std::min<size_t>(s.size(), 40)); };
    return "kind \"" + shown(e.kind) + "\" command \"" + shown(e.command) + "\" on \"" + shown(e.name) + "\"" +
           (e.has_sample ? " with a sample" : "") + " is nothing a recorder writes";
}

std::unique_ptr<File> File::open(const std::string& path, std::string& error, const sealing::SecretKey* key)
{
    Db db;
    if (sqlite3_open_v2(path.c_str(), &db.db, SQLITE_OPEN_READONLY, nullptr) != SQLITE_OK) {
        error = db.db ? sqlite3_errmsg(db.db) : "out of memory";
        return nullptr;
    }
    // The file may come from anywhere: its schema runs no function that
    // has side effects, and nothing is loaded from it.
    sqlite3_db_config(db.db, SQLITE_DBCONFIG_TRUSTED_SCHEMA, 0, nullptr);
    sqlite3_db_config(db.db, SQLITE_DBCONFIG_DEFENSIVE, 1, nullptr);
    std::unique_ptr<File> file(new File(db.release()));
    auto meta = file->meta();
    file->sealed_ = meta["format"] == sealed_format;
    if (meta["format"] != format_version && !file->sealed_) {
        error = "not a bmsg recording";
        return nullptr;
    }
    if (file->sealed_ && key && !(file->key_ = sealing::RecordingKey::open(*key, meta["sealed_key"], error)))
        return nullptr;
    // `play` sends the events' commands: a file edited to hold any other
    // command (EVAL, FLUSHALL, ...) is refused whole, before anything is sent.
    int64_t number = 0;
    std::string why;
    if (!file->each([&](const Event& e) { ++number; why = unrecordable(e); return why.empty(); }, false, error))
        return nullptr;
    if (!why.empty()) {
        error = "not a bmsg recording: event " + std::to_string(number) + ": " + why;
        return nullptr;
    }
    return file;
}

File::~File()
{
    sqlite3_close(db_);
}

bool File::exec(const char* sql, std::string& error)
{
    char* message = nullptr;
    if (sqlite3_exec(db_, sql, nullptr, nullptr, &message) == SQLITE_OK)
        return true;
    error = message ? message : sqlite3_errmsg(db_);
    sqlite3_free(message);
    return false;
}

bool File::write(const std::vector<Event>& events, std::string& error)
{
    if (!exec("BEGIN", error))
        return false;
    Statement event(db_, "INSERT INTO events (time_us, kind, command, name, payload, id) VALUES (?,?,?,?,?,?)");
    Statement sample(db_, "INSERT INTO samples (event, modality, pixels, missed) VALUES (?,?,?,?)");
    std::unique_ptr<Statement> shape;
    if (key_)
        shape = std::make_unique<Statement>(db_, "INSERT INTO shapes (event, width, height, format) VALUES (?,?,?,?)");
    bool ok = event.s && sample.s && (!key_ || shape->s);
    std::string payload, pixels;  // sealed, when the file is
    for (size_t i = 0; ok && i < events.size(); ++i) {
        const Event& e = events[i];
        // A sealed file's ids are known before the rows are: its fields
        // are bound to them.
        const int64_t id = next_id_ + static_cast<int64_t>(i);
        if (key_) {
            payload = key_->seal(e.payload, context("payload", id, e));
            pixels = e.has_sample && e.sample.missed.empty() ? key_->seal(e.sample.pixels, context("pixels", id, e)) : "";
        }
        sqlite3_bind_int64(event.s, 1, e.time_us);
        event.text(2, e.kind);
        event.text(3, e.command);
        event.text(4, e.name);
        event.blob(5, key_ ? payload : e.payload);
        if (key_)
            sqlite3_bind_int64(event.s, 6, id);
        else
            sqlite3_bind_null(event.s, 6);
        ok = event.step_done();
        Shape dimensions;
        if (ok && key_ && e.kind == "sample" && shape_of(e.payload, dimensions)) {
            sqlite3_bind_int64(shape->s, 1, id);
            sqlite3_bind_int64(shape->s, 2, dimensions.width);
            sqlite3_bind_int64(shape->s, 3, dimensions.height);
            sqlite3_bind_int64(shape->s, 4, dimensions.format);
            ok = shape->step_done();
        }
        if (!ok || !e.has_sample)
            continue;
        sqlite3_bind_int64(sample.s, 1, sqlite3_last_insert_rowid(db_));
        sample.text(2, e.sample.modality);
        if (e.sample.missed.empty()) {
            sample.blob(3, key_ ? pixels : e.sample.pixels);
            sqlite3_bind_null(sample.s, 4);
        } else {
            sqlite3_bind_null(sample.s, 3);
            sample.text(4, e.sample.missed);
        }
        ok = sample.step_done();
    }
    if (!ok) {
        error = sqlite3_errmsg(db_);
        std::string ignored;
        exec("ROLLBACK", ignored);
        return false;
    }
    if (!exec("COMMIT", error))
        return false;
    next_id_ += static_cast<int64_t>(events.size());
    return true;
}

bool File::set_meta(const std::string& key, const std::string& value, std::string& error)
{
    Statement s(db_, "INSERT OR REPLACE INTO meta (key, value) VALUES (?,?)");
    s.text(1, key);
    s.text(2, value);
    if (s.s && s.step_done())
        return true;
    error = sqlite3_errmsg(db_);
    return false;
}

std::map<std::string, std::string> File::meta()
{
    std::map<std::string, std::string> values;
    Statement s(db_, "SELECT key, value FROM meta");
    while (s.s && sqlite3_step(s.s) == SQLITE_ROW)
        values[s.column(0)] = s.column(1);
    return values;
}

int64_t File::count()
{
    Statement s(db_, "SELECT COUNT(*) FROM events");
    return s.s && sqlite3_step(s.s) == SQLITE_ROW ? sqlite3_column_int64(s.s, 0) : 0;
}

bool File::each(const std::function<bool(const Event&)>& fn, bool pixels, std::string& error)
{
    if (pixels && locked()) {
        error = "sealed: its secret key is needed (--key)";
        return false;
    }
    const std::string sql = std::string("SELECT e.time_us, e.kind, e.command, e.name, e.payload, s.event, s.modality, ") +
                            (pixels ? "s.pixels" : "NULL") + ", s.missed, e.id" +
                            (sealed_ ? ", h.event, h.width, h.height, h.format" : "") +
                            " FROM events e LEFT JOIN samples s ON s.event = e.id" +
                            (sealed_ ? " LEFT JOIN shapes h ON h.event = e.id" : "") + " ORDER BY e.id";
    Statement s(db_, sql.c_str());
    if (!s.s) {
        error = sqlite3_errmsg(db_);
        return false;
    }
    Event e;
    int rc;
    int64_t number = 0;
    while ((rc = sqlite3_step(s.s)) == SQLITE_ROW) {
        ++number;
        e.time_us = sqlite3_column_int64(s.s, 0);
        e.kind = s.column(1);
        e.command = s.column(2);
        e.name = s.column(3);
        e.payload = s.column(4);
        e.has_sample = sqlite3_column_type(s.s, 5) != SQLITE_NULL;
        e.sample.modality = s.column(6);
        e.sample.pixels = s.column(7);
        e.sample.missed = s.column(8);
        // A sealed sample's shape, kept clear beside its sealed descriptor.
        Shape shape;
        const bool shaped = sealed_ && sqlite3_column_type(s.s, 10) != SQLITE_NULL;
        if (shaped) {
            shape.width = static_cast<unsigned int>(sqlite3_column_int64(s.s, 11));
            shape.height = static_cast<unsigned int>(sqlite3_column_int64(s.s, 12));
            shape.format = static_cast<BImage::ImageFormat>(sqlite3_column_int64(s.s, 13));
        }
        if (sealed_ && !unseal(e, sqlite3_column_int64(s.s, 9), number, pixels, shaped ? &shape : nullptr, error))
            return false;
        if (!fn(e))
            return true;
    }
    if (rc != SQLITE_DONE) {
        error = sqlite3_errmsg(db_);
        return false;
    }
    return true;
}

bool File::unseal(Event& e, int64_t id, int64_t number, bool pixels, const Shape* shape, std::string& error) const
{
    const std::string clear_shape = shape ? descriptor(*shape) : "";
    const std::string at = "event " + std::to_string(number) + ": ";
    // Ids run 1, 2, ...: a removed or reordered event is seen without the
    // key too.
    if (id != number) {
        error = at + "not in its place (an event before it removed, or events reordered)";
        return false;
    }
    e.withheld = !key_;
    if (!key_) {
        e.payload = clear_shape;
        e.sample.pixels.clear();
        return true;
    }
    std::string clear;
    if (!key_->open(e.payload, context("payload", id, e), clear)) {
        error = at + "does not open: changed, or moved from another place";
        return false;
    }
    e.payload.swap(clear);
    Shape opened;
    if (clear_shape != (e.kind == "sample" && shape_of(e.payload, opened) ? e.payload : "")) {
        error = at + "its sample's shape was changed";
        return false;
    }
    // Pixels were kept when no reason says otherwise.
    if (pixels && e.has_sample && e.sample.missed.empty()) {
        if (!key_->open(e.sample.pixels, context("pixels", id, e), clear)) {
            error = at + "its pixels do not open: changed, removed, or moved from another place";
            return false;
        }
        e.sample.pixels.swap(clear);
    }
    return true;
}

} // namespace recording
