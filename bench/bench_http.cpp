// Requests per second of bHttpClient::get against a local nginx, next to the
// same loop written directly with libcurl (one easy handle per request, the
// same three headers, the body gathered in memory); and the same get over
// HTTPS on the same nginx (a full TLS handshake per request, the server
// verified by the CA bench/run made for it).
#include "bench_common.h"
#include "bhttpclient.h"

#include <benchmark/benchmark.h>
#include <curl/curl.h>

#include <string>

namespace {

uint16_t http_port(const char* variable = "BMSG_BENCH_HTTP_PORT")
{
    return static_cast<uint16_t>(atoi(bench::env(variable)));
}

void get_loop(benchmark::State& state, bMSG::bHttpClient& client)
{
    size_t bytes = 0;
    bool failed = false;
    for (auto _ : state) {
        client.get("/", [&](const char*, const void*, size_t n) { bytes += n; },
                   [&](int, int) { failed = true; });
        if (failed) {
            state.SkipWithError("request failed");
            break;
        }
    }
    state.SetItemsProcessed(state.iterations());
    benchmark::DoNotOptimize(bytes);
}

void http_get_client(benchmark::State& state)
{
    bMSG::bHttpClient client("127.0.0.1", http_port(), 0, 0);
    get_loop(state, client);
}

void https_get_client(benchmark::State& state)
{
    bMSG::bHttpClient client("127.0.0.1", http_port("BMSG_BENCH_HTTPS_PORT"), 0, 0);
    bMSG::HttpTls tls;
    tls.https = true;
    tls.ca_file = bench::env("BMSG_BENCH_HTTPS_CA");
    client.set_tls(tls);
    get_loop(state, client);
}

size_t gather(char* data, size_t size, size_t n, void* body)
{
    static_cast<std::string*>(body)->append(data, size * n);
    return size * n;
}

void http_get_curl(benchmark::State& state)
{
    curl_global_init(CURL_GLOBAL_DEFAULT);
    const std::string url = "http://127.0.0.1:" + std::to_string(http_port()) + "/";
    curl_slist* headers = nullptr;
    headers = curl_slist_append(headers, "Accept: */*");
    headers = curl_slist_append(headers, "User-Agent: Wget/1.14 (gnu-linux)");
    headers = curl_slist_append(headers, "Connection: close");
    for (auto _ : state) {
        std::string body;
        CURL* curl = curl_easy_init();
        curl_easy_setopt(curl, CURLOPT_URL, url.c_str());
        curl_easy_setopt(curl, CURLOPT_HTTPHEADER, headers);
        curl_easy_setopt(curl, CURLOPT_NOSIGNAL, 1L);
        curl_easy_setopt(curl, CURLOPT_WRITEFUNCTION, gather);
        curl_easy_setopt(curl, CURLOPT_WRITEDATA, &body);
        const CURLcode rc = curl_easy_perform(curl);
        long status = 0;
        curl_easy_getinfo(curl, CURLINFO_RESPONSE_CODE, &status);
        curl_easy_cleanup(curl);
        if (rc != CURLE_OK || status != 200) {
            state.SkipWithError("request failed");
            break;
        }
    }
    curl_slist_free_all(headers);
    state.SetItemsProcessed(state.iterations());
}

} // namespace

BENCHMARK(http_get_client);
BENCHMARK(http_get_curl);
BENCHMARK(https_get_client);

BENCHMARK_MAIN();
