// The demo's consumer: receives COUNT "finger" samples, writes each as
// DIR/capture-N.png, posts a JSON record of it to the web service, tells
// SYSTEM_STATUS, and finally asks the web service how many records it holds.
// The web service is reached over HTTPS, verified by the CA certificate
// named in the environment variable BMSG_DEMO_CA. Logs in to the bus as the
// user "consumer" with the password in BMSG_PASSWORD.
// Usage: BMSG_DEMO_CA=CA.pem demo_consumer SOCKET START_MS HTTP_PORT DIR COUNT
#include "bhttpclient.h"
#include "bimage.h"
#include "bmessager.h"
#include "picture.h"
#include "trace.h"

#include <cstdlib>
#include <memory>
#include <string>

namespace {

constexpr int wait_seconds = 30;

// The response's status and body, or the error, of one request.
struct Outcome {
    std::string status, body;
    void on_response(const char* s, const void* b, size_t n)
    {
        status = s;
        body.assign(static_cast<const char*>(b), n);
    }
    void on_error(int error, int state)
    {
        status = "error " + std::to_string(error) + " state " + std::to_string(state);
    }
};

Outcome post(bMSG::bHttpClient& http, const std::string& json)
{
    Outcome o;
    http.post("/records", json.data(), json.size(),
              [&](const char* s, const void* b, size_t n) { o.on_response(s, b, n); },
              [&](int e, int st) { o.on_error(e, st); });
    return o;
}

} // namespace

int main(int argc, char** argv)
{
    const char* ca = getenv("BMSG_DEMO_CA");
    if (argc != 6 || !ca || !*ca) {
        fprintf(stderr,
                "usage: BMSG_DEMO_CA=CA.pem demo_consumer SOCKET START_MS HTTP_PORT DIR COUNT\n");
        return 2;
    }
    const long long start = atoll(argv[2]);
    const std::string dir = argv[4];
    const int count = atoi(argv[5]);
    bMSG::Messager bus(argv[1], 0, 3, "consumer", getenv("BMSG_PASSWORD"));
    if (!bus.redis_context())
        return 1;
    demo::trace(start, "consumer", "logged in to %s as consumer", argv[1]);
    bMSG::bHttpClient http("127.0.0.1", static_cast<unsigned short>(atoi(argv[3])), 1, 0);
    bMSG::HttpTls tls;
    tls.https = true;
    tls.ca_file = ca;
    http.set_tls(tls);
    demo::trace(start, "consumer", "records go to %s over HTTPS, verified by the run's CA %s",
                http.to_url("/records").c_str(), ca);
    demo::trace(start, "consumer", "waiting on BIOMETRIC_SAMPLE_finger");
    for (int i = 1; i <= count; ++i) {
        char modality[32] = {};
        std::unique_ptr<BImage::Image> image(
            bus.bio_sample_recv({"finger"}, wait_seconds, modality, sizeof modality));
        picture::Picture pic;
        std::string error;
        const std::string path = dir + "/capture-" + std::to_string(i) + ".png";
        if (!image || !picture::from_image(*image, pic) || !picture::write_png(path, pic, error)) {
            demo::trace(start, "consumer", "sample %d: not received or not written %s", i, error.c_str());
            return 1;
        }
        const std::string json = "{\"capture\": " + std::to_string(i) + ", \"modality\": \"" +
                                 modality + "\", \"width\": " + std::to_string(image->width) +
                                 ", \"height\": " + std::to_string(image->height) +
                                 ", \"png\": \"" + path + "\"}";
        const long long t0 = demo::now_ms();
        const Outcome o = post(http, json);
        demo::trace(start, "consumer", "sample %d %dx%d -> %s; POST /records: %s (%lld ms)", i,
                    image->width, image->height, path.c_str(), o.status.c_str(), demo::now_ms() - t0);
        if (o.status != "201")
            return 1;
        bus.system_publish("%s", ("consumer:stored:" + std::to_string(i)).c_str());
    }
    Outcome o;
    http.get("/count", [&](const char* s, const void* b, size_t n) { o.on_response(s, b, n); },
             [&](int e, int st) { o.on_error(e, st); });
    while (!o.body.empty() && o.body.back() == '\n')
        o.body.pop_back();
    demo::trace(start, "consumer", "GET /count: %s, %s record(s)", o.status.c_str(), o.body.c_str());
    return o.status == "200" && atoi(o.body.c_str()) == count ? 0 : 1;
}
