// bmsg keygen: the key pair of sealed recordings; the opening of a recording
// with the secret key that `play`, `export` and `report` take (--key).
#include "bmsg_record.h"
#include "recording.h"
#include "sealing.h"

namespace bmsg_tool {

namespace {

std::string key_name;

int keygen(const Options&)
{
    std::string error;
    if (!sealing::write_key_pair(key_name, error))
        return fail(error);
    printf("%s.pub: the public key (record --seal-to)\n%s.key: the secret key (--key), mode 0600\n",
           key_name.c_str(), key_name.c_str());
    return 0;
}

} // namespace

std::unique_ptr<recording::File> open_recording(const std::string& path, const std::string& key_file, bool contents)
{
    std::string error;
    std::unique_ptr<sealing::SecretKey> key;
    if (!key_file.empty() && !(key = sealing::read_secret_key(key_file, error))) {
        fail(error);
        return nullptr;
    }
    auto file = recording::File::open(path, error, key.get());
    if (file && contents && file->locked())
        error = "sealed: its secret key is needed (--key)";
    else if (file)
        return file;
    fail(path + ": " + error);
    return nullptr;
}

void add_key_option(CLI::App* sub, std::string& key_file)
{
    sub->add_option("--key", key_file, "The secret key of a sealed recording (bmsg keygen)")
        ->type_name("SECRET_KEY_FILE");
}

void add_keygen_command(CLI::App& app, Action& action)
{
    auto* sub = app.add_subcommand(
        "keygen", "Write a key pair for sealed recordings: NAME.pub, the public key for record "
                  "--seal-to (the device holds only this one), and NAME.key, the secret key (mode "
                  "0600) for play, export and report --key. Existing files are never overwritten");
    sub->add_option("-o,--output", key_name, "The key files' name without .pub and .key")
        ->required()
        ->type_name("NAME");
    sub->callback([&] { action = keygen; });
}

} // namespace bmsg_tool
