#include "bhttpclient.h"

#include <curl/curl.h>
#include <dlfcn.h>
#include <netdb.h>
#include <strings.h>
#include <sys/socket.h>

#include <cerrno>
#include <chrono>
#include <cstdio>
#include <cstring>
#include <memory>
#include <mutex>
#include <new>
#include <stdexcept>

namespace bMSG {

bHttpClient::bHttpClient(const char* host, unsigned short port, int retry_max, int redirect_max)
    : host(host), port(port), retry_max(retry_max), redirect_max(redirect_max)
{
}

bHttpClient::~bHttpClient() = default;

std::string bHttpClient::to_url(const char* path) const
{
    if (!path)
        throw std::logic_error("bHttpClient::to_url: null path");
    std::string result(path);
    if (result.find("http") != std::string::npos)
        return result;
    if (!host)
        throw std::logic_error("bHttpClient::to_url: null host");
    std::string url = tls_.https ? "https://" : "http://";
    url += host;
    url += ':';
    url += std::to_string(port);
    if (result.empty() || result[0] != '/')
        url += '/';
    url += result;
    return url;
}

void bHttpClient::set_tls(const HttpTls& tls)
{
    tls_ = tls;
}

namespace {

using Clock = std::chrono::steady_clock;

struct EasyFree {
    void operator()(CURL* h) const { curl_easy_cleanup(h); }
};
using Easy = std::unique_ptr<CURL, EasyFree>;

struct SlistFree {
    void operator()(curl_slist* l) const { curl_slist_free_all(l); }
};
using Slist = std::unique_ptr<curl_slist, SlistFree>;

struct UrlFree {
    void operator()(CURLU* u) const { curl_url_cleanup(u); }
};
using Url = std::unique_ptr<CURLU, UrlFree>;

struct TextFree {
    void operator()(char* p) const { curl_free(p); }
};
using CurlText = std::unique_ptr<char, TextFree>;

// What goes out: the method (null keeps libcurl's GET) and the body.
struct Request {
    const char* verb;
    bool with_body;
    const char* body;
    size_t length;
};

struct Failure {
    int error;
    int state;
};

// One request/response exchange on a handle and connection of its own.
// libcurl's callbacks write into it, so it stays where it was created.
struct Transfer {
    Easy handle;
    CURLcode result = CURLE_OK;
    Failure failure{0, 0};
    std::string body;
    size_t header_bytes = 0;
    bool connected = false;
    curl_off_t moved = 0;
    Clock::time_point last_move;
};

// libcurl's global set-up is not safe to run twice or concurrently.
void global_init()
{
    static std::once_flag once;
    std::call_once(once, [] {
        if (curl_global_init(CURL_GLOBAL_DEFAULT) != CURLE_OK)
            throw std::bad_alloc();
    });
}

void check_alloc(bool ok)
{
    if (!ok)
        throw std::bad_alloc();
}

// The fixed header set of get, post and put, or none for del. The lines
// without a value stop libcurl from adding headers of its own (Accept for
// del, and for bodies Content-Type and "Expect: 100-continue").
Slist make_headers(bool standard)
{
    static const char* const standard_lines[] = {
        "Accept: */*", "User-Agent: Wget/1.14 (gnu-linux)", "Connection: close",
        "Expect:", "Content-Type:"};
    static const char* const bare_lines[] = {"Accept:", "Expect:", "Content-Type:"};
    Slist list;
    auto add = [&list](const char* line) {
        curl_slist* grown = curl_slist_append(list.get(), line);
        check_alloc(grown != nullptr);
        list.release();
        list.reset(grown);
    };
    if (standard)
        for (const char* line : standard_lines)
            add(line);
    else
        for (const char* line : bare_lines)
            add(line);
    return list;
}

// Loads `text` into `u`. 0, or the HTTP_ERR_URI_* code that says why the
// URL cannot be used.
int set_url(CURLU* u, const char* text)
{
    CURLUcode rc = curl_url_set(u, CURLUPART_URL, text, CURLU_NON_SUPPORT_SCHEME);
    check_alloc(rc != CURLUE_OUT_OF_MEMORY);
    if (rc == CURLUE_BAD_PORT_NUMBER)
        return HTTP_ERR_URI_PORT_INVALID;
    if (rc != CURLUE_OK)
        return HTTP_ERR_URI_PARSE_FAILED;
    char* scheme = nullptr;
    if (curl_url_get(u, CURLUPART_SCHEME, &scheme, 0) != CURLUE_OK)
        return HTTP_ERR_URI_PARSE_FAILED;
    CurlText scheme_text(scheme);
    if (strcasecmp(scheme, "http") != 0 && strcasecmp(scheme, "https") != 0)
        return HTTP_ERR_URI_SCHEME_INVALID;
    char* port = nullptr;
    if (curl_url_get(u, CURLUPART_PORT, &port, 0) == CURLUE_OK) {
        CurlText port_text(port);
        if (strcmp(port, "0") == 0)
            return HTTP_ERR_URI_PORT_INVALID;
    }
    return 0;
}

size_t on_body(char* data, size_t size, size_t count, void* user)
{
    auto* t = static_cast<Transfer*>(user);
    try {
        t->body.append(data, size * count);
    } catch (const std::bad_alloc&) {
        return 0;  // ends the transfer with CURLE_WRITE_ERROR
    }
    return size * count;
}

size_t on_header(char*, size_t size, size_t count, void* user)
{
    static_cast<Transfer*>(user)->header_bytes += size * count;
    return size * count;
}

// Ends a connected exchange in which nothing moved for the stall limit.
// Until the connection is up the connect time-out is in charge.
int on_progress(void* user, curl_off_t, curl_off_t down, curl_off_t, curl_off_t up)
{
    auto* t = static_cast<Transfer*>(user);
    const Clock::time_point now = Clock::now();
    const curl_off_t moved = down + up + static_cast<curl_off_t>(t->header_bytes);
    if (!t->connected) {
        curl_off_t connect_us = 0;
        curl_easy_getinfo(t->handle.get(), CURLINFO_CONNECT_TIME_T, &connect_us);
        t->connected = connect_us > 0;
    } else if (moved == t->moved) {
        // CURLE_ABORTED_BY_CALLBACK once the limit has passed
        return now - t->last_move >= std::chrono::milliseconds(HTTP_STALL_TIMEOUT_MS);
    }
    t->moved = moved;
    t->last_move = now;
    return 0;
}

// Sets a text option, empty text leaving it alone. libcurl's own code when
// it cannot be set (e.g. a TLS back-end without pinning), so that a setting
// is never silently dropped.
CURLcode set_text(CURL* h, CURLoption option, const std::string& text)
{
    if (text.empty())
        return CURLE_OK;
    const CURLcode rc = curl_easy_setopt(h, option, text.c_str());
    check_alloc(rc != CURLE_OUT_OF_MEMORY);
    return rc;
}

// OpenSSL's SSL_CTX_set_keylog_callback, looked up at run time as the
// library links libcurl only: first among libcurl's own dependencies (ours
// may have been loaded into a local scope), then anywhere.
using SetKeylog = void (*)(void*, void (*)(const void*, const char*));
SetKeylog find_set_keylog()
{
    const char* const name = "SSL_CTX_set_keylog_callback";
    Dl_info info{};
    if (dladdr(reinterpret_cast<void*>(&curl_easy_init), &info) && info.dli_fname)
        if (void* curl = dlopen(info.dli_fname, RTLD_LAZY | RTLD_NOLOAD))
            if (void* found = dlsym(curl, name))
                return reinterpret_cast<SetKeylog>(found);
    return reinterpret_cast<SetKeylog>(dlsym(RTLD_DEFAULT, name));
}

// libcurl's OpenSSL back-end writes every TLS secret to the file named by
// SSLKEYLOGFILE through the context's key-log callback; taking the callback
// off again keeps our connections' secrets out of it. Without the function
// that cannot be promised, so the connection is not made.
CURLcode no_key_log(CURL*, void* ssl_ctx, void*)
{
    static const SetKeylog set_keylog = find_set_keylog();
    if (!set_keylog)
        return CURLE_SSL_ENGINE_INITFAILED;
    set_keylog(ssl_ctx, nullptr);
    return CURLE_OK;
}

// Verification is set on explicitly, whatever libcurl's defaults: nothing
// in the client turns it off.
CURLcode configure_tls(CURL* h, const HttpTls& tls)
{
    curl_easy_setopt(h, CURLOPT_SSL_VERIFYPEER, 1L);
    curl_easy_setopt(h, CURLOPT_SSL_VERIFYHOST, 2L);
    // With https on, libcurl itself refuses anything in the clear as well.
    if (tls.https)
        check_alloc(curl_easy_setopt(h, CURLOPT_PROTOCOLS_STR, "https") == CURLE_OK);
    CURLcode rc = curl_easy_setopt(h, CURLOPT_SSL_CTX_FUNCTION, no_key_log);
    if (rc == CURLE_OK)
        rc = set_text(h, CURLOPT_CAINFO, tls.ca_file);
    if (rc == CURLE_OK && !tls.ca_file.empty())
        rc = curl_easy_setopt(h, CURLOPT_CAPATH, nullptr);  // the bundle alone
    if (rc == CURLE_OK)
        rc = set_text(h, CURLOPT_PINNEDPUBLICKEY, tls.pinned_public_key);
    if (rc == CURLE_OK)
        rc = set_text(h, CURLOPT_SSLCERT, tls.client_cert);
    if (rc == CURLE_OK)
        rc = set_text(h, CURLOPT_SSLKEY, tls.client_key);
    return rc;
}

void configure(Transfer& t, CURLU* url, const Request& r, curl_slist* headers)
{
    CURL* h = t.handle.get();
    curl_easy_setopt(h, CURLOPT_CURLU, url);
    check_alloc(curl_easy_setopt(h, CURLOPT_PROTOCOLS_STR, "http,https") == CURLE_OK);
    // An empty proxy turns off libcurl's reading of the proxy variables.
    check_alloc(curl_easy_setopt(h, CURLOPT_PROXY, "") == CURLE_OK);
    curl_easy_setopt(h, CURLOPT_NOSIGNAL, 1L);
    curl_easy_setopt(h, CURLOPT_HTTP_VERSION, static_cast<long>(CURL_HTTP_VERSION_1_1));
    curl_easy_setopt(h, CURLOPT_CONNECTTIMEOUT_MS, HTTP_CONNECT_TIMEOUT_MS);
    curl_easy_setopt(h, CURLOPT_HTTPHEADER, headers);
    curl_easy_setopt(h, CURLOPT_WRITEFUNCTION, on_body);
    curl_easy_setopt(h, CURLOPT_WRITEDATA, &t);
    curl_easy_setopt(h, CURLOPT_HEADERFUNCTION, on_header);
    curl_easy_setopt(h, CURLOPT_HEADERDATA, &t);
    curl_easy_setopt(h, CURLOPT_NOPROGRESS, 0L);
    curl_easy_setopt(h, CURLOPT_XFERINFOFUNCTION, on_progress);
    curl_easy_setopt(h, CURLOPT_XFERINFODATA, &t);
    if (r.with_body) {
        // libcurl takes a null POSTFIELDS as "read the body through the read
        // callback" (stdin by default); the empty literal keeps it in memory.
        curl_easy_setopt(h, CURLOPT_POSTFIELDS, r.body ? r.body : "");
        curl_easy_setopt(h, CURLOPT_POSTFIELDSIZE_LARGE, static_cast<curl_off_t>(r.length));
    }
    if (r.verb)
        check_alloc(curl_easy_setopt(h, CURLOPT_CUSTOMREQUEST, r.verb) == CURLE_OK);
}

// libcurl does not pass on the resolver's code, so getaddrinfo is asked
// once more for it; EAI_NONAME when that lookup succeeds after all.
int lookup_error(CURLU* url)
{
    char* host = nullptr;
    if (curl_url_get(url, CURLUPART_HOST, &host, 0) != CURLUE_OK)
        return EAI_NONAME;
    CurlText host_text(host);
    addrinfo hints{};
    hints.ai_family = AF_UNSPEC;
    hints.ai_socktype = SOCK_STREAM;
    addrinfo* found = nullptr;
    int rc = getaddrinfo(host, nullptr, &hints, &found);
    if (rc == 0) {
        freeaddrinfo(found);
        return EAI_NONAME;
    }
    return rc;
}

// Under TLS 1.3 the server's verdict on the client's certificate comes after
// the client's side of the handshake: an alert or a closed connection at the
// first write or read, which libcurl reports as a send or receive error.
bool ended_after_handshake(const Transfer& t)
{
    curl_off_t handshake_us = 0;
    curl_easy_getinfo(t.handle.get(), CURLINFO_APPCONNECT_TIME_T, &handshake_us);
    return handshake_us > 0 && t.header_bytes == 0;
}

// A certificate that failed verification, or one of ours that could not be
// used, fails the same way on a new connection.
bool is_certificate_error(CURLcode rc)
{
    switch (rc) {
    case CURLE_SSL_CERTPROBLEM:
    case CURLE_PEER_FAILED_VERIFICATION:
    case CURLE_SSL_CACERT_BADFILE:
    case CURLE_SSL_CRL_BADFILE:
    case CURLE_SSL_ISSUER_ERROR:
    case CURLE_SSL_PINNEDPUBKEYNOTMATCH:
    case CURLE_SSL_INVALIDCERTSTATUS:
    case CURLE_SSL_CLIENTCERT:
        return true;
    default:
        return false;
    }
}

bool is_tls_error(CURLcode rc)
{
    switch (rc) {
    case CURLE_SSL_CONNECT_ERROR:
    case CURLE_SSL_ENGINE_NOTFOUND:
    case CURLE_SSL_ENGINE_SETFAILED:
    case CURLE_SSL_CIPHER:
    case CURLE_USE_SSL_FAILED:
    case CURLE_SSL_ENGINE_INITFAILED:
    case CURLE_SSL_SHUTDOWN_FAILED:
        return true;
    default:
        return is_certificate_error(rc);
    }
}

// Maps libcurl's result onto the (error, state) pairs callers know.
Failure failure_of(const Transfer& t, CURLU* url, const HttpTls& tls)
{
    CURL* h = t.handle.get();
    long os_errno = 0;
    curl_easy_getinfo(h, CURLINFO_OS_ERRNO, &os_errno);
    auto system = [os_errno](int fallback) {
        return Failure{os_errno ? static_cast<int>(os_errno) : fallback, HTTP_STATE_SYS_ERROR};
    };
    if (is_tls_error(t.result))
        return {static_cast<int>(t.result), HTTP_STATE_SSL_ERROR};
    switch (t.result) {
    case CURLE_COULDNT_RESOLVE_HOST:
        return {lookup_error(url), HTTP_STATE_DNS_ERROR};
    case CURLE_OPERATION_TIMEDOUT: {
        // Only the connect phase has a libcurl time-out; a lookup that never
        // finished leaves its time at 0.
        curl_off_t lookup_us = 0;
        curl_easy_getinfo(h, CURLINFO_NAMELOOKUP_TIME_T, &lookup_us);
        if (lookup_us == 0)
            return {EAI_AGAIN, HTTP_STATE_DNS_ERROR};
        return {ETIMEDOUT, HTTP_STATE_SYS_ERROR};
    }
    case CURLE_ABORTED_BY_CALLBACK:  // the stall limit of on_progress
        return {ETIMEDOUT, HTTP_STATE_SYS_ERROR};
    case CURLE_COULDNT_CONNECT:
        return system(ECONNREFUSED);
    case CURLE_SEND_ERROR:
    case CURLE_RECV_ERROR:
        if (tls.https && ended_after_handshake(t))
            return {static_cast<int>(t.result), HTTP_STATE_SSL_ERROR};
        return system(ECONNRESET);
    case CURLE_GOT_NOTHING:
    case CURLE_PARTIAL_FILE:
        return {ECONNRESET, HTTP_STATE_SYS_ERROR};
    case CURLE_WEIRD_SERVER_REPLY:
    case CURLE_UNSUPPORTED_PROTOCOL:  // e.g. a reply without a status line
    case CURLE_HTTP2:
    case CURLE_HTTP2_STREAM:
    case CURLE_BAD_CONTENT_ENCODING:
        return {EBADMSG, HTTP_STATE_SYS_ERROR};
    case CURLE_OUT_OF_MEMORY:
    case CURLE_WRITE_ERROR:  // on_body could not grow the buffer
        return {ENOMEM, HTTP_STATE_SYS_ERROR};
    case CURLE_URL_MALFORMAT:
        return {HTTP_ERR_URI_PARSE_FAILED, HTTP_STATE_TASK_ERROR};
    default:
        return system(EIO);
    }
}

std::unique_ptr<Transfer> perform(CURLU* url, const Request& r, curl_slist* headers,
                                  const HttpTls& tls)
{
    auto t = std::make_unique<Transfer>();
    t->handle.reset(curl_easy_init());
    check_alloc(t->handle != nullptr);
    configure(*t, url, r, headers);
    t->result = configure_tls(t->handle.get(), tls);
    if (t->result != CURLE_OK) {
        t->failure = {static_cast<int>(t->result), HTTP_STATE_SSL_ERROR};
        return t;
    }
    t->result = curl_easy_perform(t->handle.get());
    if (t->result != CURLE_OK)
        t->failure = failure_of(*t, url, tls);
    return t;
}

// A transport failure before any response header is worth another try.
bool retryable(const Transfer& t)
{
    return t.result != CURLE_OK && t.header_bytes == 0 && !is_certificate_error(t.result) &&
           (t.failure.state == HTTP_STATE_SYS_ERROR || t.failure.state == HTTP_STATE_SSL_ERROR);
}

std::unique_ptr<Transfer> perform_with_retries(CURLU* url, const Request& r,
                                               curl_slist* headers, int retry_max,
                                               const HttpTls& tls)
{
    for (int tries = 0;; ++tries) {
        std::unique_ptr<Transfer> t = perform(url, r, headers, tls);
        if (tries >= retry_max || !retryable(*t))
            return t;
    }
}

bool is_redirect(long status)
{
    return status == 301 || status == 302 || status == 303 || status == 307 || status == 308;
}

long status_of(const Transfer& t)
{
    long status = 0;
    curl_easy_getinfo(t.handle.get(), CURLINFO_RESPONSE_CODE, &status);
    return status;
}

// The absolute URL the 30x response of `t` points to, or null.
const char* location_of(const Transfer& t)
{
    char* location = nullptr;
    curl_easy_getinfo(t.handle.get(), CURLINFO_REDIRECT_URL, &location);
    return location;
}

int fail(const HttpErrorCallback& on_error, Failure f)
{
    if (on_error)
        on_error(f.error, f.state);
    return 0;
}

int respond(const HttpResponseCallback& on_response, const Transfer& t)
{
    char code[24];
    snprintf(code, sizeof code, "%03ld", status_of(t));
    if (on_response)
        on_response(code, t.body.data(), t.body.size());
    return 0;
}

// Whether `u` is a plain http:// URL.
bool is_plain(CURLU* u)
{
    char* scheme = nullptr;
    if (curl_url_get(u, CURLUPART_SCHEME, &scheme, 0) != CURLUE_OK)
        return false;
    CurlText scheme_text(scheme);
    return strcasecmp(scheme, "http") == 0;
}

// The common request: follows redirects, retries, and reports the outcome.
int request(const bHttpClient& client, const HttpTls& tls, const std::string& url_text,
            Request r, bool standard_headers, const HttpResponseCallback& on_response,
            const HttpErrorCallback& on_error)
{
    global_init();
    Slist headers = make_headers(standard_headers);
    Url url(curl_url());
    check_alloc(url != nullptr);
    if (int bad = set_url(url.get(), url_text.c_str()))
        return fail(on_error, {bad, HTTP_STATE_TASK_ERROR});
    // A whole URL as the path must not turn a configured https channel plain.
    if (tls.https && is_plain(url.get()))
        return fail(on_error, {HTTP_ERR_URI_SCHEME_INVALID, HTTP_STATE_TASK_ERROR});
    for (int redirects = 0;; ++redirects) {
        std::unique_ptr<Transfer> t =
            perform_with_retries(url.get(), r, headers.get(), client.retry_max, tls);
        if (t->result != CURLE_OK)
            return fail(on_error, t->failure);
        const long status = status_of(*t);
        if (!is_redirect(status) || redirects >= client.redirect_max)
            return respond(on_response, *t);
        const char* location = location_of(*t);
        // With https on, nothing goes on in the clear after a redirect.
        if (!location || set_url(url.get(), location) != 0 || (tls.https && is_plain(url.get())))
            return fail(on_error, {HTTP_ERR_BAD_REDIRECT, HTTP_STATE_TASK_ERROR});
        if (status <= 303)
            r = Request{nullptr, false, nullptr, 0};
    }
}

} // namespace

int bHttpClient::get(const char* path, HttpResponseCallback on_response,
                     HttpErrorCallback on_error)
{
    return request(*this, tls_, to_url(path), Request{nullptr, false, nullptr, 0}, true,
                   on_response, on_error);
}

int bHttpClient::post(const char* path, const char* body, size_t length,
                      HttpResponseCallback on_response, HttpErrorCallback on_error)
{
    return request(*this, tls_, to_url(path), Request{nullptr, true, body, length}, true,
                   on_response, on_error);
}

int bHttpClient::put(const char* path, const char* body, size_t length,
                     HttpResponseCallback on_response, HttpErrorCallback on_error)
{
    return request(*this, tls_, to_url(path), Request{"PUT", true, body, length}, true,
                   on_response, on_error);
}

int bHttpClient::del(const char* path, const char* body, size_t length,
                     HttpResponseCallback on_response, HttpErrorCallback on_error)
{
    return request(*this, tls_, to_url(path), Request{"DELETE", body && length, body, length},
                   false, on_response, on_error);
}

} // namespace bMSG
