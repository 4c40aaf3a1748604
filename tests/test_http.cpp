#include "bhttpclient.h"
#include "redis_server.h"

#include <gtest/gtest.h>

#include <netdb.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

using bMSG::bHttpClient;

namespace {

// tests/http_server.py on a port it picks itself, stopped by pid.
class HttpServer {
public:
    HttpServer() : process_(bmsg_test::spawn_native("python3", {BMSG_HTTP_SERVER, "0"}))
    {
        unsigned port = 0;
        if (!bmsg_test::wait_until([&] { return sscanf(process_.out().c_str(), "%u", &port) == 1; })) {
            fprintf(stderr, "cannot start %s: %s\n", BMSG_HTTP_SERVER, process_.err().c_str());
            abort();
        }
        port_ = static_cast<unsigned short>(port);
    }
    HttpServer(const HttpServer&) = delete;
    HttpServer& operator=(const HttpServer&) = delete;
    unsigned short port() const { return port_; }
    std::string url(const std::string& path) const
    {
        return "http://127.0.0.1:" + std::to_string(port_) + path;
    }

private:
    bmsg_test::Child process_;
    unsigned short port_;
};

// What the callbacks of one request saw.
struct Outcome {
    int rc = -1;
    int responses = 0;
    int errors = 0;
    std::string status;
    std::string body;
    int error = 0;
    int state = 0;

    bMSG::HttpResponseCallback on_response()
    {
        return [this](const char* s, const void* b, size_t n) {
            ++responses;
            status = s;
            body.assign(static_cast<const char*>(b), n);
        };
    }
    bMSG::HttpErrorCallback on_error()
    {
        return [this](int e, int s) {
            ++errors;
            error = e;
            state = s;
        };
    }
};

using BodyOp = int (bHttpClient::*)(const char*, const char*, size_t, bMSG::HttpResponseCallback,
                                    bMSG::HttpErrorCallback);

Outcome get(bHttpClient& c, const std::string& path)
{
    Outcome o;
    o.rc = c.get(path.c_str(), o.on_response(), o.on_error());
    return o;
}

Outcome send(bHttpClient& c, BodyOp op, const std::string& path, const char* body, size_t len)
{
    Outcome o;
    o.rc = (c.*op)(path.c_str(), body, len, o.on_response(), o.on_error());
    return o;
}

// A request as the echo path returned it.
struct Received {
    std::string line;
    std::vector<std::string> headers;
    std::string body;
};

Received parse(const std::string& raw)
{
    Received r;
    size_t end = raw.find("\r\n\r\n");
    std::string head = raw.substr(0, end);
    r.body = end == std::string::npos ? "" : raw.substr(end + 4);
    size_t at = 0;
    for (size_t next; (next = head.find("\r\n", at)) != std::string::npos; at = next + 2)
        (r.line.empty() ? r.line : r.headers.emplace_back()) = head.substr(at, next - at);
    (r.line.empty() ? r.line : r.headers.emplace_back()) = head.substr(at);
    return r;
}

int hits(bHttpClient& c, const std::string& path)
{
    return std::atoi(get(c, "/hits" + path).body.c_str());
}

class Http : public ::testing::Test {
protected:
    HttpServer server;
    std::string host_header = "Host: 127.0.0.1:" + std::to_string(server.port());
    bHttpClient client{"127.0.0.1", server.port(), 0, 5};
};

} // namespace

TEST(ToUrl, ComposesOrPassesThrough)
{
    char host[] = "h.example";
    bHttpClient c(host, 80, 0, 0);
    const std::string p = "http://h.example:80";
    EXPECT_EQ(c.to_url("/status"), p + "/status");
    EXPECT_EQ(c.to_url("status"), p + "/status");
    EXPECT_EQ(c.to_url("api/items?id=7"), p + "/api/items?id=7");
    EXPECT_EQ(c.to_url(""), p + "/");
    EXPECT_EQ(c.to_url("//x"), p + "//x");
    EXPECT_EQ(c.to_url("http://other:8080/a"), "http://other:8080/a");
    EXPECT_EQ(c.to_url("https://other/a"), "https://other/a");
    EXPECT_EQ(c.to_url("/api/httpd"), "/api/httpd");
    EXPECT_EQ(c.to_url("HTTP://H2/a"), p + "/HTTP://H2/a");

    EXPECT_EQ(bHttpClient("a", 0, 0, 0).to_url("/x"), "http://a:0/x");
    EXPECT_EQ(bHttpClient("a", 65535, 0, 0).to_url("/x"), "http://a:65535/x");

    host[0] = 'g';  // the pointer is kept, not a copy
    EXPECT_EQ(c.to_url("/s"), "http://g.example:80/s");

    EXPECT_THROW(c.to_url(nullptr), std::logic_error);
    bHttpClient no_host(nullptr, 80, 0, 0);
    EXPECT_THROW(no_host.to_url("/x"), std::logic_error);
    EXPECT_EQ(no_host.to_url("http://a/x"), "http://a/x");
    EXPECT_THROW(no_host.get("/x", {}, {}), std::logic_error);
}

TEST_F(Http, EachMethodAsTheServerReceivesIt)
{
    const std::vector<std::string> standard = {host_header, "Accept: */*",
                                               "User-Agent: Wget/1.14 (gnu-linux)",
                                               "Connection: close"};
    Outcome o = get(client, "echo?q=1");
    EXPECT_EQ(o.rc, 0);
    ASSERT_EQ(o.responses, 1);
    EXPECT_EQ(o.errors, 0);
    EXPECT_EQ(o.status, "200");
    Received r = parse(o.body);
    EXPECT_EQ(r.line, "GET /echo?q=1 HTTP/1.1");
    EXPECT_EQ(r.headers, standard);
    EXPECT_EQ(r.body, "");

    const char data[] = "a b\0c\r\n";  // raw bytes, NUL included
    const std::string bytes(data, sizeof data - 1);
    for (auto [op, verb] : {std::pair{&bHttpClient::post, "POST"}, {&bHttpClient::put, "PUT"}}) {
        r = parse(send(client, op, "/b", data, bytes.size()).body);
        EXPECT_EQ(r.line, std::string(verb) + " /b HTTP/1.1");
        std::vector<std::string> with_length = standard;
        with_length.push_back("Content-Length: " + std::to_string(bytes.size()));
        EXPECT_EQ(r.headers, with_length) << verb;
        EXPECT_EQ(r.body, bytes);

        // An empty body is still sent, with its length.
        for (const char* empty : {static_cast<const char*>(nullptr), data}) {
            r = parse(send(client, op, "/e", empty, 0).body);
            with_length.back() = "Content-Length: 0";
            EXPECT_EQ(r.headers, with_length) << verb;
            EXPECT_EQ(r.body, "");
        }
        // Several MiB of every byte value arrive whole.
        std::string big(5 << 20, '\0');
        for (size_t i = 0; i < big.size(); ++i)
            big[i] = static_cast<char>(i * 7 + i / 251);
        r = parse(send(client, op, "/big", big.data(), big.size()).body);
        EXPECT_EQ(r.line, std::string(verb) + " /big HTTP/1.1");
        EXPECT_TRUE(r.body == big) << verb << ": " << r.body.size() << " bytes arrived";
    }

    // DELETE: none of the three headers; a body only when there is one.
    r = parse(send(client, &bHttpClient::del, "/d", data, bytes.size()).body);
    EXPECT_EQ(r.line, "DELETE /d HTTP/1.1");
    EXPECT_EQ(r.headers,
              (std::vector<std::string>{host_header, "Content-Length: " + std::to_string(bytes.size())}));
    EXPECT_EQ(r.body, bytes);
    for (auto [body, len] : {std::pair<const char*, size_t>{nullptr, 5}, {data, 0}}) {
        r = parse(send(client, &bHttpClient::del, "/d", body, len).body);
        EXPECT_EQ(r.line, "DELETE /d HTTP/1.1");
        EXPECT_EQ(r.headers, std::vector<std::string>{host_header});
    }
}

TEST_F(Http, AnyStatusIsAResponse)
{
    for (int code : {404, 500, 201}) {
        Outcome o = get(client, "/status/" + std::to_string(code));
        EXPECT_EQ(o.rc, 0);
        EXPECT_EQ(o.responses, 1);
        EXPECT_EQ(o.errors, 0);
        EXPECT_EQ(o.status, std::to_string(code));
        EXPECT_EQ(o.body, "status " + std::to_string(code));
    }
    Outcome o = get(client, "/empty");
    EXPECT_EQ(o.status, "200");
    EXPECT_EQ(o.body.size(), 0u);

    // Empty callbacks: the request still runs to completion.
    EXPECT_EQ(client.post("/x", "b", 1, {}, {}), 0);
    EXPECT_EQ(client.get("/status/500", nullptr, nullptr), 0);
    EXPECT_EQ(hits(client, "/x"), 1);

    // A callback's exception reaches the caller.
    EXPECT_THROW(client.get("/x", [](const char*, const void*, size_t) { throw std::runtime_error("cb"); }, {}),
                 std::runtime_error);

    // A whole URL in the path goes to that server, whatever the client's.
    bHttpClient elsewhere("127.0.0.1", bmsg_test::free_port(), 0, 0);
    EXPECT_EQ(parse(get(elsewhere, server.url("/other")).body).line, "GET /other HTTP/1.1");
}

TEST_F(Http, FailuresGoToOnErrorOnce)
{
    bHttpClient refused("127.0.0.1", bmsg_test::free_port(), 2, 0);
    Outcome o = get(refused, "/x");
    EXPECT_EQ(o.rc, 0);
    EXPECT_EQ(o.responses, 0);
    EXPECT_EQ(o.errors, 1);
    EXPECT_EQ(o.state, bMSG::HTTP_STATE_SYS_ERROR);
    EXPECT_EQ(o.error, ECONNREFUSED);
    EXPECT_EQ(refused.del("/x", nullptr, 0, {}, {}), 0);

    // Make a slow resolver give up quickly; the name never resolves.
    setenv("RES_OPTIONS", "timeout:1 attempts:1", 1);
    addrinfo* found = nullptr;
    int expected = getaddrinfo("nonexistent.invalid", nullptr, nullptr, &found);
    ASSERT_NE(expected, 0);
    bHttpClient unknown("nonexistent.invalid", 80, 1, 0);
    o = get(unknown, "/");
    EXPECT_EQ(o.errors, 1);
    EXPECT_EQ(o.state, bMSG::HTTP_STATE_DNS_ERROR);
    EXPECT_EQ(o.error, expected);

    const std::pair<std::string, int> bad_urls[] = {
        {"http://", bMSG::HTTP_ERR_URI_PARSE_FAILED},
        {"xhttpx", bMSG::HTTP_ERR_URI_PARSE_FAILED},
        {"gopher://127.0.0.1/http", bMSG::HTTP_ERR_URI_SCHEME_INVALID},
        {"http://127.0.0.1:70000/", bMSG::HTTP_ERR_URI_PORT_INVALID},
    };
    for (const auto& [url, error] : bad_urls) {
        o = get(client, url);
        EXPECT_EQ(o.errors, 1) << url;
        EXPECT_EQ(o.state, bMSG::HTTP_STATE_TASK_ERROR) << url;
        EXPECT_EQ(o.error, error) << url;
    }
    std::string https = server.url("/tls");
    https.insert(4, "s");
    o = get(client, https);
    EXPECT_EQ(o.errors, 1);
    EXPECT_EQ(o.state, bMSG::HTTP_STATE_SSL_ERROR);
    bHttpClient port0("127.0.0.1", 0, 0, 0);
    EXPECT_EQ(get(port0, "/").error, bMSG::HTTP_ERR_URI_PORT_INVALID);
    bHttpClient blank("bad host", 80, 0, 0);
    EXPECT_EQ(get(blank, "/").error, bMSG::HTTP_ERR_URI_PARSE_FAILED);
}

TEST_F(Http, BrokenServersAndRetries)
{
    bHttpClient retrying("127.0.0.1", server.port(), 2, 0);
    Outcome o = get(retrying, "/garbage");
    EXPECT_EQ(o.errors, 1);
    EXPECT_EQ(o.state, bMSG::HTTP_STATE_SYS_ERROR);
    EXPECT_EQ(o.error, EBADMSG);

    // A response that began is not retried.
    o = get(retrying, "/cut");
    EXPECT_EQ(o.errors, 1);
    EXPECT_EQ(o.responses, 0);
    EXPECT_EQ(o.state, bMSG::HTTP_STATE_SYS_ERROR);
    EXPECT_EQ(o.error, ECONNRESET);
    EXPECT_EQ(hits(client, "/cut"), 1);

    // Dropped connections are retried up to retry_max more times.
    bHttpClient three("127.0.0.1", server.port(), 3, 0);
    o = get(three, "/drop/3/a");
    EXPECT_EQ(o.errors, 0);
    EXPECT_EQ(o.body, "attempt 4");
    o = send(retrying, &bHttpClient::post, "/drop/3/b", "x", 1);
    EXPECT_EQ(o.errors, 1);
    EXPECT_EQ(o.responses, 0);
    EXPECT_EQ(o.state, bMSG::HTTP_STATE_SYS_ERROR);
    EXPECT_EQ(o.error, ECONNRESET);
    EXPECT_EQ(hits(client, "/drop/3/b"), 3);
    bHttpClient negative("127.0.0.1", server.port(), -4, 0);
    EXPECT_EQ(get(negative, "/drop/1/c").errors, 1);
    EXPECT_EQ(hits(client, "/drop/1/c"), 1);
}

TEST_F(Http, SilentServersTimeOut)
{
    Outcome hang, stall;
    std::thread t([&] { hang = get(client, "/hang"); });
    stall = get(client, "/stall");
    t.join();
    for (const Outcome* o : {&hang, &stall}) {
        EXPECT_EQ(o->errors, 1);
        EXPECT_EQ(o->responses, 0);
        EXPECT_EQ(o->state, bMSG::HTTP_STATE_SYS_ERROR);
        EXPECT_EQ(o->error, ETIMEDOUT);
        EXPECT_EQ(o->body, "") << "a time-out gives no partial body";
    }
}

TEST_F(Http, Redirects)
{
    Outcome o = get(client, "/redirect/3");
    EXPECT_EQ(o.status, "200");
    EXPECT_EQ(parse(o.body).line, "GET /redirect/0?code=302 HTTP/1.1");

    // At the limit the last 30x is the response.
    bHttpClient two("127.0.0.1", server.port(), 0, 2);
    o = get(two, "/redirect/3?code=301");
    EXPECT_EQ(o.status, "301");
    EXPECT_EQ(o.body, "");
    EXPECT_EQ(hits(client, "/redirect/1"), 2);  // once per chain
    EXPECT_EQ(hits(client, "/redirect/0"), 1);
    bHttpClient none("127.0.0.1", server.port(), 0, 0);
    o = get(none, "/redirect/1?code=308");
    EXPECT_EQ(o.errors, 0);
    EXPECT_EQ(o.status, "308");
    EXPECT_EQ(get(none, "/nolocation").status, "302");

    // 307 and 308 repeat method and body; 303 continues with a bare GET.
    for (int code : {307, 308}) {
        Received r = parse(send(client, &bHttpClient::put, "/redirect/1?code=" + std::to_string(code), "xyz", 3).body);
        EXPECT_EQ(r.line, "PUT /redirect/0?code=" + std::to_string(code) + " HTTP/1.1");
        EXPECT_EQ(r.body, "xyz");
    }
    Received r = parse(send(client, &bHttpClient::post, "/redirect/1?code=303", "xyz", 3).body);
    EXPECT_EQ(r.line, "GET /redirect/0?code=303 HTTP/1.1");
    EXPECT_EQ(r.headers.back(), "Connection: close");
    EXPECT_EQ(r.body, "");

    for (const char* path : {"/nolocation", "/badlocation"}) {
        o = get(client, path);
        EXPECT_EQ(o.errors, 1) << path;
        EXPECT_EQ(o.responses, 0);
        EXPECT_EQ(o.state, bMSG::HTTP_STATE_TASK_ERROR);
        EXPECT_EQ(o.error, bMSG::HTTP_ERR_BAD_REDIRECT);
    }
}

TEST_F(Http, ConcurrentRequestsOnOneClient)
{
    std::vector<std::thread> threads;
    std::vector<int> good(4, 0);
    for (int i = 0; i < 4; ++i)
        threads.emplace_back([&, i] {
            for (int n = 0; n < 10; ++n) {
                std::string body = "thread " + std::to_string(i) + " request " + std::to_string(n);
                Outcome o = send(client, &bHttpClient::post, "/t" + std::to_string(i), body.data(), body.size());
                good[i] += o.responses == 1 && parse(o.body).body == body;
            }
        });
    for (auto& t : threads)
        t.join();
    EXPECT_EQ(good, std::vector<int>(4, 10));
}

TEST_F(Http, ProxyVariablesAreIgnored)
{
    // Were the variables used, the server would see itself as the proxy and
    // receive the whole URL in the request line.
    const std::string proxy = server.url("");
    for (const char* name : {"http_proxy", "HTTP_PROXY", "https_proxy", "HTTPS_PROXY", "all_proxy", "ALL_PROXY"})
        setenv(name, proxy.c_str(), 1);
    unsetenv("no_proxy");
    unsetenv("NO_PROXY");
    Outcome o = get(client, "/direct");
    EXPECT_EQ(o.responses, 1);
    EXPECT_EQ(parse(o.body).line, "GET /direct HTTP/1.1");
}
