// Moves a synthetic biometric sample from one process to another: the parent
// publishes a 640x480 grey image on the modality "DEMO_<pid>", a forked
// consumer receives it and checks every pixel.
// Usage: bmsg_sample_demo [address-or-socket-path] [port]
#include "bimage.h"
#include "bmessager.h"

#include <sys/wait.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <memory>
#include <string>

namespace {

unsigned char pixel(int i)
{
    return static_cast<unsigned char>(i * 7 + i / 640);
}

int consume(const char* address, uint16_t port, const std::string& modality)
{
    bMSG::Messager bus(address, port, 3);
    char from[64] = {};
    std::unique_ptr<BImage::Image> image(bus.bio_sample_recv({modality.c_str()}, 5, from, sizeof from));
    if (!image) {
        printf("consumer: no sample arrived\n");
        return 1;
    }
    for (int i = 0; i < image->count(); ++i) {
        if (image->data[i] != pixel(i)) {
            printf("consumer: pixel %d differs\n", i);
            return 1;
        }
    }
    printf("consumer: received %dx%d format %d from %s, %d bytes verified\n", image->width,
           image->height, static_cast<int>(image->format), from, image->count());
    return 0;
}

} // namespace

int main(int argc, char** argv)
{
    const char* address = argc > 1 ? argv[1] : "127.0.0.1";
    const uint16_t port = static_cast<uint16_t>(argc > 2 ? atoi(argv[2]) : 6379);
    const std::string modality = "DEMO_" + std::to_string(getpid());

    fflush(stdout);
    pid_t consumer = fork();
    if (consumer == 0) {
        int rc = consume(address, port, modality);
        fflush(stdout);
        _exit(rc);
    }

    // The producer keeps its Messager (and so the segment) until the consumer
    // is done: the segment is unlinked when it goes.
    int rc = 1;
    {
        bMSG::Messager bus(address, port, 3);
        BImage::Image image(640, 480, BImage::GRAY8, nullptr);
        for (int i = 0; i < image.count(); ++i)
            image.data[i] = pixel(i);
        printf("producer: sending a %dx%d grey sample on %s%s\n", image.width, image.height,
               bus.bio_sample, modality.c_str());
        fflush(stdout);
        if (bus.bio_sample_send(modality.c_str(), &image) != 0)
            printf("producer: send failed\n");
        int status = 0;
        waitpid(consumer, &status, 0);
        rc = WIFEXITED(status) ? WEXITSTATUS(status) : 1;
    }
    return rc;
}
