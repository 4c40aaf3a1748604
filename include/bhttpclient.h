// bMSG::bHttpClient: a small synchronous HTTP/1.1 client for one web service
// given by a host and a port, built on libcurl's easy interface.
//
// Every request blocks until it has finished and then reports its outcome
// through exactly one of two callbacks, on the calling thread, before the
// operation returns:
//   on_response(status, body, length)  any HTTP response, whatever its status
//       code (a 404 or 500 is a response, not an error). `status` is the
//       three-digit code as NUL-terminated text ("200"). `body` points to the
//       response body gathered in a buffer of the request (the one copy made
//       of it, as libcurl delivers it in pieces); never null, valid only
//       during the call. Copy what you need afterwards.
//   on_error(error, state)  a failed exchange, exactly once: the error code
//       first, then one of the HTTP_STATE_* values below.
// Either callback may be empty; it is then not called. An exception thrown by
// a callback leaves the operation and reaches its caller.
//
// Retries and redirects: a transport failure (state 1 or 65) before any
// response header arrived is retried up to `retry_max` more times, each
// time on a new connection; a failure after a response began is not, nor
// one of these certificate failures (libcurl's codes): 58
// CURLE_SSL_CERTPROBLEM, 60 CURLE_PEER_FAILED_VERIFICATION, 77
// CURLE_SSL_CACERT_BADFILE, 82 CURLE_SSL_CRL_BADFILE, 83
// CURLE_SSL_ISSUER_ERROR, 90 CURLE_SSL_PINNEDPUBKEYNOTMATCH, 91
// CURLE_SSL_INVALIDCERTSTATUS, 98 CURLE_SSL_CLIENTCERT. A server that ends
// the connection right after the handshake (55, 56; see set_tls) is still
// retried: that is also how a dropped connection looks. A
// 301, 302, 303, 307 or 308 response is followed while fewer than
// `redirect_max` redirects have been followed; 301, 302 and 303 continue
// with a GET without a body, 307 and 308 repeat the method and the body.
// When the limit is reached (at once with 0 or a negative limit) the last
// 30x response goes to on_response. A redirect to follow whose Location is
// missing or not a usable http/https URL ends in HTTP_STATE_TASK_ERROR,
// HTTP_ERR_BAD_REDIRECT.
//
// Time limits (per attempt): HTTP_CONNECT_TIMEOUT_MS for name resolution,
// connecting and a TLS handshake together, HTTP_STALL_TIMEOUT_MS for a
// connected exchange in which no byte moves either way. Both end in
// HTTP_STATE_SYS_ERROR with ETIMEDOUT (a name lookup that did not finish:
// HTTP_STATE_DNS_ERROR with EAI_AGAIN).
//
// HTTPS: see HttpTls and set_tls below. Every https transfer verifies the
// server's certificate chain and host name; there is no way to turn that off.
//
// The client reads no environment variables: libcurl's proxy variables
// (http_proxy, HTTPS_PROXY, ALL_PROXY, NO_PROXY) are ignored, requests always
// go straight to the URL's host. SSLKEYLOGFILE is honoured by Debian 12's
// libcurl (OpenSSL flavour), which then logs every TLS secret to that file;
// the client takes that logging off each of its TLS connections, so none of
// their secrets is written (libcurl may still create the file, empty, when
// the variable is set as it starts up).
//
// Departures from earlier versions:
//  - with set_tls's https, a whole http:// URL as the path is refused, not sent in the clear;
//  - certificate and verification failures (listed above) are no longer retried;
//  - SSLKEYLOGFILE no longer makes libcurl write the secrets of the client's connections.
#ifndef BMSG_BHTTPCLIENT_H
#define BMSG_BHTTPCLIENT_H

#include <cstddef>
#include <functional>
#include <string>

#ifndef BMSG_API
#define BMSG_API __attribute__((visibility("default")))
#endif

namespace bMSG {

// on_error states (second argument) and what the error (first argument) is.
constexpr int HTTP_STATE_SYS_ERROR = 1;   // an errno value: ECONNREFUSED, ETIMEDOUT,
                                          // ECONNRESET (connection closed early),
                                          // EBADMSG (not an HTTP response), ...
constexpr int HTTP_STATE_SSL_ERROR = 65;  // TLS failure; error: libcurl's CURLcode
constexpr int HTTP_STATE_DNS_ERROR = 66;  // name resolution; error: getaddrinfo's
                                          // EAI_* code (e.g. EAI_NONAME)
constexpr int HTTP_STATE_TASK_ERROR = 67; // error: one of the HTTP_ERR_* codes

// Errors of HTTP_STATE_TASK_ERROR.
constexpr int HTTP_ERR_URI_PARSE_FAILED = 1001;   // the URL cannot be parsed
constexpr int HTTP_ERR_URI_SCHEME_INVALID = 1002; // scheme other than http, https
                                                  // (with set_tls's https: other than https)
constexpr int HTTP_ERR_URI_PORT_INVALID = 1003;   // port 0 or not a 16-bit number
constexpr int HTTP_ERR_BAD_REDIRECT = 2001;       // redirect without a usable Location

// Time limits of every attempt, in milliseconds.
constexpr long HTTP_CONNECT_TIMEOUT_MS = 10000;  // resolve + connect + TLS handshake
constexpr long HTTP_STALL_TIMEOUT_MS = 10000;    // no data sent or received

// (status code text, body, body length); see above.
using HttpResponseCallback = std::function<void(const char*, const void*, size_t)>;
// (error, state); see above.
using HttpErrorCallback = std::function<void(int, int)>;

// TLS settings of a client (set_tls). The files are read at each request;
// the files' contents are never printed. A request that cannot use them
// (a missing or unreadable file, a pin that does not match) fails with
// HTTP_STATE_SSL_ERROR and libcurl's code, e.g. 60 an unverifiable server
// (unknown CA, wrong host name, expired), 77 a bad ca_file, 58 a bad client
// certificate or key, 90 a pin mismatch, 66 (4 with a libcurl not built on
// OpenSSL) when its key logging cannot be turned off (see SSLKEYLOGFILE).
struct HttpTls {
    bool https = false;            // composed URLs use https:// instead of http://
    std::string ca_file;           // PEM bundle that verifies the server; empty: the system's
    std::string pinned_public_key; // libcurl's "sha256//BASE64" form; empty: no pin
    std::string client_cert;       // PEM certificate presented for mutual TLS; empty: none
    std::string client_key;        // its PEM private key
};

class BMSG_API bHttpClient {
public:
    // Stores the four values and does nothing else. `host` is not copied:
    // the text must stay alive (and is read as it is at each request) for as
    // long as the client is used. Any values are accepted.
    bHttpClient(const char* host, unsigned short port, int retry_max, int redirect_max);
    ~bHttpClient();

    // The URL for `path`: `path` unchanged when it contains "http" anywhere
    // (case-sensitive; a whole URL, possibly to another server), otherwise
    // "http://" (with set_tls's https: "https://") + host + ":" + port +
    // ("/" unless path starts with '/') + path. Nothing is escaped or
    // checked. Throws std::logic_error for a null path, and for a null host
    // when a URL has to be composed.
    std::string to_url(const char* path) const;

    // Copies `tls` into the client for the requests that start afterwards
    // (not while a request runs on it). The settings apply to every https
    // transfer of the client, also to whole URLs passed as the path and to
    // redirects. A non-empty ca_file is the only set of trusted CAs (the
    // system's are then not consulted). With https on:
    //  - a whole URL passed as the path must be https: an http:// one is
    //    refused before anything is sent (HTTP_STATE_TASK_ERROR,
    //    HTTP_ERR_URI_SCHEME_INVALID); an https:// one is verified with the
    //    settings above like a composed one;
    //  - a redirect to a plain http:// URL is not followed
    //    (HTTP_STATE_TASK_ERROR, HTTP_ERR_BAD_REDIRECT);
    //  - a connection that the server ends after the TLS handshake and
    //    before any response header (TLS 1.3 servers send their verdict on
    //    the client's certificate then) is reported as HTTP_STATE_SSL_ERROR
    //    with libcurl's code (55 or 56), not as ECONNRESET.
    // A client without set_tls behaves as before. Unlike the four plain
    // values above, the settings are owned (copied) by the client.
    void set_tls(const HttpTls& tls);

    // GET to_url(path) with the headers Accept "*/*", User-Agent
    // "Wget/1.14 (gnu-linux)" and Connection "close", in that order, and no
    // body. Blocks until the outcome has been reported; returns 0.
    // Throws what to_url throws, before anything is sent.
    int get(const char* path, HttpResponseCallback on_response, HttpErrorCallback on_error);

    // POST / PUT with the same three headers and always `length` bytes at
    // `body` as the body (an empty body with Content-Length: 0 when length
    // is 0; body may then be null). The body is not copied: it must stay
    // valid until the call returns. No Content-Type is sent. Returns 0.
    int post(const char* path, const char* body, size_t length,
             HttpResponseCallback on_response, HttpErrorCallback on_error);
    int put(const char* path, const char* body, size_t length,
            HttpResponseCallback on_response, HttpErrorCallback on_error);

    // DELETE with none of the three headers (connection reuse is left to
    // libcurl); the body is sent only when body is non-null and length is
    // non-zero, and is not copied. Returns 0.
    int del(const char* path, const char* body, size_t length,
            HttpResponseCallback on_response, HttpErrorCallback on_error);

    const char* host;   // caller's text, not copied
    unsigned short port;
    int retry_max;      // retries after a transport failure
    int redirect_max;   // redirects followed

private:
    HttpTls tls_;
};

} // namespace bMSG

#endif
