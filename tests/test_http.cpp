#include "bhttpclient.h"
#include "redis_server.h"

#include <gtest/gtest.h>

#include <dlfcn.h>
#include <netdb.h>

#include <cerrno>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <stdexcept>
#include <thread>

using bMSG::bHttpClient;

// The resolver of a device whose DNS server does not answer, for one name.
extern "C" int getaddrinfo(const char* node, const char* service, const addrinfo* hints, addrinfo** found)
{
    static const auto real = reinterpret_cast<decltype(&getaddrinfo)>(dlsym(RTLD_NEXT, "getaddrinfo"));
    return node && std::string(node) == "dns-down.invalid" ? EAI_AGAIN : real(node, service, hints, found);
}

namespace {

using Op = int (bHttpClient::*)(const char*, const char*, size_t, bMSG::HttpResponseCallback,
                                bMSG::HttpErrorCallback);
const std::string standard = "Accept: */*\r\nUser-Agent: Wget/1.14 (gnu-linux)\r\nConnection: close\r\n";

std::string err(int error, int state) { return "error " + std::to_string(error) + "/" + std::to_string(state); }

// What the callbacks saw, in order: "<status> <body>", "error <error>/<state>".
std::string call(bHttpClient& c, Op op, const std::string& path, const char* body = nullptr, size_t length = 0)
{
    std::string seen;
    auto on_response = [&](const char* s, const void* b, size_t n) { seen += s + (" " + std::string(static_cast<const char*>(b), n)); };
    auto on_error = [&](int e, int s) { seen += err(e, s); };
    const int rc = op ? (c.*op)(path.c_str(), body, length, on_response, on_error)
                      : c.get(path.c_str(), on_response, on_error);
    return rc == 0 ? seen : "returned " + std::to_string(rc);
}

// tests/http_server.py on a port of its own, stopped by pid.
class Http : public ::testing::Test {
protected:
    bmsg_test::Child server = bmsg_test::spawn_native("python3", {BMSG_HTTP_SERVER});
    unsigned short port = static_cast<unsigned short>(
        bmsg_test::wait_until([this] { return !server.out().empty(); }) ? std::stoi(server.out()) : 0);
    bHttpClient client{"127.0.0.1", port, 0, 5};
    bHttpClient on(int retries, int redirects) { return bHttpClient("127.0.0.1", port, retries, redirects); }
    int hits(const std::string& path) { return std::stoi(call(client, nullptr, "/hits" + path).substr(4)); }

    // A request, its outcome, the requests for its path the server saw (-1: any).
    struct Row { bHttpClient c; Op op; std::string path; const char* body; size_t length; std::string expected; int hits; };
    void walk(const std::vector<Row>& rows)
    {
        for (Row r : rows) {
            EXPECT_EQ(call(r.c, r.op, r.path, r.body, r.length), r.expected) << r.path;
            EXPECT_EQ(r.hits < 0 ? r.hits : hits(r.path.substr(0, r.path.find('?'))), r.hits) << r.path;
        }
    }
};

} // namespace

TEST(ToUrl, ComposesOrPassesThrough)
{
    char host[] = "h";
    const bHttpClient c(host, 80, 0, 0), no_host(nullptr, 80, 0, 0);
    for (const auto& [path, url] : std::vector<std::pair<const char*, std::string>>{
             {"/s", "http://h:80/s"}, {"s?id=7", "http://h:80/s?id=7"}, {"", "http://h:80/"}, {"//x", "http://h:80//x"},
             {"https://o/a", "https://o/a"}, {"/api/httpd", "/api/httpd"}, {"HTTP://o/a", "http://h:80/HTTP://o/a"}})
        EXPECT_EQ(c.to_url(path), url) << path;
    host[0] = 'g';  // the client keeps the pointer
    EXPECT_EQ(c.to_url("/s"), "http://g:80/s");
    EXPECT_EQ(bHttpClient("a", 65535, 0, 0).to_url("/x"), "http://a:65535/x");
    EXPECT_EQ(no_host.to_url("http://a/x"), "http://a/x");
    bHttpClient tls("h", 1, 0, 0);
    tls.set_tls({true, "", "", "", ""});
    EXPECT_EQ(tls.to_url("/s") + " " + tls.to_url("http://o/a"), "https://h:1/s http://o/a");
    EXPECT_THROW(c.to_url(nullptr), std::logic_error);
    EXPECT_THROW(bHttpClient(nullptr, 80, 0, 0).get("/x", {}, {}), std::logic_error);
}

TEST_F(Http, RequestsAsTheServerReceivesThem)
{
    const char data[] = "a b\0c\r\n";  // NUL included
    const std::string length = "Content-Length: 7\r\n\r\n" + std::string(data, 7);
    setenv("http_proxy", ("http://127.0.0.1:" + std::to_string(port)).c_str(), 1);  // to be ignored
    walk({
        {client, nullptr, "echo?q=1", nullptr, 0, "200 GET /echo?q=1 HTTP/1.1\r\n" + standard + "\r\n", -1},
        {client, &bHttpClient::post, "/p", data, 7, "200 POST /p HTTP/1.1\r\n" + standard + length, 1},
        {client, &bHttpClient::put, "/u", data, 7, "200 PUT /u HTTP/1.1\r\n" + standard + length, 1},
        {client, &bHttpClient::post, "/p", nullptr, 0, "200 POST /p HTTP/1.1\r\n" + standard + "Content-Length: 0\r\n\r\n", 2},
        {client, &bHttpClient::put, "/u", data, 0, "200 PUT /u HTTP/1.1\r\n" + standard + "Content-Length: 0\r\n\r\n", 2},
        {client, &bHttpClient::del, "/d", data, 7, "200 DELETE /d HTTP/1.1\r\n" + length, 1},
        {client, &bHttpClient::del, "/d", nullptr, 7, "200 DELETE /d HTTP/1.1\r\n\r\n", 2},
        {client, &bHttpClient::del, "/d", data, 0, "200 DELETE /d HTTP/1.1\r\n\r\n", 3},
        {client, nullptr, "/status/404", nullptr, 0, "404 status 404", 1},
    });
    // Several MiB of every byte value arrive whole.
    std::string big(5 << 20, '\0');
    for (size_t i = 0; i < big.size(); ++i)
        big[i] = static_cast<char>(i * 7 + i / 251);
    const std::string head = " /big HTTP/1.1\r\n" + standard + "Content-Length: 5242880\r\n\r\n";
    EXPECT_TRUE(call(client, &bHttpClient::post, "/big", big.data(), big.size()) == "200 POST" + head + big);  // PUT: same body path

    EXPECT_TRUE(client.post("/quiet", "b", 1, {}, {}) == 0 && hits("/quiet") == 1);  // empty callbacks
    auto throws = [](const char*, const void*, size_t) { throw std::runtime_error("cb"); };
    EXPECT_THROW(client.get("/", throws, {}), std::runtime_error);
}

TEST_F(Http, FailuresRetriesAndRedirects)
{
    const std::string echo0 = " /redirect/0?code=30";
    walk({
        {bHttpClient("127.0.0.1", bmsg_test::free_port(), 2, 0), nullptr, "/", nullptr, 0, err(ECONNREFUSED, 1), -1},
        {bHttpClient("dns-down.invalid", 80, 1, 0), nullptr, "/", nullptr, 0, err(EAI_AGAIN, 66), -1},
        {bHttpClient("127.0.0.1", 0, 0, 0), nullptr, "/", nullptr, 0, err(1003, 67), -1},
        {bHttpClient("bad host", 80, 0, 0), nullptr, "/", nullptr, 0, err(1001, 67), -1},
        {on(0, 0), nullptr, "xhttpx", nullptr, 0, err(1001, 67), -1},
        {on(0, 0), nullptr, "gopher://127.0.0.1/http", nullptr, 0, err(1002, 67), -1},
        {on(0, 0), nullptr, "http://127.0.0.1:70000/", nullptr, 0, err(1003, 67), -1},
        {on(2, 0), nullptr, "/garbage", nullptr, 0, err(EBADMSG, 1), 3},
        {on(0, 0), nullptr, "https://127.0.0.1:" + std::to_string(port) + "/", nullptr, 0, err(35, 65), -1},
        {on(2, 0), nullptr, "/cut", nullptr, 0, err(ECONNRESET, 1), 1},
        {on(3, 0), nullptr, "/drop/3/a", nullptr, 0, "200 attempt 4", 4},
        {on(2, 0), &bHttpClient::post, "/drop/3/b", "xyz", 3, err(ECONNRESET, 1), 3},
        {on(-4, 0), nullptr, "/drop/1/c", nullptr, 0, err(ECONNRESET, 1), 1},
        {on(0, 5), nullptr, "/redirect/3", nullptr, 0, "200 GET" + echo0 + "2 HTTP/1.1\r\n" + standard + "\r\n", 1},
        {on(0, 2), nullptr, "/redirect/3?code=301", nullptr, 0, "301 ", 2},
        {on(0, 0), nullptr, "/redirect/1?code=308", nullptr, 0, "308 ", -1},
        {on(0, 5), &bHttpClient::put, "/redirect/1?code=307", "xyz", 3, "200 PUT" + echo0 + "7 HTTP/1.1\r\n" + standard + "Content-Length: 3\r\n\r\nxyz", -1},
        {on(0, 5), &bHttpClient::post, "/redirect/1?code=308", "xyz", 3, "200 POST" + echo0 + "8 HTTP/1.1\r\n" + standard + "Content-Length: 3\r\n\r\nxyz", -1},
        {on(0, 5), &bHttpClient::post, "/redirect/1?code=303", "xyz", 3, "200 GET" + echo0 + "3 HTTP/1.1\r\n" + standard + "\r\n", -1},
        {on(0, 0), nullptr, "/nolocation", nullptr, 0, "302 ", -1},
        {on(0, 5), nullptr, "/nolocation", nullptr, 0, err(2001, 67), -1},
        {on(0, 5), nullptr, "/badlocation", nullptr, 0, err(2001, 67), -1},
    });
}

// No byte ever, or none after the first ones: both after HTTP_STALL_TIMEOUT_MS, side by side.
TEST_F(Http, SilentServersTimeOut)
{
    std::string hang;
    std::thread t([&] { hang = call(client, nullptr, "/hang"); });
    EXPECT_EQ(call(client, nullptr, "/stall") + " " + (t.join(), hang), err(ETIMEDOUT, 1) + " " + err(ETIMEDOUT, 1));
}

// tests/http_server.py with its TLS listeners; certificates made for the test.
TEST(Https, VerifiesTheServerAndPresentsTheDevice)
{
    struct Dir {
        char path[32] = "/tmp/bmsg-https-XXXXXX";
        ~Dir() { std::filesystem::remove_all(path); }
    } dir;
    const std::string d = mkdtemp(dir.path) ? dir.path : "";
    bmsg_test::Child server = bmsg_test::spawn_native("python3", {BMSG_HTTP_SERVER, d});
    const auto ready = [&] { return server.out().find('\n') != std::string::npos; };
    for (int i = 0; i < 5 && !ready(); ++i)  // making certificates on a busy machine can be slow
        bmsg_test::wait_until(ready);
    ASSERT_TRUE(ready()) << server.err();
    unsigned short plain, good, unknown, wrong_host, expired, mutual;
    std::istringstream(server.out()) >> plain >> good >> unknown >> wrong_host >> expired >> mutual;
    std::string pin, ok = "200 status 200", wrong_pin = "sha256//" + std::string(43, 'A') + "=";
    std::ifstream(d + "/pin") >> pin;
    setenv("SSLKEYLOGFILE", (d + "/keys").c_str(), 1);  // before libcurl starts: to be ignored
    bHttpClient probe("127.0.0.1", plain, 0, 0);
    const auto connections = [&](unsigned short p) { return std::stoi(call(probe, nullptr, "/hits/tls/" + std::to_string(p)).substr(4)); };
    const auto whole = [](std::string scheme_host, unsigned short p) { return scheme_host + ":" + std::to_string(p) + "/status/200"; };
    // Files are in the test's directory; a client certificate goes with device.key. Up to 3 retries;
    // `tries`: connections the server saw.
    struct Row { const char* host; unsigned short port; std::string ca, pin, cert, path, expected; int tries; };
    const auto file = [&d](const std::string& name) { return name.empty() ? name : d + "/" + name; };
    for (const Row& r : std::vector<Row>{
             {"127.0.0.1", good, "ca.pem", "", "", "/status/200", ok, 1},
             {"127.0.0.1", good, "ca.pem", "", "", whole("https://localhost", good), ok, 1},
             {"127.0.0.1", good, "ca.pem", pin, "", "/status/200", ok, 1},
             {"127.0.0.1", good, "ca.pem", "", "", "/redirect/1?code=307", "200 GET /redirect/0?code=307 HTTP/1.1\r\n" + standard + "\r\n", 2},
             {"127.0.0.1", mutual, "ca.pem", "", "device.pem", whole("https://127.0.0.1", mutual), ok, 1},
             {"127.0.0.1", good, "ca.pem", "", "", whole("http://127.0.0.1", good), err(1002, 67), 0},  // never in the clear
             {"127.0.0.1", good, "", "", "", "/status/200", err(60, 65), 1},  // the system's CAs do not know ours
             {"127.0.0.1", unknown, "ca.pem", "", "", "/status/200", err(60, 65), 1},
             {"127.0.0.1", wrong_host, "ca.pem", "", "", "/status/200", err(60, 65), 1},
             {"127.0.0.1", expired, "ca.pem", "", "", whole("https://127.0.0.1", expired), err(60, 65), 1},
             {"127.0.0.1", good, "ca.pem", wrong_pin, "", whole("https://127.0.0.1", good), err(90, 65), 1},
             {"127.0.0.1", unknown, "ca.pem", pin, "", "/status/200", err(60, 65), 1},
             {"127.0.0.1", good, "missing.pem", "", "", "/status/200", err(77, 65), 1},
             {"127.0.0.1", mutual, "ca.pem", "", "", "/status/200", err(56, 65), 4},  // looks like a dropped connection
             {"127.0.0.1", mutual, "ca.pem", "", "missing.pem", "/status/200", err(58, 65), 1},
             {"127.0.0.1", good, "ca.pem", "", "", "/downgrade", err(2001, 67), 1},
         }) {
        bHttpClient c(r.host, r.port, 3, 5);
        c.set_tls({true, file(r.ca), r.pin, file(r.cert), file(r.cert.empty() ? "" : "device.key")});
        const int before = connections(r.port);
        std::string seen = call(c, nullptr, r.path);
        if (seen == err(55, 65))  // the refusal of a missing client certificate came before our request
            seen = err(56, 65);
        EXPECT_EQ(seen, r.expected) << r.host << ":" << r.port << r.path;
        int tries = 0;  // the server may take up a connection after the client has given it up
        bmsg_test::wait_until([&] { return (tries = connections(r.port) - before) >= r.tries; });
        EXPECT_EQ(tries, r.tries) << r.host << ":" << r.port << r.path;
    }
    EXPECT_LE(static_cast<long>(std::ifstream(d + "/keys", std::ios::ate).tellg()), 0);  // no TLS secret logged
}
