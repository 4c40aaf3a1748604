// Stores a setting and a sample through the installed library and reads
// them back. Usage: consumer SOCKET
#include <bimage.h>
#include <bmessager.h>

#include <memory>
#include <string>

int main(int argc, char** argv)
{
    bMSG::Messager bus(argc > 1 ? argv[1] : "", 6379, 1);
    char value[8] = {};
    BImage::Image image(2, 2, BImage::GRAY8, nullptr);
    if (bus.set("consumer", "ok") != 0 || bus.get("consumer", value, sizeof value) != 0 ||
        bus.bio_sample_send("consumer", &image) != 0)
        return 1;
    char from[16];
    std::unique_ptr<BImage::Image> back(bus.bio_sample_recv({"consumer"}, 1, from, sizeof from));
    return std::string(value) == "ok" && back && back->count() == 4 ? 0 : 1;
}
